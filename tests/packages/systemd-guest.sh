#!/bin/bash
# Runs in the VM of test-systemd, once it is up: the package from installation to purge. Hands its
# status out through the second serial port and turns the VM off.

alarms=/run/orvel/alarms
publish=/usr/share/doc/pinwatchd/examples/publish.sh

fail() {
    echo "failed: $*"
    systemctl --no-pager -l status pinwatchd
    tail -n 20 /sim.log
    journalctl --no-pager -b -t pinwatchd -t systemd | tail -n 30
    end 1
}

end() {
    echo "$1" >/dev/ttyS1
    systemctl --force --force poweroff
    exit
}

# waitFor TEXT COMMAND...: up to a minute, for the machine may be busy.
waitFor() {
    local text=$1 deadline=$((SECONDS + 60))
    shift
    until "$@"; do
        [ $SECONDS -lt $deadline ] || fail "$text"
        sleep 0.1
    done
    echo "ok $text"
}

# shellcheck disable=SC2317 # called by waitFor
pins() {
    [[ $(grep ' pins=' /sim.log | tail -n 1) == *" pins=$1 "* ]]
}

# shellcheck disable=SC2317 # called by waitFor
restartedFrom() {
    local pid
    pid=$(systemctl show -P MainPID pinwatchd)
    [ "$pid" -ne 0 ] && [ "$pid" -ne "$1" ]
}

dpkg -i /pinwatchd.deb >/dev/null || fail install
[ "$(stat -c '%U %a' /run/orvel)" = "root 750" ] || fail "data directory"
# After the daemon's start: it may use what it could not name by then.
for module in usb-common usbcore usbip-core vhci-hcd; do
    insmod "/lib/modules/$module.ko"
done
mkfifo /sim
tq5sim </sim >/sim.log 2>&1 &
exec 8>/sim
echo "plug 0" >&8
waitFor "installed, started: no alarm" pins 03
echo 'ALARM1=1' | $publish $alarms
waitFor "ALARM1" pins 01
# What mktemp leaves: readable for the publisher alone.
echo 'ALARM2=1' >$alarms.new
chmod 600 $alarms.new
chown nobody $alarms.new
touch -d '+5 seconds' $alarms.new
mv $alarms.new $alarms
waitFor "ALARM2 in a file of nobody's own" pins 02

echo "unplug 0" >&8
waitFor "unplugged" test ! -e /sys/bus/usb/devices/1-1
echo "plug 0" >&8
waitFor "plugged in again: ALARM2" pins 02

pid=$(systemctl show -P MainPID pinwatchd)
kill -KILL "$pid"
waitFor "restarted after a kill" restartedFrom "$pid"
echo 'ALARM1=1' | $publish $alarms
waitFor "ALARM1" pins 01

systemctl stop pinwatchd
waitFor "stopped, outputs undriven" pins floating
[ "$(systemctl show -P Result -P ExecMainStatus pinwatchd | xargs)" = "success 0" ] || fail "orderly stop"
# In /tmp, where another user was first.
printf '[common]\nData = /tmp/orvel/data\n' >/var/opt/orvel/etc/orvel.conf
mkdir /tmp/orvel
chown nobody /tmp/orvel
mkfifo /tmp/orvel/data
systemctl start pinwatchd
rm -r /tmp/orvel-aside.* || fail "put aside"
echo 'ALARM1=1' | $publish /tmp/orvel/data/alarms
waitFor "started: ALARM1" pins 01

dpkg -r pinwatchd >/dev/null || fail remove
waitFor "removed, outputs undriven" pins floating
dpkg -P pinwatchd >/dev/null || fail purge
left=$(find /etc /lib /run /tmp /usr /var /opt -xdev \( -path /var/lib/dpkg -o -path /var/log \) \
    -prune -o \( -name '*pinwatchd*' -o -name '*orvel*' \) -print 2>/dev/null)
[ -z "$left" ] || fail "left behind: $left"
echo "ok purged"
end 0
