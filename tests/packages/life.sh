# shellcheck shell=bash disable=SC2154 # variables of installation.sh
# Runs in a Debian in the VM once it is up, under systemd or sysvinit: the package from its
# installation, over an earlier one, to its purge, or with --to-service as far as its life as a service.

export DEBIAN_FRONTEND=noninteractive
service=/etc/init.d/pinwatchd
overlay=/var/opt/orvel/etc/orvel.conf
asNobody=(setpriv --reuid=nobody --regid=nogroup --clear-groups)

hasStatus() {
    local status=0 expected=$1
    shift
    "$@" || status=$?
    [ "$status" -eq "$expected" ]
}

# hasMode FILE OWNER:GROUP MODE
hasMode() {
    [ "$(stat -c '%U:%G %a' "$1")" = "$2 $3" ]
}

# raise ALARM FILE PINS
raise() {
    expect silently pinwatchd-alarm --file "$2" clear --all
    expect silently pinwatchd-alarm --file "$2" raise trial "$1"
    await pinsAre 0 "$3"
}

# Every file with its type, mode, owner and content, but for what the system itself records.
listTree() {
    {
        find / -xdev \( -path /vm -o -path /var/lib/dpkg -o -path /var/lib/systemd -o -path /var/log \
            -o -path /var/cache -o -path /var/lib/mosquitto -o -path '/etc/*-' -o -name '.depend.*' \) -prune -o ! -path /tmp ! -path /run \
            -printf '%y %m %u:%g %p %l\n' -type f -exec md5sum {} +
        find /run /tmp \( -name '*pinwatchd*' -o -name '*orvel*' \)
    } | sort >"/run/tree.$1"
}

# ---- From a bare chip to a unit ----

# plug [OPTION...]: another unit, or without options the same one again.
plug() {
    sim unplug 0
    await test ! -e /sys/bus/usb/devices/1-1
    sim plug 0 "$@"
    await enumerated 0
}

# step N: the commands of this step in the manual, for the unit that is here.
step() {
    sed -n "/^## $1\. /,/^## /s/^    //p" /usr/share/doc/pinwatchd/unit.md |
        sed '/^apt\|^journalctl/d; s/^serial=.*/serial=TQ5SIM00/'
}

# makeUnit OPTION...: the manual's steps make a unit of this module.
makeUnit() {
    plug "$@"
    await pinsAre 0 floating
    rm -rf tq5
    export -f plug
    {
        echo . /vm/installation.sh
        step 1
        step 2
        echo plug
        step 3
    } >steps
    bash -e steps >steps.log 2>&1 || fail "the manual's steps: $(cat steps.log)"
    expect silently grep -x "serial:TQ5SIM00" steps.log
    expect silently grep -x "FTDI write eeprom: 0" steps.log
    raise ALARM2 /run/orvel/alarms 02
    raise ALARM1 /run/orvel/alarms 01
}

# ---- Under one of the two ----

daemons() {
    [ "$(readlink /proc/[0-9]*/exe | grep -cx /opt/orvel/bin/pinwatchd)" -eq "$1" ]
}

restartedFrom() {
    daemons 1 && [ "$(pidof pinwatchd)" -ne "$1" ]
}

alarmTriedAgain() {
    [ "$(systemctl show -P NRestarts pinwatchd-alarm@my-job.service.service)" -gt 0 ]
}

withSystemd() {
    local pid
    pid=$(pidof pinwatchd)
    kill -KILL "$pid"
    await restartedFrom "$pid"
    await pinsAre 0 01
    systemctl stop pinwatchd
    [ "$(systemctl show -P Result -P ExecMainStatus pinwatchd | xargs)" = "success 0" ] || fail "orderly stop"
    systemctl start pinwatchd
    pinwatchd-alarm clear --all
    await pinsAre 0 03
    printf '%s\n' '[Unit]' 'OnFailure=pinwatchd-alarm@%n.service' '[Service]' Type=oneshot User=nobody \
        'ExecStart=test -e /vm/good' 'ExecStartPost=-+/usr/bin/pinwatchd-alarm clear -- %n' \
        >/run/systemd/system/my-job.service
    # Locked for longer than the command waits.
    exec 7</run/orvel
    flock 7
    systemctl start my-job
    await alarmTriedAgain
    exec 7<&-
    await pinsAre 0 01
    expect grep -qx '\[my-job.service\]' /run/orvel/alarms
    touch /vm/good
    systemctl start my-job
    await pinsAre 0 03
    eachSecond
    raise ALARM1 /run/orvel/alarms 01
}

