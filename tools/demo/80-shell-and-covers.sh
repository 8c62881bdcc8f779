# The shell, file types, the cover cache and the keyboard: applications ask the device shell for
# messages, dialogs and books through the mailbox; shelves get cached covers, the scanner making
# those of PDF, EPUB and DjVu books in the background.

section "File types the device knows (the user's extensions.cfg over the system's)"
show 'qvtool filetype Novel.EPUB'
show 'qvtool filetype photo.jpg'
show_fails 'qvtool filetype notes.xyz'

section "The shell: a message, a dialog answered by script, a book to open"
qvtool shell --answers 2 > /tmp/demo-shell.out 2>&1 &
shell_pid=$!
sleep 0.5
show "qvtool message --timeout 2000 'Sync' 'Your library is up to date'"
show "qvtool dialog 'Delete book?' 'The file goes for good.' Delete Keep"
echo '%PDF' > /mnt/ext1/guide.pdf
show 'qvtool open /mnt/ext1/guide.pdf'
kill -INT $shell_pid; wait $shell_pid 2>/dev/null || true
show 'cat /tmp/demo-shell.out'
show 'cat /var/run/moorglass-host/shell.log'

section "A shelf of covers: books made here, covers by the loader and the scanner"
show 'qvtool host books --count 16 /mnt/ext1/Shelf'
show 'qvtool cover /mnt/ext1/Shelf/book1.pdf           # handed to the scanner: ask again later'
show 'qvtool cover --wait /mnt/ext1/Shelf/book1.pdf'
show 'qvtool covers --size 110x150 --sheet /tmp/shelf.png /mnt/ext1/Shelf'
show 'identify /tmp/shelf.png'
# The sandbox keeps nothing: the contact sheet goes to the build folder for a person to look at.
show "cp /tmp/shelf.png '$QV_DEMO_ROOT/build/debug/demo-shelf.png'"

section "The keyboard: a line typed while the event loop runs"
show "echo 'Moby Dick' | qvtool keyboard --label Search"
