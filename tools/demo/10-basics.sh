# The device sandbox and the first tools: versions, encodings, SQL through the wrapper.

section "A fresh device in a private sandbox"
show 'ls /mnt/ext1/system /zelgrot'
show 'qvtool version'

section "Encodings of the library"
show "echo 'Grüße from the reader' | qvtool hex"
show "echo '4772c3bc c39f65 0a' | qvtool unhex"
show "printf 'any bytes \\000\\001\\377' | qvtool base64"
show_fails "echo 'not hex!' | qvtool unhex"

section "SQL through the library's SQLite wrapper"
show "qvtool sql --create /mnt/ext1/demo.db \"
    CREATE TABLE books (id INTEGER PRIMARY KEY, title TEXT, author TEXT, pages INTEGER);
    INSERT INTO books (title, author, pages) VALUES
        ('Die Verwandlung', 'Franz Kafka', 96),
        ('Война и мир', 'Лев Толстой', 1225),
        ('The Old Man and the Sea', 'Ernest Hemingway', 127);\""
show "qvtool sql /mnt/ext1/demo.db 'SELECT title, author, pages FROM books ORDER BY pages DESC'"
show_fails "qvtool sql /mnt/ext1/missing.db 'SELECT 1'"
show_fails "qvtool sql /mnt/ext1/demo.db 'SELEKT nothing'"
