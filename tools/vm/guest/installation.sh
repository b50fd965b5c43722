# shellcheck shell=dash
# Read in by tools/vm/run before a script: functions to play an installation with the daemon,
# virtual units and a system log. For busybox sh, as root.

settingsFile=/opt/orvel/etc/orvel.conf
overlayFile=/var/opt/orvel/etc/orvel.conf
dataDir=/tmp/orvel/data
alarmsFile=$dataDir/alarms
stateDir=/run/pinwatchd-vm
sysLog=$stateDir/syslog
simLog=$stateDir/sim
simInput=$stateDir/sim.fifo
escape=$(printf '\033')
green="${escape}[32m"
red="${escape}[31m"
plain="${escape}[0m"
# The script's own arguments choose among its scenarios.
chosenScenarios=$*
daemonPid=$(cat "$stateDir/pinwatchd.pid" 2>/dev/null)
# The virtual controller has two buses; full-speed units come onto the slower one.
for rootHub in /sys/devices/platform/vhci_hcd.0/usb[0-9]*; do
    [ "$(cat "$rootHub/speed")" != 480 ] || unitBus=${rootHub##*/usb}
done

# ---- Waiting ----

# uptimeCs: sets `uptime` to the time since boot in hundredths of a second.
uptimeCs() {
    local whole
    read -r whole _ </proc/uptime
    uptime=${whole%.*}${whole#*.}
}

# becomesTrue SECONDS COMMAND...: runs the command until it succeeds. False after SECONDS.
becomesTrue() {
    uptimeCs
    local end=$((uptime + $1 * 100))
    shift
    until "$@"; do
        uptimeCs
        [ "$uptime" -lt "$end" ] || return 1
        usleep 10000
    done
}

# waitFor SECONDS COMMAND...: the same, but ends the scenario when it stays false.
waitFor() {
    becomesTrue "$@" || fail "waited $1 seconds for: $(shift && echo "$*")"
}

# staysTrue SECONDS COMMAND...: ends the scenario when the command fails within SECONDS.
staysTrue() {
    uptimeCs
    local end=$((uptime + $1 * 100))
    shift
    while [ "$uptime" -lt "$end" ]; do
        "$@" || fail "no longer: $*"
        usleep 10000
        uptimeCs
    done
}

# fail TEXT: ends the scenario, with the ends of both logs.
fail() {
    echo "  failed: $*"
    # Typed in a shell, a command that fails must not end the VM.
    case $- in *i*) return 1 ;; esac
    echo "  --- end of the system log"
    tail -n 25 "$sysLog" 2>/dev/null | sed 's/^/  /'
    echo "  --- end of the units' log"
    tail -n 15 "$simLog" 2>/dev/null | sed 's/^/  /'
    exit 1
}

# expect COMMAND...: ends the scenario unless the command succeeds now.
expect() {
    "$@" || fail "not true: $*"
}

# ---- Files ----

# replaceFile FILE TEXT: the file appears whole, with another time in seconds than before.
replaceFile() {
    local seconds previous
    mkdir -p "${1%/*}"
    seconds=$(date +%s)
    previous=$(stat -c %Y "$1" 2>/dev/null || echo 0)
    [ "$seconds" -gt "$previous" ] || seconds=$((previous + 1))
    printf '%s\n' "$2" >"$1.new"
    touch -d "@$seconds" "$1.new"
    mv "$1.new" "$1"
}

# publishAlarm TEXT: replaces the alarms file.
publishAlarm() {
    replaceFile "$alarmsFile" "$1"
}

# writeSettings TEXT: replaces the settings file.
writeSettings() {
    replaceFile "$settingsFile" "$1"
}

# ---- System log ----

startSyslog() {
    mkdir -p "$stateDir"
    : >"$sysLog"
    syslogd -n -O "$sysLog" </dev/null >/dev/null 2>&1 8>&- &
    echo "$!" >"$stateDir/syslogd.pid"
    # It listens by then; /dev/log alone may be left from the last one.
    becomesTrue 5 grep -q 'syslogd started' "$sysLog" || fail "syslogd does not start"
}

# timesLogged TEXT: prints how many lines of the system log contain TEXT.
timesLogged() {
    grep -c -F -e "$1" "$sysLog"
}

# logged TEXT [N]: true if at least N lines (1) of the system log contain TEXT.
logged() {
    [ "$(timesLogged "$1")" -ge "${2:-1}" ]
}

notLogged() {
    ! logged "$1"
}

# expectLog TEXT [N]: waits up to 10 seconds for it.
expectLog() {
    waitFor 10 logged "$@"
}

# ---- Virtual units ----

# startSim: tq5sim with no unit plugged. Its output goes to $simLog.
startSim() {
    mkdir -p "$stateDir"
    : >"$simLog"
    rm -f "$simInput"
    mkfifo "$simInput"
    tq5sim <"$simInput" >>"$simLog" 2>&1 &
    echo "$!" >"$stateDir/tq5sim.pid"
    exec 8>"$simInput"
}

# sim COMMAND...: gives tq5sim a command (see tq5sim --help) and waits until it is done.
# Arguments with blanks need tq5sim's own double quotes: sim plug 0 'product="some other"'
sim() {
    local answer count
    case $1 in
    plug) answer=' plugged bcd=' ;;
    unplug) answer=' unplugged$' ;;
    stall) answer=' stall [0-9a-f]*$\| stall none$' ;;
    pins) answer=' pins [0-9a-f]*$\| pins auto$' ;;
    *) answer='' ;;
    esac
    answer="^[0-9.]* unit $2:.*\\($answer\\)\\|^error:"
    count=$(grep -c "$answer" "$simLog")
    echo "$*" >&8
    # A unit that left while it was reset keeps its port for five seconds.
    [ "$1" = quit ] || waitFor 15 simAnswered "$answer" "$count"
    ! tail -n 1 "$simLog" | grep -q '^error:' || fail "tq5sim: $(tail -n 1 "$simLog")"
}

