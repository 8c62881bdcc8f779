# The media library: a generated collection of a few thousand tracks on the internal storage and
# a memory card, browsed as the player does, through qvtool.

# generate_library FILE: writes one track per line (path, title, artist, album, genre, number,
# duration, size, tab-separated) and makes the folders, so that the folder browser has something
# to walk. 14 artists, 18 albums each, 12 tracks an album; the last three artists live on the card.
generate_library() {
    awk -v folders="$1.folders" 'BEGIN {
        split("Abendrot|Äther Quartett|Ølstykke Brass|Nordlicht|Бархатный сезон|" \
              "Ёлочные огни|Cedar & Pine|Mistral|Zugvögel|Basalt|Lumen|Quiet Harbour|" \
              "Sundial|Yarrow", artists, "|")
        split("Pop|Jazz|Folk|Ambient|Rock|Classical", genres, "|")
        split("Morning|River|Glass|Moon|Winter|Paper|Silver|Harbour|Orchard|Lantern|" \
              "Echo|Salt", words, "|")
        seed = 7
        for (a = 1; a <= 14; a++) {
            root = (a > 11) ? "/mnt/ext2/Music/" : "/mnt/ext1/Music/"
            for (b = 1; b <= 18; b++) {
                album = words[(a * 5 + b) % 12 + 1] " " words[(a + b * 7) % 12 + 1] " " \
                        ((a - 1) * 18 + b)
                genre = genres[(a + b) % 6 + 1]
                folder = root artists[a] "/" album
                print folder > folders
                for (t = 1; t <= 12; t++) {
                    seed = (seed * 1103515245 + 12345) % 2147483648
                    title = words[seed % 12 + 1] " " words[int(seed / 12) % 12 + 1]
                    artist = (a == 10 && t % 4 == 0) ? "" : artists[a]
                    duration = 120 + seed % 300
                    printf "%s/%02d %s.mp3\t%s\t%s\t%s\t%s\t%d\t%d\t%d\n", folder, t, title,
                        title, artist, album, genre, t, duration, duration * 40000
                }
            }
        }
    }' > "$1"
    xargs -d '\n' mkdir -p < "$1.folders"
    echo "$(wc -l < "$1") tracks in $1"
}

section "The media library: a few thousand tracks, some on a memory card"
show 'echo language=de >> /mnt/ext1/system/config/global.cfg   # the interface language'
show 'qvtool card insert 5D0C4A2D'
show 'generate_library /tmp/library.tsv'
show 'head -n 3 /tmp/library.tsv'
show 'qvtool tracks import /tmp/library.tsv'
show 'qvtool db check'

section "Browsing as the player does"
show 'qvtool tracks groups artist'
show "qvtool tracks list --album 'Silver Orchard 1' --exact --sort track"
show 'qvtool tracks dirs /mnt'
show 'qvtool tracks dirs /mnt/ext1/Music'
show "qvtool tracks search 'lantern winter'"
show "qvtool tracks search 'harbour 1' | tail -n 3"

section "The card leaves, and its tracks with it"
show 'qvtool card remove'
show 'qvtool tracks dirs /mnt'
show 'qvtool tracks groups genre'
show_fails "qvtool tracks search \"rock'n'roll\""
show_fails 'qvtool tracks add /mnt/ext2/Music/new.mp3 --title New'
