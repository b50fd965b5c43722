# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# In the VM: what the daemon costs there. Prints the kernel's trace of its system calls, its memory
# beside earlyoom's, and the times to the pins: from an alarms file's rename, from the start of a
# pinwatchd-alarm that wakes the daemon, and from a unit's arrival.

tries=100

# Two USB buses, as a small machine has, instead of sixteen: libusb keeps some kB for each.
for controller in 1 2 3 4 5 6 7; do
    echo "vhci_hcd.$controller" >/sys/bus/platform/drivers/vhci_hcd/unbind
done
startInstallation
writeSettings ""
plugAndWait 0

tracing=/sys/kernel/tracing
mount -t tracefs none $tracing
echo 16384 >$tracing/buffer_size_kb
echo 1 >$tracing/events/syscalls/enable
echo 1 >$tracing/options/event-fork
echo "$$" >$tracing/set_event_pid
startDaemon
sleep 4
publishAlarm "ALARM1="
await pinsAre 0 01
sleep 4
echo 0 >$tracing/tracing_on
# libusb 1.0 has a thread of its own name.
sed -n 's/^ *\(pinwatchd\|libusb_event\)-/trace &/p' $tracing/trace

earlyoom --dryrun -r 0 >/dev/null 2>&1 &
await test -r "/proc/$!/smaps"
sleep 2
sed "s/^/pinwatchd /" "/proc/$daemonPid/smaps"
sed "s/^/earlyoom /" "/proc/$!/smaps"
kill "$!"

try=0
mtime=$(date +%s)
while [ "$try" -lt "$tries" ]; do
    try=$((try + 1))
    alarm=$((try % 2 + 1))
    echo "ALARM$alarm=" >"$alarmsFile.new"
    touch -d "@$((mtime + try))" "$alarmsFile.new"
    # Every try begins at another moment of the daemon's cycle.
    usleep $((try * 617 % 1000 * 1000))
    uptimeCs
    began=$uptime
    mv "$alarmsFile.new" "$alarmsFile"
    await pinsAre 0 "0$alarm"
    uptimeCs
    echo "rename $(((uptime - began) * 10))"
done

# The lamp test raises, changes and clears an alarm, and wakes the daemon each time.
pinwatchd-alarm clear --all
try=0
while [ "$try" -lt "$tries" ]; do
    try=$((try + 3))
    usleep $((try * 617 % 1000 * 1000))
    pinwatchd-alarm test --no-wait | awk '/ s: / { print "raise", int($1 * 1000) }'
done
publishAlarm "ALARM$alarm="
await pinsAre 0 "0$alarm"

for _ in 1 2 3 4 5 6 7 8 9 10; do
    sim unplug 0
    sim plug 0
    await pinsAre 0 "0$alarm"
done
# The unit's own clock, in seconds: from each "plugged" to the first value at the pins.
awk '/ plugged / { began = $1; ++n }
    / pins=0[0-3] / { if (n > 1 && began) print "plug", int(($1 - began) * 1000); began = 0 }' "$simLog"