# The timer's check, oftener than it is meant to be.
eachSecond() {
    local unit=/run/systemd/system/pinwatchd-check
    mkdir $unit.timer.d
    printf '%s\n' '[Timer]' OnActiveSec=1 OnUnitInactiveSec=1 >$unit.timer.d/often.conf
    systemctl daemon-reload
    systemctl start pinwatchd-check.timer
    await tells 'OK - TQ-5 alarm unit (001/0.*) shows no alarm'
    sim unplug 0
    await tells 'CRITICAL - no unit is attached: plug it in'
    await checkedAgain
    sim plug 0
    await tells 'OK - TQ-5 alarm unit (001/0.*) shows no alarm' 2
    systemctl stop pinwatchd-check.timer
    expect test "$(journalctl -u pinwatchd-check | grep -c "Failed with result 'exit-code'")" -eq 1
    expect test "$(journalctl -o cat -t pinwatchd-check | grep -c ' - ')" -eq 3
    rm -r $unit.timer.d
    systemctl daemon-reload
}

# checkedAgain: the check has come to the same result as before, which is no failure.
checkedAgain() {
    [ "$(systemctl show -P ActiveState pinwatchd-check)" = inactive ]
}

tells() {
    [ "$(systemctl status pinwatchd 2>/dev/null | grep -c "$1")" -ge "${2:-1}" ]
}

withSysvinit() {
    local pid
    pid=$(cat /run/pinwatchd.pid)
    expect silently "${asNobody[@]}" $service status
    expect silently hasStatus 4 "${asNobody[@]}" $service start
    # Bit 12 of the ignored signals is SIGPIPE.
    expect test $((0x$(sed -n 's/^SigIgn:\s*//p' "/proc/$pid/status") >> 12 & 1)) -eq 1
    expect grep -q 'Max data size *33554432 ' "/proc/$pid/limits"
    expect silently $service start
    expect test "$pid" = "$(cat /run/pinwatchd.pid)"
    expect silently $service stop
    expect silently hasStatus 3 $service status
    # Started with SIGPIPE at its default action, as by hand, it dies of it; that is a stop too.
    /opt/orvel/bin/pinwatchd &
    echo $! >/run/pinwatchd.pid
    expect silently $service status
    expect silently $service stop
    expect hasStatus 141 wait $!
    races
    expect silently $service start
}

# Others start it too, or stop it at once.
races() {
    for _ in 1 2 3; do
        printf '%s\n' start start start | xargs -n 1 -P 3 $service
        expect daemons 1
        printf '%s\n' stop start stop | xargs -n 1 $service
        expect daemons 0
    done >/run/output
}

# ---- The bridge, with Debian's broker ----

mqttAlarm() {
    mosquitto_pub -q 1 -r -t pinwatchd/alarms/mill/door "$@"
}

# told WHAT TEXT: what the bridge tells of it begins with the text.
told() {
    [[ $(mosquitto_sub -t "pinwatchd/status/+/$1" -C 1 -W 5) = "$2"* ]]
}

bridge() {
    ip link set lo up
    # By hand, for Debian's script for sysvinit leaves it no place to write its number.
    service mosquitto stop
    install -d -o mosquitto /run/mosquitto
    mosquitto -d -c /etc/mosquitto/mosquitto.conf
    expect silently pinwatchd-alarm clear --all
    expect silently dpkg -i bridge.deb
    expect dpkg -V pinwatchd-mqtt
    await told bridge online
    expect hasMode /run/orvel root:pinwatchd-mqtt 2770
    expect [ "$(stat -c %U "/proc/$(pidof pinwatchd-mqtt)")" = pinwatchd-mqtt ]
    pinwatchd-alarm check >/run/pinwatchd-unit
    await told unit 'OK - TQ-5 alarm unit'
    mqttAlarm -m 'ALARM2 open'
    await pinsAre 0 02
    expect hasMode /run/orvel/alarms pinwatchd-mqtt:pinwatchd-mqtt 660
    kill -KILL "$(pidof pinwatchd-mqtt)"
    mqttAlarm -n
    [ -d /run/systemd/system ] || service pinwatchd-mqtt start
    await pinsAre 0 03
    service pinwatchd-mqtt restart
    mqttAlarm -m ALARM1
    await pinsAre 0 01
    expect silently pinwatchd-alarm raise root ALARM2
    await pinsAre 0 02
    expect silently pinwatchd-alarm clear root
    # Nobody would clear what it has raised.
    expect silently dpkg -P pinwatchd-mqtt
    await pinsAre 0 03
    expect hasMode /run/orvel root:root 750
    expect hasMode /run/orvel/alarms root:root 660
    kill "$(pidof mosquitto)"
    rm /run/pinwatchd-unit
    raise ALARM1 /run/orvel/alarms 01
}

