# Books moved between the internal storage and the card; Wi-Fi networks in their JSON file.

section "Folders across the two storages"
show "mkdir -p '/mnt/ext1/Books/Tolstoy' && for i in 1 2 3; do head -c 2000000 /dev/urandom > \"/mnt/ext1/Books/Tolstoy/War and Peace \$i.epub\"; done; echo notes > \"/mnt/ext1/Books/Tolstoy/Anna's notes.txt\""
show "qvtool fs ls /mnt/ext1/Books/Tolstoy epub"
show "qvtool fs free /mnt/ext2/Books"
show "qvtool fs mv /mnt/ext1/Books /mnt/ext2/"
show "ls -l /mnt/ext2/Books/Tolstoy"
show_fails "qvtool fs mv /mnt/ext2/Books /mnt/ext2/Books/Tolstoy"
show "qvtool fs cp '/mnt/ext2/Books/Tolstoy/Anna'\\''s notes.txt' /mnt/ext1/Notes/"
show "qvtool fs rm /mnt/ext2/Books && ls /mnt/ext2"

section "Wi-Fi networks in /mnt/ext1/system/config/network.json: keys enciphered by the device"
json=/mnt/ext1/system/config/network.json
show "qvtool wifi save $json 'Home 5G' --key 'correct horse battery'"
show "qvtool wifi save $json 'Café' --password s3cret --static 10.0.0.2/24 10.0.0.1 10.0.0.53"
show "cat $json; echo"
show "qvtool wifi saved"
show "qvtool wifi saved --show-keys"
