# Pictures as applications load them, a sign-in QR code, and a screen frame packed small.

section "Pictures by extension: PNG, JPEG, BMP and TIFF through the platform's decoders"
show "/usr/bin/convert -size 300x200 gradient:white-black -fill black -draw 'rectangle 20,20 120,90' /tmp/cover.jpg"
show "qvtool image info /tmp/cover.jpg"
show "qvtool image convert /tmp/cover.jpg /tmp/cover.bmp && qvtool image info /tmp/cover.bmp"
show "head -c \$(( \$(stat -c %s /tmp/cover.jpg) / 2 )) /tmp/cover.jpg > /tmp/broken.jpg"
show_fails "qvtool image info /tmp/broken.jpg"

section "A QR code for signing in, read back by zbarimg"
show "qvtool qr 'https://store.example.org/device/sign-in?code=7KQ2-99XZ' -o /tmp/sign-in.png --size 290"
show "zbarimg --quiet --raw /tmp/sign-in.png 2>/dev/null"
show "ls -l /tmp/sign-in.png"

section "A 1072 x 1448 screen frame: 16 greys two to a byte, white rows a bit each, then QuickLZ"
show "/usr/bin/convert -size 1072x1448 xc:white -fill black -draw 'rectangle 60,80 1010,120' -fill gray60 -draw 'rectangle 60,200 700,230' -fill black -draw 'rectangle 60,300 900,330' /tmp/screen.png"
show "qvtool frame pack /tmp/screen.png /tmp/screen.frame"
show "qvtool frame pack /tmp/screen.png /tmp/screen.qlz.frame --quicklz"
show "qvtool frame unpack /tmp/screen.qlz.frame /tmp/screen-back.png"
show "/usr/bin/compare -metric AE /tmp/screen.png /tmp/screen-back.png null: 2>&1 || true; echo ' pixels differ (greys keep their high 4 bits)'"
show "ls -l /tmp/screen.png /tmp/screen.frame /tmp/screen.qlz.frame /tmp/screen-back.png"

section "Our QuickLZ level-1 codec on a file"
show "qvtool qlz c /tmp/screen.frame /tmp/screen.frame.qlz && qvtool qlz d /tmp/screen.frame.qlz /tmp/screen.again"
show "cmp /tmp/screen.frame /tmp/screen.again && echo identical"
