#!/usr/bin/env bash
# Runs as root in a booted system with the packages installed: the services under systemd, in their sandbox.
set -euxo pipefail
. "$(dirname "$0")/watch.sh"

# A command that has to fail; "!" alone would let it pass.
refused() {
    if "$@"; then
        exit 1
    fi
}
listens() { [[ $(nasctl ip ls) == *"127.0.0.21 "*"nfs, hdfs, mount, lif"* ]]; }

systemctl enable --now nasctrld
eventually listens
systemctl reload nasctrld
pid=$(systemctl show -p MainPID --value nasctrld)
[ "$(stat -c %U "/proc/$pid")" = nasctrl ]
# In its view of the file system, as its user, the place of the VPC table can be written and nothing else can.
as_service() { nsenter -m -t "$pid" setpriv --reuid nasctrl --regid nasctrl --init-groups "$@"; }
as_service touch /opt/dr/config/vpc.local.conf
refused as_service touch /etc/nasctrl/storage.json
refused as_service touch /opt/file
refused nsenter -m -t "$pid" touch /etc/file

[ "$(stat -c %U /var/lib/nasctrl/cluster.db)" = nasctrl ]

# The storage-side service as a process of its own.
sed -i 's|^storage-data|# storage-data|; s|^# storage-socket|storage-socket|' /etc/nasctrl/nasctrld.conf
systemctl stop nasctrld
systemctl start nasstored nasctrld
eventually listens
[[ $(nasctl storage status) == *"$(systemctl show -p MainPID --value nasstored)"* ]]

# It comes back from a crash, but not with a wrong option.
systemctl kill --signal=KILL nasctrld
eventually systemctl is-active --quiet nasctrld
eventually listens
systemctl stop nasctrld
echo "perid = 5" >>/etc/nasctrl/nasctrld.conf
refused systemctl start nasctrld
journalctl --no-pager -u nasctrld | grep -q 'perid: no such option; did you mean period'
[ "$(systemctl show -p NRestarts --value nasctrld)" = 0 ]

# Nothing runs on when the package goes.
DEBIAN_FRONTEND=noninteractive dpkg --purge nasctrl
refused systemctl is-active --quiet nasstored
refused getent passwd nasctrl
[ ! -e /opt/dr ] && [ ! -e /opt/ostrak ] && [ ! -e /etc/nasctrl ] && [ ! -e /run/nasctrl ] && [ ! -e /var/lib/nasctrl ]
