# Configuration files shared between processes: values, secrets, listings, and a live watch.

section "Configuration files, as every application of the device reads them"
cfg=/mnt/ext1/system/config/reader.cfg
show "qvtool config set $cfg font.family 'Literata'"
show "qvtool config set $cfg font.size 14"
show "qvtool config set --secret $cfg cloud.token 'a1b2-c3d4'"
show "cat $cfg"
show "qvtool config get $cfg font.size"
show "qvtool config get --secret $cfg cloud.token"
show "qvtool config list $cfg"
show "qvtool config list --secrets $cfg font."
show_fails "qvtool config get $cfg font.weight"
show "qvtool config get $cfg font.weight normal"
show_fails "qvtool config get /mnt/ext1/system/config/missing.cfg any"

section "A watch sees what other processes save"
show "qvtool config watch $cfg > /tmp/watch.out 2>/dev/null & sleep 0.5
    qvtool config set $cfg font.size 16; sleep 0.2
    qvtool config set $cfg night.mode on; sleep 0.2
    qvtool config delete $cfg font.family; sleep 0.2
    kill -INT \$!; wait \$! || true
    cat /tmp/watch.out"
