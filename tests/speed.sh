# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# How soon an alarm, and a unit that was plugged in, are at the pins, by the unit's own clock: at most
# twice what README says. It judges only on a machine that has the time: run it with rig/vm/run, and
# nothing beside it.

# README's figures times two, in ms.
plugMean=1070 alarmMean=1046 alarmLongest=2040
ownPace=20 # hundredths of a second, twice what `work` takes where nothing else runs
times=/run/times
slowest=0

# work: counts to 1000, and notes in `slowest` how long the machine took for that at worst.
work() {
    local turn=0 began
    uptimeCs
    began=$uptime
    while [ $turn -lt 1000 ]; do
        turn=$((turn + 1))
    done
    uptimeCs
    [ $slowest -ge $((uptime - began)) ] || slowest=$((uptime - began))
}

# took NAME BEGIN END: notes the time between the last two such lines of the unit's log.
took() {
    awk -v name="$1" -v from="$2" -v to="$3" '
        $0 ~ from { began = $1 }
        began && $0 ~ to { ms = ($1 - began) * 1000; began = "" }
        END { print name, ms }' "$simLog" >>$times
    work
}

# judge NAME MEAN LONGEST: prints the times of that name; false where they are longer.
judge() {
    awk -v name="$1" -v mean="$2" -v longest="$3" '
        $1 == name { ++n; sum += $2; if ($2 > top) top = $2 }
        END { printf "%s to pins: mean %d ms, longest %d ms\n", name, sum / n, top
            exit sum / n > mean || top > longest }' $times
}

startInstallation
plugAndWait 0
startDaemon --ignore-sigpipe
await pinsAre 0 03
for turn in 1 2 3 4 5 6 7 8 9; do
    # At any moment of the daemon's cycle.
    usleep $((turn * 111000))
    mask=$((turn % 2 + 1))
    sim pins 0 auto
    publishAlarm "ALARM$mask="
    await pinsAre 0 0$mask
    took alarm ' pins auto$' ' bit mode '
    sim unplug 0
    sim plug 0
    await pinsAre 0 0$mask
    took plug ' plugged ' ' pins=0'
done
quick=1
judge alarm $alarmMean $alarmLongest || quick=
judge plug $plugMean $alarmLongest || quick=
[ $slowest -le $ownPace ] || {
    echo "speed.sh: skipped, this machine has no time: ${slowest}0 ms for what takes $((ownPace / 2))0"
    exit 77
}
[ -n "$quick" ] || fail "too slow"
