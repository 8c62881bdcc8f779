# The main job, end to end: a small collection of music and audiobooks as a person would have it,
# scanned as the player application scans it, then shown as the player and the audiobook reader
# show it. The collection stays in /mnt/ext1/Music and /mnt/ext1/Audiobooks for the stages after.

section "A collection: tagged albums, an M4B book with chapters, a zipped MP3 book, a playlist"
# The audiobook tour above leaves books of its own; the collection starts its library afresh.
rm -f /mnt/ext1/system/config/audiobooks/audiobooks.db /mnt/ext1/system/config/audiobooks/audiobooks.db-*
demo_tone() {  # demo_tone FILE SECONDS TITLE ARTIST ALBUM TRACK GENRE
    sox -n -r 22050 -c 1 /tmp/tone.wav synth "$2" sine 330 2>/dev/null
    lame --quiet -b 32 --tt "$3" --ta "$4" --tl "$5" --tn "$6" --tg "$7" /tmp/tone.wav "$1"
}
show 'mkdir -p "/mnt/ext1/Music/Quartet/Rain" "/mnt/ext1/Music/Lantern/Harbour Lights" /mnt/ext1/Audiobooks/Winter
for n in 1 2 3; do demo_tone "/mnt/ext1/Music/Quartet/Rain/0$n.mp3" 4 "Rain part $n" Quartet Rain $n Jazz; done
demo_tone "/mnt/ext1/Music/Lantern/Harbour Lights/a.mp3" 3 "Low Tide" Lantern "Harbour Lights" 2 Folk
demo_tone "/mnt/ext1/Music/Lantern/Harbour Lights/b.mp3" 3 "High Tide" Lantern "Harbour Lights" 1 Folk
demo_tone /mnt/ext1/Music/untagged.mp3 2 "" "" "" "" ""
echo "not audio at all" > /mnt/ext1/Music/broken.ogg'
show 'for n in 1 2; do demo_tone "/mnt/ext1/Audiobooks/Winter/$n.mp3" 5 "Chapter $n" "B. Echo" "Winter Paper" $n Novel; done
printf ";FFMETADATA1\ntitle=Salt and Silver\nartist=A. Orchard\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=4000\ntitle=Part one\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=4000\nEND=10000\ntitle=Part two\n" > /tmp/salt.txt
ffmpeg -v error -y -f lavfi -i sine=frequency=440:duration=10 -i /tmp/salt.txt -map 0 -map_metadata 1 -map_chapters 1 -c:a aac -b:a 48k -f ipod /mnt/ext1/Audiobooks/salt.m4b
mkdir -p /tmp/harbour && for n in 1 2 3; do demo_tone /tmp/harbour/0$n.mp3 3 "Part $n" "M. Lantern" "The Quiet Harbour" $n Novel; done
(cd /tmp && zip -qr "/mnt/ext1/Audiobooks/The Quiet Harbour.mp3.zip" harbour)'
show 'qvtool tags /mnt/ext1/Music/Quartet/Rain/02.mp3 /mnt/ext1/Music/untagged.mp3 "/mnt/ext1/Audiobooks/The Quiet Harbour.mp3.zip:#zip(harbour/02.mp3)"'
show 'qvtool playlist save /mnt/ext1/Music/evening.m3u /mnt/ext1/Music/Lantern "/mnt/ext1/Music/Quartet/Rain/03.mp3" && cat /mnt/ext1/Music/evening.m3u'
show 'qvtool playlist load /mnt/ext1/Music/evening.m3u'

section "The scan: every file into the media library, the books into the audiobook library"
show_fails 'qvtool scan --books /mnt/ext1/Audiobooks /mnt/ext1/Music /mnt/ext1/Audiobooks'
show_fails 'qvtool scan --books /mnt/ext1/Audiobooks /mnt/ext1/Music /mnt/ext1/Audiobooks 2>/dev/null | head -1   # a second scan finds them all there (the broken file still fails)'

section "The library by artist, and the albums of one"
show 'qvtool tracks groups artist'
show "qvtool tracks list --sort track --artist Lantern --exact"

section "The audiobooks with their chapters, a saved place and a bookmark"
show 'qvtool audiobooks list'
show 'for id in 1 2 3; do qvtool audiobooks show $id; done'
show 'qvtool audiobooks state 1 0:07 70'
show "qvtool audiobooks bookmark add 1 0:05 --title 'Part two begins'"
show 'qvtool audiobooks show 1'
