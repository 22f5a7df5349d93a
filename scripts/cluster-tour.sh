# The tour of ./run --cluster: three nodes of this machine on one etcd. Sourced.

cluster=build/cluster
nodes=(1 2 3)
declare -A node_pid=() client_pid=() marked=()
etcd_pid=
table=()

stop_everything() {
    local pid
    trap - EXIT INT TERM
    for pid in "${client_pid[@]}"; do kill "$pid" 2>/dev/null || true; done
    for pid in "${client_pid[@]}"; do wait "$pid" 2>/dev/null || true; done
    for pid in "${node_pid[@]}" $etcd_pid; do kill "$pid" 2>/dev/null || true; done
    wait 2>/dev/null || true
}

fail() {
    local n
    echo "run: $*" >&2
    for n in "${nodes[@]}"; do
        [ -f "$cluster/node$n/node.log" ] || continue
        echo "run: the end of $cluster/node$n/node.log:" >&2
        tail -n 3 "$cluster/node$n/node.log" >&2
    done
    exit 1
}

# nasctl at a node: at N WORD...; shown as a person would type it there: on N WORD...
at() { "$build/ctl/nasctl" --root "$cluster/node$1" "${@:2}"; }
on() {
    say_command "node$1\$ nasctl" "${@:2}"
    at "$@" || fail "that should have succeeded at node $1: nasctl ${*:2}"
}
lives() { [ -n "${node_pid[$1]:-}" ]; }
# Runs a test for each node that lives: every TEST ARGUMENT..., which gets the node's number first.
every() {
    local n
    for n in "${nodes[@]}"; do
        ! lives "$n" || "$1" "$n" "${@:2}" || return 1
    done
}
row() { table+=("$1|$2"); }

# Below the ports that the kernel gives to those who connect.
free_port() {
    local port
    for port in $(shuf -i 10000-32000 -n 100); do
        [ -n "$(ss -Htan "sport = :$port")" ] || { echo "$port"; return; }
    done
    fail "no free port"
}

# ---- etcd and the nodes

etcd_answers() {
    (exec 3<>"/dev/tcp/127.0.0.1/$1" && printf 'GET /health HTTP/1.0\r\n\r\n' >&3 && grep -q '"true"' <&3) 2>/dev/null
}
# Everything is started in a session of its own, so that Ctrl-C reaches this script alone, which stops the nodes before
# etcd. Starts etcd once; false when a port was taken meanwhile.
try_etcd() {
    port=$(free_port)
    peer=$(free_port)
    store=http://127.0.0.1:$port
    setsid etcd --data-dir "$cluster/etcd" --listen-client-urls "$store" --advertise-client-urls "$store" \
        --listen-peer-urls "http://127.0.0.1:$peer" --initial-advertise-peer-urls "http://127.0.0.1:$peer" \
        --initial-cluster "default=http://127.0.0.1:$peer" >"$cluster/etcd.log" 2>&1 &
    etcd_pid=$!
    eventually answers_or_ended "$port" || true
    etcd_answers "$port" || give_up_etcd
}
give_up_etcd() {
    kill "$etcd_pid" 2>/dev/null || true
    wait "$etcd_pid" 2>/dev/null || true
    rm -rf "$cluster/etcd"
    return 1
}
answers_or_ended() { etcd_answers "$1" || ! kill -0 "$etcd_pid" 2>/dev/null; }
start_etcd() {
    local port peer
    title "etcd starts"
    try_etcd || try_etcd || try_etcd || fail "etcd does not answer; $cluster/etcd.log tells more"
    echo "its clients find it at $store"
}

start_node() {
    local root=$cluster/node$1 file
    mkdir -p "$root"
    cp -r examples/node1/opt "$root"
    for file in nasctrld.conf storage.json; do
        sed "s/@NODE@/$1/; s/@PORT@/$(free_port)/; s|@ETCD@|$store|" "examples/cluster/$file" >"$root/$file"
    done
    setsid "$build/host/nasctrld" --root "$root" --config "$root/nasctrld.conf" --storage-data "$root/storage.json" \
        --log-file "$root/node.log" --no-console >"$root/output" 2>&1 &
    node_pid[$1]=$!
}
is_ready() { grep -q 'is ready' "$cluster/node$1/output"; }
is_connected() { [[ $(at "$1" --json view) == *'"connected":true'* ]]; }
# "LS 2, this node" of nasctl master is 2.
master_of() { at "$1" master | sed -n 's/^LS \([0-9]*\).*/\1/p'; }
agrees_on() { [ "$(master_of "$1")" = "$2" ]; }

