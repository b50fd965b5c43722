# shellcheck shell=dash
# Read in by rig/vm/run before a script: an installation to play with, the daemon with its files,
# virtual units and a system log. For busybox sh and bash, as root. The VM is the clean-up.

settingsFile=/opt/orvel/etc/orvel.conf
dataDir=/tmp/orvel/data
alarmsFile=$dataDir/alarms
sysLog=/run/syslog
simLog=/run/sim
daemonOutput=/run/daemon
escape=$(printf '\033')
green="${escape}[32m"
red="${escape}[31m"
plain="${escape}[0m"
daemonPid=$(pidof pinwatchd)
# The virtual controller has two buses; full-speed units come onto the slower one.
for rootHub in /sys/devices/platform/vhci_hcd.0/usb[0-9]*; do
    [ "$(cat "$rootHub/speed" 2>/dev/null)" != 480 ] || unitBus=${rootHub##*/usb}
done
limit=180 # seconds for what takes one or two on a machine that has the time

# ---- Waiting ----

# uptimeCs: sets `uptime` to the time since boot in hundredths of a second.
uptimeCs() {
    local whole
    read -r whole _ </proc/uptime
    uptime=${whole%.*}${whole#*.}
}

# A Debian has none.
if ! command -v usleep >/dev/null; then
    usleep() {
        sleep "$(printf '0.%06d' "$1")"
    }
fi

# await COMMAND...: runs the command until it succeeds; the script fails when it has not after `limit`.
await() {
    local end
    uptimeCs
    end=$((uptime + limit * 100))
    until "$@"; do
        [ "$uptime" -lt "$end" ] || {
            fail "waited $limit seconds for: $*"
            return 1
        }
        usleep 10000
        uptimeCs
    done
}

# expect COMMAND...: the script fails unless the command succeeds now.
expect() {
    "$@" || fail "not true: $*"
}

# expectNot COMMAND...: the script fails if the command succeeds now.
expectNot() {
    ! "$@" || fail "true: $*"
}

# silently COMMAND...: shows its output only if it fails.
silently() {
    "$@" >/run/output 2>&1 || { cat /run/output && return 1; }
}

# fail TEXT: ends the script, with the ends of the logs.
fail() {
    echo "  failed: $*"
    # Typed in a shell, a command that fails must not end the VM.
    case $- in *i*) return 1 ;; esac
    for log in "$sysLog" "$simLog"; do
        echo "  --- end of $log"
        tail -n 25 "$log" 2>/dev/null | sed 's/^/  /'
    done
    [ ! -d /run/systemd/system ] || journalctl --no-pager -b -t pinwatchd -t systemd | tail -n 30
    # Nothing, if no sanitizer found a fault.
    head -n 25 "$daemonOutput" 2>/dev/null | sed 's/^/  /'
    exit 1
}

# ---- Files ----

# secondOf FILE: prints its modification time, 0 if it is not there.
secondOf() {
    stat -c %Y "$1" 2>/dev/null || echo 0
}

# stampFile FILE SECOND: gives it the present time, or where the version before has that or a later
# one (SECOND), the second behind that: the daemon goes by times alone.
stampFile() {
    local now
    now=$(date +%s)
    [ "$now" -gt "$2" ] || now=$(($2 + 1))
    touch -d "@$now" "$1"
}

# replaceFile FILE: puts standard input in the file's place, whole.
replaceFile() {
    mkdir -p "${1%/*}"
    cat >"$1.new"
    stampFile "$1.new" "$(secondOf "$1")"
    mv "$1.new" "$1"
}

# publishAlarm TEXT: replaces the alarms file.
publishAlarm() {
    printf '%s\n' "$1" | replaceFile "$alarmsFile"
}

# writeSettings TEXT: replaces the settings file.
writeSettings() {
    printf '%s\n' "$1" | replaceFile "$settingsFile"
}

# ---- System log ----

startSyslog() {
    : >"$sysLog"
    syslogd -n -O "$sysLog" </dev/null >/dev/null 2>&1 8>&- &
    await grep -q 'syslogd started' "$sysLog"
}

# settleLog: waits until all that was sent to the system log is there.
settleLog() {
    marks=$((${marks:-0} + 1))
    logger "mark $marks"
    await logged "mark $marks"
}

# clearLog: empties it then.
clearLog() {
    settleLog
    : >"$sysLog"
}

# showLog: prints the system log without debug messages.
showLog() {
    grep -v '\.debug ' "$sysLog"
}

# timesLogged TEXT: prints how many lines of the system log contain TEXT.
timesLogged() {
    grep -c -F -e "$1" "$sysLog"
}

# logged TEXT [N]: true if at least N lines (1) of the system log contain TEXT.
logged() {
    [ "$(timesLogged "$1")" -ge "${2:-1}" ]
}

# ---- Virtual units ----

# startSim: tq5sim with no unit plugged. Its output goes to $simLog.
startSim() {
    [ -p /run/sim.input ] || mkfifo /run/sim.input
    tq5sim </run/sim.input >>"$simLog" 2>&1 &
    exec 8>/run/sim.input
}

# sim COMMAND...: gives tq5sim a command (see tq5sim --help) and waits until it is done.
# An argument with blanks is one: sim plug 0 product="USB Serial"
sim() {
    local answer count word line=''
    for word; do
        case $word in
        *\"*) ;;
        *' '*) word="\"$word\"" ;;
        esac
        line="$line$word "
    done
    # What is written for a tq5sim that has ended would end this shell.
    if ! pidof tq5sim >/dev/null; then
        fail "tq5sim has ended; startSim starts it again"
        return 1
    fi
    case $1 in
    plug) answer=' plugged bcd=' ;;
    unplug) answer=' unplugged$' ;;
    stall) answer=' stall [0-9a-f]*$\| stall none$' ;;
    pins) answer=' pins [0-9a-f]*$\| pins auto$' ;;
    *) answer='' ;;
    esac
    answer="^[0-9.]* unit $2:.*\\($answer\\)\\|^error:"
    count=$(grep -c "$answer" "$simLog")
    echo "$line" >&8
    [ "$1" = quit ] || await simAnswered "$answer" "$count"
    ! tail -n 1 "$simLog" | grep -q '^error:' || fail "tq5sim: $(tail -n 1 "$simLog")"
}

