#!/usr/bin/env bash
# Where the time of a request goes; docs/performance.md tells what the output means. Wants what
# ./dev bench has built, and the Debian packages valgrind, strace and python3.
#
#     bench/where.sh [seconds of load under callgrind]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

readonly seconds=${1:-10}
readonly program=../build/release/nrpc_bench
export PYTHONPATH=../examples # the wire
work=$(mktemp -d)
server_pid=
trap 'end_server || true; rm -rf "$work"' EXIT

title() {
    printf '\n== %s\n' "$*"
}

# start_server [wrapper...]: listens on $port until end_server.
start_server() {
    port=$(python3 -B where.py port)
    mkfifo "$work/input"
    "$@" "$program" server "$port" <"$work/input" >"$work/server.log" 2>"$work/server.err" &
    server_pid=$!
    exec 9>"$work/input"
    until grep -qs ready "$work/server.log"; do
        kill -0 "$server_pid" || { cat "$work/server.err" >&2; return 1; }
        sleep 0.1
    done
}

end_server() {
    if [ -n "$server_pid" ]; then
        exec 9>&-
        wait "$server_pid"
        server_pid=
        rm -f "$work/input"
    fi
}

# The number of replies that a client's line of JSON tells; a wrong or lost one ends the script.
replies_of() {
    grep -q '"wrong": 0, "lost": 0' "$1" || { cat "$1" >&2; return 1; }
    sed -n 's/.*"count": \([0-9]*\).*/\1/p' "$1"
}

title "instructions, allocations, locks and calls of the system, one connection, 1000 under way"
start_server valgrind --tool=callgrind --fair-sched=yes \
    --callgrind-out-file="$work/server.callgrind"
"$program" pipeline "$port" 1 64 1000 "$seconds" >"$work/client.json"
end_server
python3 -B where.py instructions server "$work/server.callgrind" "$(replies_of "$work/client.json")"
start_server
valgrind --tool=callgrind --fair-sched=yes --callgrind-out-file="$work/client.callgrind" \
    "$program" pipeline "$port" 1 64 1000 "$seconds" >"$work/client.json" 2>/dev/null
end_server
python3 -B where.py instructions client "$work/client.callgrind" "$(replies_of "$work/client.json")"

title "system calls of the server, native, one connection, 1000 under way"
start_server strace -f -c -o "$work/strace"
"$program" pipeline "$port" 1 64 1000 3 >"$work/client.json"
end_server
printf '%s replies\n' "$(replies_of "$work/client.json")"
sed '1,/32 bit mode/d' "$work/strace" | head -n 9 # before that, what started in 64 bits

title "a server with 10 idle clients"
start_server
mkfifo "$work/clients"
"$program" idle "$port" <"$work/clients" >"$work/idle.log" &
clients_pid=$!
exec 8>"$work/clients"
echo 10 >&8
sleep 2
python3 -B where.py wakeups "$server_pid" 5
exec 8>&-
wait "$clients_pid"

title "the server's part of W1"
python3 -B where.py exchange "$port" 300
"$program" latency "$port" 64 50 6 | tee "$work/client.json"
replies_of "$work/client.json" >/dev/null
end_server

title "processor time of the server for each request"
while read -r connections size limit; do
    start_server
    python3 -B where.py cost "$server_pid" "$program" "$port" "$connections" "$size" "$limit" 2
    end_server
done <<'END'
1 64 1000
1 1024 1000
1 16384 64
1 262144 4
1 1048576 4
8 64 125
32 64 32
64 64 16
END
