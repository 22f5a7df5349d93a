#!/usr/bin/env bash
# Runs in a system with the packages installed, as root, without systemd: starts the services as their units do, and
# uses what an operator has at hand.
set -euo pipefail
. "$(dirname "$0")/watch.sh"

fail() {
    echo "packages: $*" >&2
    exit 1
}
listens() { [[ $(greeting 127.0.0.21 20049) == "nasctrld nfs "* ]]; }

# start UNIT: what the unit's ExecStart says, as its user, with a service manager's socket; returns when it is ready.
start() {
    local command
    command=$(sed -n 's/^ExecStart=//p' "/lib/systemd/system/$1.service")
    rm -f /run/notify
    perl -MIO::Socket::UNIX -e '
        my $socket = IO::Socket::UNIX->new(Type => SOCK_DGRAM, Local => "/run/notify") or die "$!";
        chmod 0666, "/run/notify";
        alarm 60;
        $socket->recv(my $state, 64);
        print $state;' >/run/state &
    local manager=$!
    eventually test -S /run/notify || fail "no socket for $1"
    # shellcheck disable=SC2086
    NOTIFY_SOCKET=/run/notify setpriv --reuid nasctrl --regid nasctrl --init-groups --bounding-set=-all --no-new-privs \
        $command >"/run/$1.log" 2>&1 &
    service=$!
    wait "$manager" || { cat "/run/$1.log" >&2; fail "$1 did not become ready"; }
    [ "$(cat /run/state)" = READY=1 ] || fail "$1 said $(cat /run/state)"
}
stop() {
    kill -TERM "$service"
    wait "$service" || fail "$1 ended with $?"
}

install -d -m 755 -o nasctrl -g nasctrl /run/nasctrl

start nasctrld
nasctl status
[[ $(nasctl ip ls) == *127.0.0.21*nfs,\ hdfs,\ mount,\ lif* ]] || eventually listens || fail "$(nasctl ip ls)"
eventually listens || fail "nothing listens on 127.0.0.21:20049"
echo "127.0.0.21:20049 says: $(greeting 127.0.0.21 20049)"
kill -HUP "$service"
nasctl storage status >/dev/null
stop nasctrld

start nasstored
sed 's|^storage-data|# storage-data|; s|^# storage-socket|storage-socket|' /etc/nasctrl/nasctrld.conf >/run/two.conf
setpriv --reuid nasctrl --regid nasctrl --init-groups nasctrld --config /run/two.conf >/run/two.log 2>&1 &
node=$!
eventually listens || { cat /run/two.log >&2; fail "no node beside nasstored"; }
kill -TERM "$node"
wait "$node" || fail "nasctrld ended with $?"
stop nasstored

# Without its deployment the node does not start, and says in one line what is missing.
mv /opt/ostrak /opt/elsewhere
said=$(setpriv --reuid nasctrl --regid nasctrl --init-groups nasctrld --config /etc/nasctrl/nasctrld.conf --no-console \
    2>&1) && fail "a node without EBSServer.cfg should not start"
mv /opt/elsewhere /opt/ostrak
[[ $said == "nasctrld: "*/opt/ostrak/eds/eds-f/conf/EBSServer.cfg* && $said != *$'\n'* ]] || fail "said: $said"
echo "$said"

for page in "1 nasctl" "1 nasctrl-hostcheck" "5 dpc.conf" "5 EBSServer.cfg" "5 vpc.local.conf" \
    "5 nasctrl-storage.json" "5 nasctrld.conf" "8 nasctrld" "8 nasstored"; do
    # shellcheck disable=SC2086
    [ -n "$(man --warnings $page 2>&1 >/run/page; cat /run/page)" ] || fail "man $page shows nothing"
done
[ -n "$(whatis nasctrld)" ] || fail "whatis does not know nasctrld"

# The shell's own way to the completion of a command.
completed=$(bash -c '. /usr/share/bash-completion/bash_completion
    _completion_loader nasctl
    COMP_WORDS=(nasctl ip e) COMP_CWORD=2
    _nasctrl_complete nasctl e
    echo "${COMPREPLY[*]}"')
[ "$completed" = explain ] || fail "nasctl ip e completed to: $completed"
rm -f /run/notify /run/state /run/*.log /run/two.conf /run/page
