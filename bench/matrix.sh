#!/bin/sh
# matrix.sh BIN [NODES [ENTRIES [SMALL]]]: does every entry of a large policy have the outcome that the nodes gave it?
#
# For each number of nodes and of entries: a Redis of its own, simulated service nodes in processes of their own, and one
# `plx apply`; then one line with what became of the entries, the seconds and the CPU seconds of all processes. With
# SMALL, the first node has room for so many entries alone, and refuses the others. BIN is the folder of plx.
# Defaults: 1 3 16 nodes, 1000 10000 100000 entries.
set -eu
bin=$1 nodes=${2:-1 3 16} entries=${3:-1000 10000 100000} small=${4:-}
dir=$(mktemp -d)
cleanup() {
    [ -z "${pids:-}" ] || kill $pids 2>/dev/null || true
    wait
    rm -rf "$dir"
}
trap cleanup EXIT

policy() {
    awk -v n="$1" 'BEGIN {
        print "application: matrix\nacls:\n  - id: 1\n    class: 1\n    entries:"
        for (i = 1; i <= n; i++)
            printf "      - {sn: %d, match: {etype: ipv4, ipv4_src: %d.%d.%d.0/24}, action: {fwd: deny}}\n",
                i, 10 + int(i / 65536), int(i / 256) % 256, i % 256
        print "applies:\n  - {acl: 1, port: 1, direction: in, priority: 5}"
    }'
}

until_ready() {
    tries=0
    until grep -q "$1" "$2" 2>/dev/null; do
        tries=$((tries + 1))
        [ $tries -lt 200 ] || { echo "matrix: no '$1' in $2" >&2; exit 1; }
        sleep 0.1
    done
}

run() {
    pids=
    redis-server --port 0 --unixsocket "$dir/s" --dir "$dir" --save '' --logfile "$dir/redis" >/dev/null 2>&1 &
    pids="$!"
    until_ready "eady to accept" "$dir/redis"
    export PLX_STORE="unix:$dir/s${PLX_MATRIX_OPTIONS:-}"
    node=0
    while [ $node -lt "$1" ]; do
        size=10000000
        [ $node -gt 0 ] || size=${small:-$size}
        "$bin/plx" node --slot $node --table-size "$size" 2>"$dir/node$node" &
        pids="$pids $!"
        until_ready ready "$dir/node$node"
        node=$((node + 1))
    done
    code=0
    begun=$(date +%s)
    "$bin/plx" apply --nodes "$1" "$dir/policy" >"$dir/out" 2>"$dir/err" || code=$?
    took=$(($(date +%s) - begun))
    echo "$1 nodes, $2 entries: $(tail -1 "$dir/out"); exit $code, $took s; $(tail -1 "$dir/err")"
    kill $pids 2>/dev/null
    wait
    rm -f "$dir"/redis "$dir"/node* "$dir"/s
}

for count in $entries; do
    policy "$count" >"$dir/policy"
    for many in $nodes; do
        run "$many" "$count"
    done
done