start_nodes() {
    local n
    title "Three nodes start; their roots are $cluster/node1 to node3"
    for n in "${nodes[@]}"; do start_node "$n"; done
    eventually every is_ready || fail "the nodes did not start"
    eventually every is_connected || fail "the nodes did not connect to etcd"
    for n in "${nodes[@]}"; do cat "$cluster/node$n/output"; done
    master=$(master_of 1)
    { [ -n "$master" ] && eventually every agrees_on "$master"; } || fail "the nodes do not agree on a master"
    on 1 status
    for n in "${nodes[@]}"; do on "$n" master; done
    others=()
    for n in "${nodes[@]}"; do [ "$n" = "$master" ] || others+=("$n"); done
    row "master of three nodes" "LS $master, on all of them"
}

# ---- clients

# A client's process: it lives as long as nasctl does.
join_client() {
    local n=$1 ls=$2
    echo "node$n\$ nasctl dpc join $ls --ttl 2 &"
    "$build/ctl/nasctl" --root "$cluster/node$n" dpc join "$ls" --ttl 2 >"$cluster/client$ls.out" 2>&1 &
    client_pid[$ls]=$!
    eventually every sees_client "$ls" running || fail "LS $ls did not join"
}
# LS STATE of the view's table.
sees_client() {
    at "$1" dpc ls | awk -v ls="$2" -v state="$3" '$1 == ls && $2 == state { found = 1 } END { exit !found }'
}
mark_events() {
    local n
    for n in "${nodes[@]}"; do marked[$n]=$(newest_event "$cluster/node$n"); done
}
saw() { came "$cluster/node$1" "${marked[$1]}" "${@:2}"; }
show_events() {
    local n
    for n in "${nodes[@]}"; do on "$n" events --after "${marked[$n]}"; done
}
holds_lock() { at "$1" locks ls | awk -v ls="$2" '$1 == ls { found = 1 } END { exit !found }'; }
holds_none() { ! holds_lock "$@"; }

join_clients() {
    local n
    title "Two clients join, by different nodes, and take file locks on every node"
    join_client "${others[0]}" 101
    join_client "${others[1]}" 102
    on 1 view
    for n in "${nodes[@]}"; do
        on "$n" locks take --ls 101 /export/data 0 4096
        on "$n" locks take --ls 102 /export/data 4096 4096
    done
    every holds_lock 101 && every holds_lock 102 || fail "a lock is missing"
    row "LS 101 and 102 join by nodes ${others[*]}" "seen by nodes ${nodes[*]}"
}

kill_client() {
    title "LS 101 is killed with -9: its lease ends, and every node tells DLG, FMM and the lock manager"
    mark_events
    say_command '$' kill -9 "${client_pid[101]}"
    kill -9 "${client_pid[101]}"
    wait "${client_pid[101]}" 2>/dev/null || true
    unset 'client_pid[101]'
    eventually every saw 101 "CM HEART_BREAK" "DLG NODE_FAULT" "FMM NODE_FAULT" "NLM LOCKS_RELEASED" ||
        fail "the heart break was not told as it should be"
    show_events
    on "$master" view
    for n in "${nodes[@]}"; do on "$n" locks ls; done
    every holds_none 101 || fail "LS 101 still holds a lock"
    every holds_lock 102 || fail "LS 102, which lives, lost its lock"
    row "LS 101 is killed with -9" "heart break, DLG before FMM, on nodes ${nodes[*]}"
    row "its locks" "released once on nodes ${nodes[*]}; those of LS 102 stay"
}

return_client() {
    title "LS 101 comes back, with a new session"
    mark_events
    join_client "${others[0]}" 101
    eventually every saw 101 "CM RETURNED" "DLG NODE_RECOVER" "FMM NODE_RECOVER" || fail "the return was not told"
    show_events
    row "LS 101 comes back" "recovery told on nodes ${nodes[*]}"
}

# ---- the version record

publish_from() {
    local i
    for i in $(seq 10); do
        at "$1" ns publish "$(($1 * 100 + i))" >/dev/null || return 1
    done
}
name_version() { at "$1" ns read >/dev/null && at "$1" ns show | awk '$1 == "version" { print $2 }'; }
publish_at_once() {
    local before after first second
    title "Two nodes publish ten versions each at once; every one of them must count"
    before=$(name_version 1)
    echo 'node1$ for i in $(seq 10); do nasctl ns publish $((100 + i)); done &'
    echo 'node2$ for i in $(seq 10); do nasctl ns publish $((200 + i)); done &'
    publish_from 1 & first=$!
    publish_from 2 & second=$!
    wait "$first" || fail "a publication of node 1 failed"
    wait "$second" || fail "a publication of node 2 failed"
    after=$(name_version 3)
    on 3 ns show
    [ $((after - before)) -eq 20 ] || fail "version $before became $after, so of 20 publications some are lost"
    row "nodes 1 and 2 publish 10 versions each at once" "version $before becomes $after: none lost"
}

# ---- the shards

