# Messages between processes over datagram sockets, shared memory segments that several processes
# attach to, and a sign-in through the device's browser against a loopback page.

section "A datagram server answers a client in another process"
demo_msg_out=/tmp/demo_msg.out
qvtool msg serve box --abstract --echo --count 2 > "$demo_msg_out" &
demo_msg=$!
until grep -q 'serving box' "$demo_msg_out" 2>/dev/null; do sleep 0.1; done
show "qvtool msg send box 'where is my book?' --abstract --wait 1000"
show "qvtool msg send box 'and my bookmark?' --abstract --wait 1000"
wait "$demo_msg"
show "cat $demo_msg_out"
show_fails "qvtool msg send box 'anyone?' --abstract"

section "A shared memory segment that outlives each command; growing it tells its readers to remap"
show "qvtool shm create /reading-state 64"
show "qvtool shm write /reading-state 'page 42 of 310'"
show "qvtool shm read /reading-state"
show "qvtool shm grow /reading-state 4096"
show "qvtool shm write /reading-state 'a longer note' --offset 3000"
show "qvtool shm read /reading-state --offset 3000"
show "qvtool shm remove /reading-state"
show_fails "qvtool shm read /reading-state"

section "Sign-in through the browser: the page reports texts, then completion"
start_test_server
demo_signin_server=$server_pid signin_base=$server_http
show "qvtool signin '$signin_base/signin?do=text%20signed%20in%20as%20reader%7Cnotice%7Ccomplete' --id demo"
show_fails "qvtool signin '$signin_base/signin?do=die' --id demo"
kill "$demo_signin_server"
wait "$demo_signin_server" 2>/dev/null || true
# The first sign-in left its browser open, as completion does; close it with the tour.
killall browser.app 2>/dev/null || true