simAnswered() {
    [ "$(grep -c "$1" "$simLog")" -gt "$2" ]
}

# timesSim TEXT: prints how many lines of the units' log contain TEXT.
timesSim() {
    grep -c -F -e "$1" "$simLog"
}

# simShows TEXT [N]: true if at least N lines (1) of the units' log contain TEXT.
simShows() {
    [ "$(timesSim "$1")" -ge "${2:-1}" ]
}

# lampsOf UNIT: prints the two outputs as the unit's last line draws them.
lampsOf() {
    sed -n "s/^[0-9.]* unit $1: \\(.*\\) pins=.*/\\1/p" "$simLog" | tail -n 1
}

# drawLamps: copies its input, with the lamps in colour if this run's output is a terminal.
drawLamps() {
    local line
    while IFS= read -r line; do
        if [ -n "${VM_TERMINAL:-}" ]; then
            # shellcheck disable=SC3060 # busybox sh knows this form
            line=${line//●/$green●$plain} line=${line//○/$red○$plain}
        fi
        printf '%s\n' "$line"
    done
}

# pinsOf UNIT: prints what the unit's last line shows: 00 to 03 (CBUS0 plus twice CBUS1) or
# floating; nothing if it was never plugged.
pinsOf() {
    sed -n "s/^[0-9.]* unit $1:.* pins=\\([^ ]*\\) .*/\\1/p" "$simLog" | tail -n 1
}

# pinsAre UNIT VALUE: true if pinsOf UNIT is VALUE.
pinsAre() {
    [ "$(pinsOf "$1")" = "$2" ]
}

# expectPins UNIT VALUE [SECONDS]: waits for it, up to 10 seconds if not said otherwise.
expectPins() {
    waitFor "${3:-10}" pinsAre "$1" "$2"
}

# sysfsOf UNIT: prints the unit's directory in sysfs, which exists while the kernel knows it.
sysfsOf() {
    echo "/sys/bus/usb/devices/$unitBus-$(($1 + 1))"
}

# nodePathOf UNIT: prints bus and device number as the daemon logs them, such as 001/004.
nodePathOf() {
    printf '%03d/%03d\n' "$(cat "$(sysfsOf "$1")/busnum")" "$(cat "$(sysfsOf "$1")/devnum")"
}

# enumerated UNIT: true once the kernel has configured the unit.
enumerated() {
    [ -e "$(sysfsOf "$1"):1.0" ]
}

# plugAndWait UNIT [OPTION...]: plugs it and waits until the kernel has configured it.
plugAndWait() {
    sim plug "$@"
    waitFor 5 enumerated "$1"
}

noUnits() {
    ! ls -d "/sys/bus/usb/devices/$unitBus"-[1-9]* >/dev/null 2>&1
}

# ---- The daemon ----

# startDaemon [--ignore-sigpipe]: sets `daemonPid`. With the option the daemon inherits SIGPIPE
# ignored, so that a stop request lets it close the unit.
startDaemon() {
    (
        [ "${1:-}" != --ignore-sigpipe ] || trap '' PIPE
        exec /opt/orvel/bin/pinwatchd
    ) </dev/null >>"$stateDir/daemon.out" 2>&1 8>&- &
    daemonPid=$!
    echo "$daemonPid" >"$stateDir/pinwatchd.pid"
}

# ended PID: true once the process is gone or a zombie.
ended() {
    case $(cat "/proc/$1/stat" 2>/dev/null) in
    '' | *') Z '*) ;;
    *) return 1 ;;
    esac
}