simAnswered() {
    [ "$(grep -c "$1" "$simLog")" -gt "$2" ]
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

# unitNews: prints what has happened at the units since it was called last.
unitNews() {
    local seen
    seen=$(cat /run/unitNews 2>/dev/null || echo 0)
    wc -l <"$simLog" >/run/unitNews
    tail -n +"$((seen + 1))" "$simLog" | drawLamps
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

# sysfsOf UNIT: prints the unit's directory in sysfs, which exists while the kernel knows it.
sysfsOf() {
    echo "/sys/bus/usb/devices/$unitBus-$(($1 + 1))"
}

# enumerated UNIT: true once the kernel has configured the unit.
enumerated() {
    [ -e "$(sysfsOf "$1"):1.0" ]
}

# plugAndWait UNIT [OPTION...]: plugs it and waits until the kernel has configured it.
plugAndWait() {
    sim plug "$@"
    await enumerated "$1"
}

# ---- The daemon ----

# startDaemon [--ignore-sigpipe]: sets `daemonPid`. With the option the daemon inherits SIGPIPE
# ignored, so that a stop request lets it close the unit.
startDaemon() {
    (
        [ "${1:-}" != --ignore-sigpipe ] || trap '' PIPE
        exec /opt/orvel/bin/pinwatchd
    ) </dev/null >>"$daemonOutput" 2>&1 8>&- &
    daemonPid=$!
}

# ended PID: true once the process is gone or a zombie.
ended() {
    case $(cat "/proc/$1/stat" 2>/dev/null) in
    '' | *') Z '*) ;;
    *) return 1 ;;
    esac
}

# stopDaemon [SIGNAL]: sends it (TERM) and waits for the daemon's end.
stopDaemon() {
    kill "-${1:-TERM}" "$daemonPid"
    await ended "$daemonPid"
    daemonStatus=0
    wait "$daemonPid" || daemonStatus=$?
}

# daemonEndedWith STATUS: the exit status, or 128 and the signal that killed it: 141 for SIGPIPE.
daemonEndedWith() {
    [ "$daemonStatus" -eq "$1" ]
}

# startInstallation: debug level 3, system log, tq5sim without units; the daemon does not run yet.
startInstallation() {
    # Files that others can read they can lock.
    umask 077
    writeSettings "[cu/params/3]
LogDebug=3"
    startSyslog
    startSim
}
