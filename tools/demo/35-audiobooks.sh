# Audiobooks: a book that came as a zip archive of MP3 files, read member by member as the player
# reads it, then kept in the audiobook library with its chapters, reading state and bookmarks.

section "A book in a zip archive, read as the player reads it"
show 'mkdir -p /tmp/book/Harbour && for n in 01 02 03; do head -c $((n * 300000)) /dev/urandom > /tmp/book/Harbour/$n.mp3; done'
show '(cd /tmp/book && zip -qr /mnt/ext1/Audiobooks.zip Harbour) && ls -l /mnt/ext1/Audiobooks.zip'
show 'qvtool zip ls /mnt/ext1/Audiobooks.zip'
show 'qvtool zip cat /mnt/ext1/Audiobooks.zip harbour/02.MP3 | cmp - /tmp/book/Harbour/02.mp3 && echo "member 02 read back whole"'
show_fails 'qvtool zip cat /mnt/ext1/Audiobooks.zip Harbour/04.mp3'

section "The audiobook library"
show "qvtool audiobooks add zip 'The Quiet Harbour' --author 'M. Lantern' --genre Novel \\
    --chapter '/mnt/ext1/Audiobooks.zip:#zip(Harbour/01.mp3)|0|12:30|Arrival' \\
    --chapter '/mnt/ext1/Audiobooks.zip:#zip(Harbour/02.mp3)|0|25:10|The Storm' \\
    --chapter '/mnt/ext1/Audiobooks.zip:#zip(Harbour/03.mp3)|0|18:05|Departure'"
show "qvtool audiobooks add m4b 'Salt and Silver' --author 'A. Orchard' \\
    --chapter '/mnt/ext1/Books/salt.m4b|0|40:00|Part one' --chapter '/mnt/ext1/Books/salt.m4b|40:00|1:15:00|Part two'"
show "qvtool audiobooks add mp3 'Winter Paper' --author 'B. Echo' \\
    --chapter '/mnt/ext1/Books/Winter/1.mp3|0|5:00' --chapter '/mnt/ext1/Books/Winter/2.mp3|0|7:00'"
show 'qvtool audiobooks state 1 30:00 55     # 30 minutes into the whole book'
show 'qvtool audiobooks state 2 1:00:00 80'
show "qvtool audiobooks bookmark add 1 13:05 --title 'Storm begins'"
show "qvtool audiobooks bookmark edit 1 --note 'read again'"
show 'qvtool audiobooks list --order last'
show 'qvtool audiobooks show 1'
show 'qvtool audiobooks rm 3 && qvtool audiobooks list --order duration'
