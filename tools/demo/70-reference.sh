# Country and language codes, command lines as applications read them, plug-ins, hash helpers.

section "Country codes: FIPS 10-4, ISO alpha-2, alpha-3 and numeric, from the device's table"
show "grep -m 3 -v '^#' /zelgrot/share/iso-3166-1.txt"
show "qvtool country deu"
show "qvtool country GM --from fips --to a2    # FIPS GM is Germany ..."
show "qvtool country GM --to a3                # ... alpha-2 GM is Gambia"
show_fails "qvtool country XQ"

section "Language codes: ISO 639-2 bibliographic and terminology, ISO 639-1, names"
show "qvtool language fre"
show "qvtool language 'Greek, Modern (1453-)' --to a2"

section "Command lines by the device's rules: quotes, grouped flags, repeated options"
show "qvtool args '/zelgrot/bin/reader \"/mnt/ext1/My Books/a b.epub\" -p 3 -p 7 -vq'"

section "Plug-ins of the QVLibrary_ interface, each entry point looked up at its first call"
show "printf 'one two three\nfour\n' > /tmp/notes.txt"
show "qvtool plugin /zelgrot/lib/libqvwordcount.so /tmp/notes.txt /zelgrot/share/iso-639-2.txt"
show "qvtool plugin --notify --run QVLibrary_RunLines /zelgrot/lib/libqvwordcount.so /tmp/notes.txt"
show "qvtool plugin /zelgrot/lib/libqvsum.so 40 -3 5"
show_fails "qvtool plugin --notify /zelgrot/lib/libqvsum.so 1"

section "Hash helpers: SHA-1, a head-and-tail fingerprint of big books, scrambled text"
show "head -c 3000000 /dev/urandom > /tmp/book.pdf && qvtool hash sha1 /tmp/book.pdf && sha1sum /tmp/book.pdf"
show "qvtool hash md5part /tmp/book.pdf && { head -c 65536 /tmp/book.pdf; tail -c 65536 /tmp/book.pdf; } | md5sum"
show "qvtool hash scramble 'user@example.org: s3cret'"
show "qvtool hash scramble 'user@example.org: s3cret' | qvtool hash unscramble"
