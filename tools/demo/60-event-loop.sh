# The event loop of an application: events from another process, timers, and a batch of tasks in
# a working process that reports back to the loop.

section "An application's event loop receives events from another process"
demo_loop_out=/tmp/demo_loop.out
qvtool loop --count 2 > "$demo_loop_out" &
demo_loop=$!
until grep -q 'waiting for events' "$demo_loop_out" 2>/dev/null; do sleep 0.1; done
show "qvtool send $demo_loop 300 1 2"
show "qvtool send $demo_loop 212 7 42"
wait "$demo_loop"
show "cat $demo_loop_out"
show_fails "qvtool send $demo_loop 300 1 2"

section "Timers: the loop's hard and weak timers and the library's timer thread"
show "qvtool timer 20 --repeat 5"
show "qvtool timer 20 --repeat 3 --weak"
show "qvtool timer 20 --repeat 3 --thread"

section "A batch of tasks in a working process; each finished task is event 212 at this loop"
show "qvtool batch 4 --ms 100"
show_fails "qvtool batch 4 --ms 50 --fail 3"
