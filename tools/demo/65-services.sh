# Background services' download state and the status indicator, the Bluetooth transfer list,
# many requests at once, and the clock's distance to the network.

section "Services publish whether they download; the indicator shows the combined state"
show "qvtool status set @QVCloud --pid \$\$ --downloading --totals 2,12,0,0 --file 1,Book\ one --file 2,Book\ two --current '2,Book two,,40'"
show "qvtool status set @S2QV --pid \$\$ --error 5 --message 'sign in again'"
show "qvtool status"
show "qvtool status set @QVCloud --pid \$\$ --stopped"
show "qvtool status set @LegimiSync --pid 999999 --downloading    # a process that isn't there"
show "qvtool status | tail -1"

section "Files waiting for a Bluetooth transfer"
show "qvtool bt add /mnt/ext1/Books/novel.epub 'Phone of Anna' --size 834211"
show "qvtool bt add /mnt/ext1/Books/atlas.pdf 'Phone of Anna' --size 20480000"
show "qvtool bt progress /mnt/ext1/Books/novel.epub 'Phone of Anna' 834211 400000"
show "qvtool bt status 1 1"
show "qvtool bt list"
show "qvtool bt list --pending"

section "Many requests at once, without a thread (a loopback test server answers)"
start_test_server --threads 200
demo_multi_server=$server_pid multi_base=$server_http
show "qvtool http --parallel $multi_base/bytes/2000 $multi_base/redirect/2 '$multi_base/dl/file/1/40000?rate=80000' $multi_base/status/404"
show "qvtool http --parallel $multi_base/bytes/100 --count 150 | tail -2"
kill "$demo_multi_server"
wait "$demo_multi_server" 2>/dev/null || true

section "The clock against the network (in a network of its own, where a test server plays the pool)"
show "unshare --net --mount bash -c '
    ip link set lo up
    printf \"127.0.0.1 localhost pool.ntp.org www.debian.org www.kernel.org www.wikipedia.org\n\" > /tmp/demo_hosts
    mount --bind /tmp/demo_hosts /etc/hosts
    test_time_server --offset 93.4 > /tmp/demo_time.out &
    until grep -qx ready /tmp/demo_time.out; do sleep 0.1; done
    qvtool time
    qvtool time --http www.kernel.org
    sntp pool.ntp.org
    kill \$!'"
