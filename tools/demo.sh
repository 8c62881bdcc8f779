#!/usr/bin/env bash
# The demo tour, run by `./run demo` inside the device sandbox with qvtool on PATH. Each stage of
# the tour is a script in tools/demo/, run in the order of its number; they share this shell's
# helpers through `source`.
set -euo pipefail

demo_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")/demo" && pwd)

bold='' plain=''
if [ -t 1 ]; then
    bold=$(tput bold 2>/dev/null || true)
    plain=$(tput sgr0 2>/dev/null || true)
fi

# section TITLE: a heading for one part of the tour.
section() { printf '\n%s== %s ==%s\n' "$bold" "$*" "$plain"; }

# show 'COMMAND LINE': prints the line as a person would type it, then runs it (pipes and all).
show() {
    printf '%s$ %s%s\n' "$bold" "$1" "$plain"
    eval "$1"
}

# show_fails 'COMMAND LINE': like show, for a line that is meant to fail; prints its exit code.
show_fails() {
    printf '%s$ %s%s\n' "$bold" "$1" "$plain"
    local rc=0
    eval "$1" || rc=$?
    echo "(exit code $rc)"
}

# start_test_server [ARGS...]: starts the tests' HTTP server in the background and waits until it
# listens; sets server_pid, server_http and server_https (its base URLs on loopback).
start_test_server() {
    local log
    log=$(mktemp /tmp/demo_server.XXXXXX)
    test_http_server "$@" > "$log" &
    server_pid=$!
    until grep -qx ready "$log" 2>/dev/null; do sleep 0.1; done
    server_http="http://127.0.0.1:$(awk '$1 == "http" {print $2}' "$log")"
    server_https="https://127.0.0.1:$(awk '$1 == "https" {print $2}' "$log")"
}

for stage in "$demo_dir"/[0-9][0-9]-*.sh; do
    # shellcheck source=/dev/null
    source "$stage"
done
printf '\n%sThe tour is over; nothing it wrote outlives the sandbox.%s\n' "$bold" "$plain"
