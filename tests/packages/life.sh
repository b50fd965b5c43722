#!/bin/bash
# Runs in the VM of lifecycle once it is up, under systemd or sysvinit: the package from its
# installation, over an earlier one, to its purge. The last line is "lived" if all held.

exec </dev/null >/dev/ttyS1 2>&1
export PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive
service=/etc/init.d/pinwatchd
settings=/opt/orvel/etc/orvel.conf
overlay=/var/opt/orvel/etc/orvel.conf
asNobody=(setpriv --reuid=nobody --regid=nogroup --clear-groups)

# ---- Expectations ----

fail() {
    echo "failed: $*"
    [ ! -d /run/systemd/system ] || journalctl --no-pager -b -t pinwatchd -t systemd | tail -n 30
    tail -n 20 /trial/sim.log /trial/output
    end
}

end() {
    sleep 1
    echo o >/proc/sysrq-trigger
    sleep 60
}

# expect TEXT COMMAND...: the command must succeed.
expect() {
    local text=$1
    shift
    "$@" >/trial/output 2>&1 || fail "$text: not true: $*"
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

hasStatus() {
    local status=0 expected=$1
    shift
    "$@" || status=$?
    [ "$status" -eq "$expected" ]
}

mode() {
    [ "$(stat -c '%U:%G %a' "$1")" = "$2" ]
}

pins() {
    [[ $(grep ' pins=' /trial/sim.log | tail -n 1) == *" pins=$1 "* ]]
}

# raise ALARM FILE PINS
raise() {
    expect "clear" pinwatchd-alarm --file "$2" clear --all
    expect "raise" pinwatchd-alarm --file "$2" raise trial "$1"
    waitFor "$1 in $2" pins "$3"
}

# Every file with its type, mode, owner and content, but for what the system itself records.
listTree() {
    {
        find / -xdev \( -path /trial -o -path /var/lib/dpkg -o -path /var/lib/systemd -o -path /var/log \
            -o -path /var/cache -o -name '.depend.*' \) -prune -o ! -path /opt ! -path /var/opt ! -path /tmp ! -path /run \
            -printf '%y %m %u:%g %p %l\n' -type f -exec md5sum {} +
        find /run /tmp \( -name '*pinwatchd*' -o -name '*orvel*' \)
    } | sort >"/trial/tree.$1"
}

# ---- Under one of the two ----

daemons() {
    [ "$(readlink /proc/[0-9]*/exe | grep -cx /opt/orvel/bin/pinwatchd)" -eq "$1" ]
}

restartedFrom() {
    daemons 1 && [ "$(pidof pinwatchd)" -ne "$1" ]
}

withSystemd() {
    local pid
    pid=$(pidof pinwatchd)
    kill -KILL "$pid"
    waitFor "restarted after a kill" restartedFrom "$pid"
    waitFor "the alarm again" pins 01
    systemctl stop pinwatchd
    [ "$(systemctl show -P Result -P ExecMainStatus pinwatchd | xargs)" = "success 0" ] || fail "orderly stop"
    systemctl start pinwatchd
    pinwatchd-alarm clear --all
    waitFor "all cleared" pins 03
    printf '%s\n' '[Unit]' 'OnFailure=pinwatchd-alarm@%n.service' '[Service]' Type=oneshot User=nobody \
        'ExecStart=test -e /trial/good' 'ExecStartPost=-+/usr/bin/pinwatchd-alarm clear %n' \
        >/run/systemd/system/my-job.service
    systemctl start my-job
    waitFor "the alarm of a unit that failed" pins 01
    expect "its name" grep -qx '\[my-job.service\]' /run/orvel/alarms
    touch /trial/good
    systemctl start my-job
    waitFor "cleared at its next success" pins 03
    eachSecond
    raise ALARM1 /run/orvel/alarms 01
}

# The timer's check, oftener than it is meant to be.
eachSecond() {
    local unit=/run/systemd/system/pinwatchd-check
    mkdir $unit.timer.d $unit.service.d
    printf '%s\n' '[Timer]' OnActiveSec=1 OnUnitInactiveSec=1 >$unit.timer.d/often.conf
    printf '%s\n' '[Unit]' OnFailure=tell.service >$unit.service.d/tell.conf
    printf '%s\n' '[Service]' Type=oneshot 'ExecStart=/bin/sh -c "echo told >>/trial/told"' \
        >/run/systemd/system/tell.service
    systemctl daemon-reload
    systemctl start pinwatchd-check.timer
    waitFor "a check in the daemon's status" tells 'OK - TQ-5 alarm unit (001/0.*) shows no alarm'
    echo "unplug 0" >&8
    waitFor "that there is no unit" tells 'CRITICAL - no unit is attached: plug it in'
    waitFor "what is to be started then" test -s told
    sleep 3
    echo "plug 0" >&8
    waitFor "that all is well again" tells 'OK - TQ-5 alarm unit (001/0.*) shows no alarm' 2
    systemctl status pinwatchd | cat
    systemctl stop pinwatchd-check.timer
    expect "told once" test "$(cat told)" = told
    expect "logs changes only" test "$(journalctl -o cat -u pinwatchd-check | grep -c ' - ')" -eq 3
    rm -r $unit.*.d /run/systemd/system/tell.service
    systemctl daemon-reload
}

tells() {
    [ "$(systemctl status pinwatchd 2>/dev/null | grep -c "$1")" -ge "${2:-1}" ]
}

withSysvinit() {
    local pid
    pid=$(cat /run/pinwatchd.pid)
    expect "status for all" "${asNobody[@]}" $service status
    # Bit 12 of the ignored signals is SIGPIPE.
    expect "SIGPIPE ignored" test $((0x$(sed -n 's/^SigIgn:\s*//p' "/proc/$pid/status") >> 12 & 1)) -eq 1
    expect "limited memory" grep -q 'Max data size *33554432 ' "/proc/$pid/limits"
    expect "start again" $service start
    expect "same process" test "$pid" = "$(cat /run/pinwatchd.pid)"
    expect "stop" $service stop
    expect "stopped" hasStatus 3 $service status
    # Started with SIGPIPE at its default action, as by hand, it dies of it; that is a stop too.
    /opt/orvel/bin/pinwatchd &
    echo $! >/run/pinwatchd.pid
    expect "takes over" $service status
    expect "stop by SIGPIPE" $service stop
    expect "killed by SIGPIPE" hasStatus 141 wait $!
    races
    expect "start" $service start
}

# Others start it too, or stop it at once.
races() {
    for _ in 1 2 3; do
        printf '%s\n' start start start | xargs -n 1 -P 3 $service
        expect "one daemon" daemons 1
        $service stop
        $service start
        $service stop
        expect "stopped at once" daemons 0
    done >/trial/output
}

# ---- The life ----

cd /trial || exit
echo "ok booted"
listTree before

# Another user was first in /tmp.
mkdir /tmp/orvel
chown nobody /tmp/orvel
expect "install 1.0.0" dpkg -i first.deb
expect "not touched" mode /tmp/orvel "nobody:root 755"
rmdir /tmp/orvel
expect "restart" service pinwatchd restart
expect "data directory in /tmp" mode /tmp/orvel/data "root:root 750"
waitFor "started" daemons 1
# After the daemon's start: it may use what it could not name by then.
for module in usb-common usbcore usbip-core vhci-hcd; do
    insmod "/trial/lib/modules/$module.ko"
done
mkfifo sim
./tq5sim <sim >sim.log 2>&1 &
exec 8>sim
echo "plug 0" >&8
waitFor "no alarm" pins 03
raise ALARM1 /tmp/orvel/data/alarms 01

pid=$(pidof pinwatchd)
expect "upgrade from 1.0.0" dpkg -i this.deb
waitFor "restarted" restartedFrom "$pid"
expect "whole" dpkg -V pinwatchd
expect "settings" mode $settings "root:root 640"
expect "overlay's directory" mode ${overlay%/*} "root:root 750"
waitFor "the alarm as before" pins 01
expect "the old path leads there" test -e /run/orvel/alarms
raise ALARM2 /tmp/orvel/data/alarms 02
expect "its mode" mode /run/orvel "root:root 750"

# What mktemp leaves: readable for the publisher alone.
echo 'ALARM2=1' >new
chmod 600 new
chown nobody new
mv new /run/orvel/alarms
waitFor "ALARM2 in a file of nobody's own" pins 02
rm /run/orvel/alarms
raise ALARM1 /run/orvel/alarms 01
echo "unplug 0" >&8
waitFor "unplugged" test ! -e /sys/bus/usb/devices/1-1
echo "plug 0" >&8
waitFor "the alarm after plugging in again" pins 01
if [ -d /run/systemd/system ]; then withSystemd; else withSysvinit; fi
waitFor "the alarm after all that" pins 01
expect "a check" pinwatchd-alarm check

chmod 644 $settings
sed -i 's/^LogDebug = 0/LogDebug = 2/' $settings
systemctl disable pinwatchd
update-rc.d pinwatchd disable
expect "upgrade" dpkg --force-confdef --force-confold -i next.deb
expect "edited settings survive" grep -qx 'LogDebug = 2' $settings
expect "administrator's mode survives" mode $settings "root:root 644"
expect "stays disabled" test ! -e /etc/systemd/system/multi-user.target.wants/pinwatchd.service
expect "stays disabled" test ! -e /etc/rc2.d/S01pinwatchd
expect "old file gone" test ! -e /usr/share/doc/pinwatchd/publishing.md
raise ALARM2 /run/orvel/alarms 02
echo "ok upgraded"

expect "remove" dpkg -r pinwatchd
waitFor "removed, outputs undriven" pins floating
expect "settings stay" grep -qx 'LogDebug = 2' $settings
expect "program gone" test ! -e /opt/orvel/bin
expect "script does nothing" $service start
# Purged with the alarms file, but not through a link.
rm -rf /tmp/orvel
mkdir /trial/elsewhere /tmp/orvel
touch /trial/elsewhere/alarms
ln -s /trial/elsewhere /tmp/orvel/data
# One who may write there makes the file a directory.
rm /run/orvel/alarms
mkdir /run/orvel/alarms
expect "purge" dpkg -P pinwatchd
expect "link not followed" test -e /trial/elsewhere/alarms
rm -r /run/orvel
listTree after
expect "nothing left behind" diff tree.before tree.after
echo lived
end