daemonRuns() {
    ! ended "$daemonPid"
}

# stopDaemon [SIGNAL [SECONDS]]: sends it (TERM) and waits for the daemon's end (5 seconds).
stopDaemon() {
    kill "-${1:-TERM}" "$daemonPid"
    awaitDaemonEnd "${2:-5}"
}

# awaitDaemonEnd [SECONDS]: the same for a daemon that ends by itself.
awaitDaemonEnd() {
    waitFor "${1:-5}" ended "$daemonPid"
    daemonStatus=0
    wait "$daemonPid" || daemonStatus=$?
}

# daemonEndedWith STATUS: the exit status, or 128 and the signal that killed it: 141 for SIGPIPE.
daemonEndedWith() {
    [ "$daemonStatus" -eq "$1" ]
}

# ---- Scenarios ----

# freshState: system log empty, debug level 3, no alarms file, tq5sim without units.
freshState() {
    endProcesses
    rm -rf "$stateDir" "$dataDir" "$overlayFile"
    writeSettings "[cu/params/3]
LogDebug=3"
    startSyslog
    startSim
}

endProcesses() {
    local pidFile pid
    exec 8>&-
    for pidFile in "$stateDir"/*.pid; do
        [ -e "$pidFile" ] || continue
        pid=$(cat "$pidFile")
        # At the end of its input tq5sim takes its units off and ends.
        if [ "$pidFile" != "$stateDir/tq5sim.pid" ] || ! becomesTrue 5 ended "$pid"; then
            kill -KILL "$pid" 2>/dev/null
            becomesTrue 5 ended "$pid" || echo "process $pid ($pidFile) does not end"
        fi
        wait "$pid" 2>/dev/null
    done
    becomesTrue 5 noUnits || echo "a unit does not leave the bus"
}

# runScenarios FUNCTION...: runs each with fresh state in a shell of its own, or only those that
# the script's arguments name; ends the script with status 0 if none failed.
runScenarios() {
    local name began passed=0 failed=0
    for name in ${chosenScenarios:-"$@"}; do
        case " $* " in
        *" $name "*) ;;
        *)
            echo "no scenario $name; there are: $*"
            exit 2
            ;;
        esac
        uptimeCs
        began=$uptime
        if (
            freshState
            "$name"
        ); then
            passed=$((passed + 1))
            uptimeCs
            echo "ok $name ($(((uptime - began + 50) / 100)) s)"
        else
            failed=$((failed + 1))
            echo "FAILED $name"
        fi
        endProcesses 2>/dev/null
    done
    echo "scenarios passed: $passed, failed: $failed"
    [ "$failed" -eq 0 ]
    exit
}
