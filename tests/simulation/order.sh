# shellcheck shell=dash
# In the VM: records the events that an observer sees of some of the course's faults, and what is
# there of the device at each. It must be what the simulation shows its observer (--order).

seen=/run/seen

# record NAME COMMAND...
record() {
    echo "== $1" >>$seen
    shift
    "$@"
    usleep 1500000
}

bounce() {
    sim unplug 0
    sim plug 0
}

trigger() {
    echo change >"$(sysfsOf 0)/uevent"
    echo change >"$(sysfsOf 0):1.0/uevent"
}

# More than the socket holds comes while the observer is stopped.
loss() {
    kill -STOP "$observer"
    sim unplug 0
    sim plug 0
    usleep 1000000
    kill -CONT "$observer"
}

observe() {
    [ -z "$observer" ] || kill "$observer"
    /vm/observer "$1" >>$seen &
    observer=$!
    usleep 500000
}

# serve MESSAGE: the daemon starts, and says so.
serve() {
    startDaemon --ignore-sigpipe
    waitFor 30 logged "$1"
}

observer=
startInstallation
: >$seen
observe 100000
record arrival plugAndWait 0
record trigger trigger
record opening serve 'opened FTDI device'
record closing stopDaemon TERM
record removal sim unplug 0
record arrival plugAndWait 0 eeprom=003a
record refused serve 'are not configured'
record closing stopDaemon TERM
record bounce bounce
if [ ! -d /sys/module/ftdi_sio ]; then
    observe 1024
    record loss loss
fi
# How many events fit, and so how often a unit is tried, differs.
for file in /vm/order $seen; do
    awk '/^==/ { name = $2; n = 0 } name !~ /loss|refused/ || n++ < 4' "$file" >"$file.part"
done
if ! diff /vm/order.part $seen.part; then
    fail "the simulation's order is another one"
fi
