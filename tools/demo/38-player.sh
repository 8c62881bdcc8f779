# Playback: an audiobook of the library played through the audio engine plug-in
# (/zelgrot/lib/libaudio-engine.so), as the audiobook application plays it: what the engine reads
# of the file, its reports while it plays, and the excerpt as a WAV file to listen to.

# playable_m4b_book: the id of the first m4b book whose file is on the device, or nothing.
playable_m4b_book() {
    local id
    for id in $(qvtool audiobooks list | awk '$2 == "m4b" { print $1 }'); do
        if qvtool audiobooks show "$id" | awk '/^Files/ { files = 1; next } /^$/ { files = 0 }
                files && $NF == "yes" { found = 1 } END { exit !found }'; then
            echo "$id"
            return
        fi
    done
}

section "An audiobook for the player"
book=$(playable_m4b_book)
if [ -z "$book" ]; then
    echo "(no book of the library has its file on the device: making one)"
    show "printf ';FFMETADATA1\ntitle=Tide Tables\nartist=R. Quay\ngenre=Essay\n%s' \\
    '[CHAPTER]
TIMEBASE=1/1000
START=0
END=4000
title=Low water
[CHAPTER]
TIMEBASE=1/1000
START=4000
END=12000
title=High water' > /tmp/tide.txt"
    show 'mkdir -p /mnt/ext1/Audiobooks && ffmpeg -v error -f lavfi -i "sine=frequency=392:duration=12" \
    -i /tmp/tide.txt -map 0 -map_metadata 1 -map_chapters 1 -c:a aac -b:a 48k -f ipod /mnt/ext1/Audiobooks/tide.m4b'
    show "qvtool audiobooks add m4b 'Tide Tables' --author 'R. Quay' --genre Essay \\
    --chapter '/mnt/ext1/Audiobooks/tide.m4b|0|4|Low water' \\
    --chapter '/mnt/ext1/Audiobooks/tide.m4b|4|12|High water'"
    book=$(playable_m4b_book)
fi
show "qvtool audiobooks state $book 0:02 10     # left two seconds in"

section "Playing it through the audio engine"
show "qvtool play $book --to /tmp/excerpt.wav --seconds 5"
show 'soxi /tmp/excerpt.wav | grep -E "Channels|Sample Rate|Duration"'
show "qvtool play $book --from 0:07 --seconds 2     # at the speed of a loudspeaker, to the null sink"
show_fails "qvtool play 999"