fsp=5 # the file system part (FSP) of this tour
# A node's LS for it.
fsp_place() { at "$1" shard fsp "$fsp" | awk '$1 == "LS" { print $2 }'; }
fsp_is_at() { [ "$(fsp_place "$1")" = "$2" ]; }
migrate_shards() {
    local n home next
    title "The storage LS of FSP $fsp fails: the FSP moves to the next one on every node, and back"
    for n in "${nodes[@]}"; do on "$n" shard fsp "$fsp" --place; done
    home=$(fsp_place 1)
    next=$(at 1 shard fsp "$fsp" | awk '$1 == "next" { print $3 }')
    every fsp_is_at "$home" || fail "the nodes place FSP $fsp differently"
    for n in "${nodes[@]}"; do on "$n" shard migrate "$home"; done
    every fsp_is_at "$next" || fail "FSP $fsp did not move to LS $next"
    on 1 shard ls
    for n in "${nodes[@]}"; do on "$n" shard failback "$home"; done
    every fsp_is_at "$home" || fail "FSP $fsp did not come back to LS $home"
    row "storage LS $home fails and returns" "FSP $fsp goes to LS $next and back on nodes ${nodes[*]}"
}

# ---- a node

new_master() {
    master=$(master_of "${others[0]}")
    [ -n "$master" ] && [ "$master" != "$1" ] && every agrees_on "$master"
}
kill_node() {
    local old=$master n
    title "The master, node $old, is killed with -9: another node becomes master"
    say_command '$' kill -9 "${node_pid[$old]}"
    kill -9 "${node_pid[$old]}"
    wait "${node_pid[$old]}" 2>/dev/null || true
    unset "node_pid[$old]"
    eventually new_master "$old" || fail "no other node became master"
    for n in "${others[@]}"; do on "$n" master; done
    row "node $old, the master, is killed with -9" "LS $master is the master for nodes ${others[*]}"

    title "It starts again, and joins those that went on"
    start_node "$old"
    eventually is_ready "$old" || fail "node $old did not start again"
    { eventually is_connected "$old" && eventually agrees_on "$old" "$master"; } || fail "node $old did not come back"
    on "$old" view
    eventually every sees_client 101 running || fail "node $old has another view"
    row "node $old starts again" "it follows LS $master and has the same view"
}

# ---- the end

leave_clients() {
    local ls
    title "The clients leave, which is no fault of theirs"
    mark_events
    for ls in 101 102; do
        kill -TERM "${client_pid[$ls]}"
        wait "${client_pid[$ls]}" || fail "LS $ls could not leave"
        unset "client_pid[$ls]"
        cat "$cluster/client$ls.out"
    done
    for ls in 101 102; do
        eventually every saw "$ls" "CM LEFT" "DLG NODE_FAULT" "FMM NODE_FAULT" || fail "that LS $ls left was not told"
    done
    row "LS 101 and 102 leave" "scale-down told on nodes ${nodes[*]}"
}
stop_nodes() {
    local n
    title "The nodes stop"
    for n in "${nodes[@]}"; do kill -TERM "${node_pid[$n]}" 2>/dev/null || true; done
    for n in "${nodes[@]}"; do
        wait "${node_pid[$n]}" || fail "node $n ended with $?"
        unset "node_pid[$n]"
    done
    kill -TERM "$etcd_pid"
    wait "$etcd_pid" 2>/dev/null || true
    etcd_pid=
    echo "They ended with exit status 0; every step did what it should."
}
print_table() {
    local line
    title "What happened"
    for line in "${table[@]}"; do printf '%-48s %s\n' "${line%%|*}" "${line#*|}"; done
}
tell_how_to_go_on() {
    local n
    title "Go on talking to them"
    for n in "${nodes[@]}"; do echo "  alias node$n='$PWD/$build/ctl/nasctl --root $PWD/$cluster/node$n'"; done
    cat <<TXT
  node1 status
  node2 shard fsp 5 --place
  node2 shard ls
  node3 shard migrate $(fsp_place 3)
  node1 dpc join 101
  node3 events --follow
  node2 --help
etcd answers at $store; the nodes' logs are $cluster/node1/node.log to node3.
TXT
}
# Or until the last of them has ended by itself.
run_on_until_interrupt() {
    echo "The nodes run on; Ctrl-C stops them."
    trap : INT
    wait "${node_pid[@]}" || true
}

cluster_tour() {
    trap stop_everything EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    build_programs packaging/packages-build.txt packaging/packages-cluster.txt
    rm -rf "$cluster"
    mkdir -p "$cluster"
    start_etcd
    start_nodes
    join_clients
    kill_client
    return_client
    publish_at_once
    migrate_shards
    kill_node
    leave_clients
    print_table
    tell_how_to_go_on
    [ -n "$once" ] || run_on_until_interrupt
    stop_nodes
}