# ---- The life ----

cd /vm || exit
echo '127.0.0.1 localhost' >/etc/hosts
listTree before

# Another user was first in /tmp.
mkdir /tmp/orvel
chown nobody /tmp/orvel
expect silently dpkg -i first.deb
expect hasMode /tmp/orvel nobody:root 755
rmdir /tmp/orvel
expect silently service pinwatchd restart
expect hasMode /tmp/orvel/data root:root 750
await daemons 1
# After the daemon's start: it may use what it could not name by then.
for module in usb-common usbcore usbip-core vhci-hcd; do
    insmod "/vm/lib/modules/$module.ko"
done
# Once more, for the bus that is there now.
# shellcheck source=rig/vm/guest/installation.sh
. /vm/installation.sh
startSim
sim plug 0
await pinsAre 0 03
raise ALARM1 /tmp/orvel/data/alarms 01
echo "ok served"

pid=$(pidof pinwatchd)
expect silently dpkg -i this.deb
await restartedFrom "$pid"
expect dpkg -V pinwatchd
expect hasMode "$settingsFile" root:root 640
expect hasMode ${overlay%/*} root:root 750
await pinsAre 0 01
expect test -e /run/orvel/alarms
raise ALARM2 /tmp/orvel/data/alarms 02
expect hasMode /run/orvel root:root 750

# What mktemp leaves: readable for the publisher alone.
echo 'ALARM2=1' >new
chmod 600 new
chown nobody new
mv new /run/orvel/alarms
await pinsAre 0 02
rm /run/orvel/alarms
raise ALARM1 /run/orvel/alarms 01
makeUnit blank
makeUnit blank product=TQ-5
makeUnit blank eeprom=10aa
echo "ok from chip to unit"
if [ -d /run/systemd/system ]; then withSystemd; else withSysvinit; fi
await pinsAre 0 01
expect silently pinwatchd-alarm check
echo "ok as a service"
[ "${1:-}" != --to-service ] || exit 0
bridge
echo "ok bridge"

chmod 644 "$settingsFile"
sed -i 's/^LogDebug = 0/LogDebug = 2/' "$settingsFile"
systemctl disable pinwatchd
update-rc.d pinwatchd disable
expect silently dpkg --force-confdef --force-confold -i next.deb
expect grep -qx 'LogDebug = 2' "$settingsFile"
expect hasMode "$settingsFile" root:root 644
expect test ! -e /etc/systemd/system/multi-user.target.wants/pinwatchd.service
expect test ! -e /etc/rc2.d/S01pinwatchd
raise ALARM2 /run/orvel/alarms 02
echo "ok upgraded"

expect silently dpkg -r pinwatchd
await pinsAre 0 floating
expect grep -qx 'LogDebug = 2' "$settingsFile"
expect test ! -e /opt/orvel/bin
expect silently $service start
# Purged with the alarms file, but not through a link.
rm -rf /tmp/orvel
mkdir /vm/elsewhere /tmp/orvel
touch /vm/elsewhere/alarms
ln -s /vm/elsewhere /tmp/orvel/data
# One who may write there makes the file a directory.
rm /run/orvel/alarms
mkdir /run/orvel/alarms
expect silently dpkg -P pinwatchd
expect test -e /vm/elsewhere/alarms
rm -r /run/orvel
listTree after
expect diff /run/tree.before /run/tree.after
echo "ok purged"
