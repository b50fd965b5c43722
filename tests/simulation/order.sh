# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# What a real kernel tells of a unit, in which order, and what is there of the unit at that time, must be
# what the simulation's kernel tells. Run with rig/vm/run --add build/i386/simulation:/vm/simulation

seen=/run/seen

# record FAULT COMMAND...: until as many events have come as in the simulation, for a minute at most.
record() {
    echo "== $1" >>$seen
    expected=$(($(wc -l <$seen) + $(sed -n "/== $1/,/==/p" /run/order | grep -vc ==)))
    shift
    "$@"
    for _ in $(seq 600); do
        ! recorded || break
        usleep 100000
    done
}

recorded() {
    [ "$(wc -l <$seen)" -ge "$expected" ]
}

trigger() {
    for file in "$(sysfsOf 0)/uevent" "$(sysfsOf 0):1.0/uevent"; do
        echo change >"$file"
    done
}

refused() {
    startDaemon --ignore-sigpipe
    await logged 'are not configured'
    stopDaemon
}

bounce() {
    sim unplug 0
    sim plug 0
}

# More than the daemon's socket holds comes while it is stopped.
loss() {
    clearLog
    startDaemon --ignore-sigpipe
    await logged 'wait for vid=0403'
    kill -STOP "$daemonPid"
    clearLog
    for _ in 1 2 3 4 5 6 7 8 9; do
        echo change >"/sys/bus/usb/devices/usb$unitBus/uevent"
    done
    kill -CONT "$daemonPid"
    await logged 'look for an FTDI device'
    sed -n 's/.*wait for.*/events lost/p; s/.* removed/change device a n/p' "$sysLog" | head -n 2 >>$seen
    stopDaemon
}

cat >/run/observer <<'END'
#!/bin/sh
case $DEVPATH:$DEVTYPE in
*-1:usb_device) there=device ;;
*-1*:usb_interface) there=interface ;;
*) exit ;;
esac
[ ! -e "/sys$DEVPATH/idVendor" ] || there="$there a"
[ ! -e "/dev/$DEVNAME" ] || [ -z "$DEVNAME" ] || there="$there n"
echo "$ACTION $there" >>/run/seen
END
chmod +x /run/observer
/vm/simulation --order >/run/order
startInstallation
busybox uevent /run/observer &
await grep -q ' 15 .* 00000001' /proc/net/netlink
record arrival sim plug 0 eeprom=003a
record trigger trigger
record refused refused
record bounce bounce
record removal sim unplug 0
record loss loss
# How often a unit is tried depends on how many events the daemon's socket holds.
awk '/^==/ { name = $2; n = 0 } name != "refused" || n++ < 4' $seen >$seen.compared
diff /run/order $seen.compared || fail "the simulation's order is another one"
