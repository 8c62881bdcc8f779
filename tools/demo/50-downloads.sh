# Downloads through the library: one resumable file with its progress line, an interruption and
# the resume, a full disk, the blocking download and the queue, against a loopback test server.

start_test_server
demo_dl_server=$server_pid dl_base=$server_http

section "A download: reserved up front, moved into place at the end"
show "qvtool download $dl_base/dl/file/7/30000000 /mnt/ext1/Downloads --name atlas.epub"
show "qvtool download $dl_base/dl/file/7/30000000 /mnt/ext1/Downloads --name atlas.epub"
show "ls -l /mnt/ext1/Downloads"

section "Interrupted (Ctrl-C after a second of a slow server), then the same command resumes"
show "qvtool download '$dl_base/dl/file/8/3000000?rate=1000000' /mnt/ext1/Downloads --name novel.epub & sleep 1; kill -INT \$!; wait \$! || echo \"(exit code \$?)\""
show "ls -l /mnt/ext1/Downloads/novel.epub.downloading*"
show "od -A d -t d4 /mnt/ext1/Downloads/novel.epub.downloading.progress   # resume point, total"
show "qvtool download '$dl_base/dl/file/8/3000000?rate=1000000' /mnt/ext1/Downloads --name novel.epub"

section "A connection that drops every 200 kB: resumed where it broke, ten times in a row at most"
show "qvtool download '$dl_base/dl/file/9/1000000?drop=200000' /mnt/ext1/Downloads --name flaky.pdf"

section "Failures: a missing file, a server that is not there, a disk too small"
show_fails "qvtool download $dl_base/status/404 /mnt/ext1/Downloads"
show_fails "qvtool download http://127.0.0.1:9/book.epub /mnt/ext1/Downloads"
mkdir -p /mnt/ext1/tiny && mount -t tmpfs -o size=1m tmpfs /mnt/ext1/tiny
show_fails "qvtool download $dl_base/dl/file/10/5000000 /mnt/ext1/tiny --name big.epub"
show "ls -A /mnt/ext1/tiny"
umount /mnt/ext1/tiny

section "Blocking download and the background queue"
show "qvtool download --sync $dl_base/dl/file/11/2000000 /mnt/ext1/Sync --name manual.pdf"
show_fails "qvtool download --queue $dl_base/dl/file/12/1000 $dl_base/status/410 $dl_base/dl/file/12/1000 --dir /mnt/ext1/Queue"

kill "$demo_dl_server"
wait "$demo_dl_server" 2>/dev/null || true
