# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# The course: faults for a running daemon in the VM. A fault is a function that takes a served unit
# to a served unit. After each, two new alarms must reach the pins, and a daemon with nothing to do
# must be calm.
#
#   rig/vm/run tests/course.sh                each line of the table
#   rig/vm/run tests/course.sh --only replug  its lines with this text
#   rig/vm/run tests/course.sh --daemon       without those that try the command's check and lamp test
#   rig/vm/run tests/course.sh --unit         and without those that try files only
#
# A line is a command of the shell: FAULT ARGUMENT..., or a prefix before it that makes a second
# fault at the same time.

table=$(
    cat <<'END'
alarm 01 '[door]\nALARM1=1'
alarm 02 '[door]\nALARM1=1\n[roof]\nalarm2=0'
alarm 03 '[ALARM1]\nother=ALARM2'
badFile 03 true
badFile 03 head -c 3000 /opt/orvel/bin/pinwatchd
badFile 03 printf '[a]\0\nALARM1\0=\0\n\0=\0[\0'
badFile 01 longLine 5
noFile true
noFile mkdir "$alarmsFile"
noFile ln -s alarms "$alarmsFile"
locked "$alarmsFile"
sources 6
settings 3 rm "$settingsFile"
settings 0 locked "$settingsFile"
settings 2 overlay '[CU/Params/3]\nlogdebug=2'
restart INT 141
restart TERM 0
restart QUIT 0
restart KILL 137
unplug && restart TERM 141 && plug
unplug && restart TERM 0 && plug
replug 0 1500 0 1500 0 1500 0 1500 0
replug 2000 100 150 200 150 300 150 400 150
event change
event bind
event unbind
unheard replug 0
unheard unplug && await logged 'is gone: unit removed' && plug
unplug && unheard plug
underFlood replug 1000
beside 1 product=Cable replug 500
beside 1 eeprom=003a restart TERM 0
turnAway bcd=0400 none 'FTDI device is not compatible'
turnAway product=Other none "unknown FTDI device 'Other'"
turnAway eeprom=003a none 'cbus functions (cbus0=10, cbus1=3) are not configured'
turnAway bcd=0600 90 'ftdi_read_eeprom failed: '
turnAway bcd=0600 03 'unable to open ftdi device: '
underFlood turnAway eeprom=003a none 'are not configured'
refuse stall 0b 'ftdi_set_bitmode failed(-1) for 0x31: ' obey
refuse stall 0c 'ftdi_read_pins failed: ' obey
refuse pins 02 'set FTDI device pins failed: expected=01, current=02' obey
refuse stall 0b 'ftdi_set_bitmode failed' replug 0
refuse stall 0b 'ftdi_set_bitmode failed' unheard replug 0
turnAway 'blank product=TQ-5' none 'cbus functions (cbus0=3, cbus1=2) are not configured'
critical 'the daemon does not run' stopDaemon 'startDaemon --ignore-sigpipe'
critical 'more than one daemon' 'firstPid=$daemonPid; startDaemon' 'stopDaemon KILL; daemonPid=$firstPid; replug 0'
critical 'is stopped' 'kill -STOP $daemonPid' 'kill -CONT $daemonPid'
critical 'hangs: restart it' fifoBriefly 'stopDaemon KILL; startDaemon --ignore-sigpipe'
critical 'is locked' 'exec 9<"$settingsFile"; flock 9' 'exec 9<&-'
critical 'is not a regular file' 'rm -f "$alarmsFile"; mkdir "$alarmsFile"' 'rmdir "$alarmsFile"'
critical 'no unit is attached' unplug plug
critical 'FTDI device is not compatible' 'unplug; sim plug 0 bcd=0400' renew
critical "unknown FTDI device 'Other'" 'unplug; sim plug 0 product=Other' renew
critical 'are not configured (cbus0=10, cbus1=3)' 'unplug; sim plug 0 eeprom=003a' renew
critical 'the pins of TQ-5 alarm unit' 'sim stall 0 0c' obey
critical 'both outputs are low' 'sim pins 0 0c' obey
lampTests 5
meanwhile oneCheck underFlood replug 500 1500 500
meanwhile raises replug 1500 700 1500
END
)

overlayFile=/var/opt/orvel/etc/orvel.conf
cycle='wait for vid=0000'

# ---- Faults ----

# alarm PINS TEXT: the alarms file is TEXT, which may hold \n.
alarm() {
    mask=$((${1#0} % 3))
    printf '%b' "$2" | replaceFile "$alarmsFile"
    await shown
}

# badFile PINS COMMAND...: the command's output is the alarms file.
badFile() {
    mask=$((${1#0} % 3))
    shift
    "$@" | replaceFile "$alarmsFile"
    cycles 2
    await shown
}

longLine() {
    printf 'ALARM1='
    head -c "${1}000000" /dev/zero | tr '\0' x
}

# noFile COMMAND...: the alarms file is gone, and the command makes what is no file. The pins stay,
# and a new connection begins without an alarm.
noFile() {
    local before
    before=$(secondOf "$alarmsFile")
    rm "$alarmsFile"
    "$@"
    cycles 2
    expect shown
    replug 0
    mask=0
    await shown
    rm -rf "$alarmsFile"
    # What is published next must not have the time of the file that was removed.
    touch -d "@$before" "$alarmsFile"
}

# locked FILE: a writer locks the file, empties it, and takes its time.
locked() {
    local before
    before=$(secondOf "$1")
    exec 9<>"$1"
    flock 9
    : >"$1"
    stampFile "$1" "$before"
    usleep 3000000
    expect shown
    [ "$1" != "$alarmsFile" ] || mask=0
    flock -u 9
    exec 9>&-
    await shown
}

# sources N: so many raise and clear alarms at once, each three times. The alarm of another one stays at
# the pins meanwhile, and no change is lost.
sources() {
    local source running='' pins
    alarm 02 '[other]\nALARM2='
    pins=$(tail -n 1 "$simLog")
    for source in $(seq "$1"); do
        for turn in 1 2 3; do
            [ $((source % 2)) -eq 0 ] || pinwatchd-alarm raise "source $source" ALARM1 $turn
            pinwatchd-alarm clear "source $source"
            [ $((source % 2)) -eq 1 ] || pinwatchd-alarm raise "source $source" ALARM1 $turn
        done &
        running="$running $!"
    done
    # shellcheck disable=SC2086 # several processes
    wait $running
    expect [ "$(tail -n 1 "$simLog")" = "$pins" ]
    pinwatchd-alarm clear other
    mask=1
    await shown
    expect [ "$(pinwatchd-alarm show | grep -c '^\[source [0-9]*[02468]\]$\|^    ALARM1 3$')" -eq "$1" ]
    expect [ "$(grep -c . "$alarmsFile")" -eq "$1" ]
}

# settings LEVEL COMMAND...: the command's settings give this debug level.
settings() {
    local level=$1
    shift
    "$@"
    # A cycle reads the settings before the alarms, and waits once the pins are written.
    show
    clearLog
    show
    show
    if [ "$level" -ge 2 ]; then
        await logged 'using bitmask'
    else
        expectNot logged 'using bitmask'
    fi
    if [ "$level" -ge 3 ]; then
        await logged "$cycle"
    else
        expectNot logged "$cycle"
    fi
    rm -f "$overlayFile"
    writeSettings "$normalSettings"
    await logged "$cycle"
}

overlay() {
    printf '%b' "$1" | replaceFile "$overlayFile"
}

# restart SIGNAL STATUS: the daemon ends so, and another one is started. With status 0 it was
# started with SIGPIPE ignored, which makes it leave the outputs undriven.
restart() {
    local pins
    mayReopen=1
    [ "$2" = 0 ] || {
        stopDaemon
        startDaemon
        await logged "$daemonPid]: wait for vid="
    }
    pins=$(pinsOf 0)
    [ "$2" != 0 ] || pins=floating
    stopDaemon "$1"
    expect daemonEndedWith "$2"
    expect pinsAre 0 "$pins"
    # Only an orderly end says so.
    settleLog
    if [ "$2" = 0 ]; then
        expect logged "$daemonPid]: close FTDI device"
    else
        expectNot logged "$daemonPid]: close FTDI device"
    fi
    startDaemon --ignore-sigpipe
}

unplug() {
    sim unplug 0
}

plug() {
    sim plug 0
}

# renew: another unit takes the place of this one, whose EEPROM would be the same when it came back.
renew() {
    unplug
    sim plug 0 eeprom=10aa
}

# replug MS...: the unit is off for the first time, on for the second, and so on.
replug() {
    local ms next=plug
    unplug
    for ms; do
        usleep "${ms}000"
        $next
        [ "$next" = plug ] && next=unplug || next=plug
    done
}

# event ACTION: an event of the attached unit that is no removal.
event() {
    mayReopen=1
    await test -e "$(sysfsOf 0)/uevent"
    echo "$1" >"$(sysfsOf 0)/uevent"
    await logged "is still attached after '$1'"
}

# turnAway OPTION REQUEST MESSAGE: a unit with this option, which stalls this request, is turned away
# with the message, once for each arrival and each start of a daemon, or three times where events
# were lost and so units are looked for; the opening itself can cause that.
turnAway() {
    mayReopen=1
    unplug
    clearLog
    # At once, for the daemon may be quicker than this script.
    printf 'plug 0 %s\nstall 0 %s\n' "$1" "$2" >&8
    isTurnedAway "$3"
    stopDaemon
    clearLog
    startDaemon --ignore-sigpipe
    isTurnedAway "$3"
    renew
}

isTurnedAway() {
    local most=1
    await logged "$1"
    usleep 2200000
    ! logged 'look for an FTDI device' || most=3
    expect [ "$(timesLogged "$1")" -le $most ]
    expect pinsAre 0 floating
}

# refuse STALL|PINS BYTE MESSAGE COMMAND...: the unit refuses an alarm, with this message once for
# each cycle, until the command mends that.
refuse() {
    local message=$3 confirmed
    alarm 02 'ALARM2='
    sim "$1" 0 "$2"
    shift 3
    mask=1
    publishAlarm 'ALARM1='
    cycles 3 "$message"
    confirmed=$(timesLogged 'current ftdi pins: 0x0d')
    "$@"
    # What was written but not read back stands at the pins, and is written again.
    await logged 'current ftdi pins: 0x0d' $((confirmed + 1))
    await shown
}

obey() {
    sim stall 0 none
    sim pins 0 auto
}

# critical TEXT CAUSE CURE: commands that bring about what the check tells so, and end it.
critical() {
    mayReopen=1
    eval "$2"
    await checks CRITICAL "$1"
    eval "$3"
    show
    await checks OK 'TQ-5 alarm unit'
}

# fifoBriefly: what the daemon opened for ever is gone.
fifoBriefly() {
    local before
    before=$(secondOf "$alarmsFile")
    rm -f "$alarmsFile"
    mkfifo "$alarmsFile"
    stampFile "$alarmsFile" "$before"
    usleep 2500000
    rm "$alarmsFile"
}

# lampTests N: so many are killed at any time. The next one succeeds, and leaves the file as it was.
lampTests() {
    local turn=0
    mayReopen=1
    alarm 03 '; of others\n\n[door]\nstate=closed\n'
    cp "$alarmsFile" "$alarmsFile.before"
    while [ "$turn" -lt "$1" ]; do
        turn=$((turn + 1))
        pinwatchd-alarm test 1 >/dev/null &
        random 2500
        usleep "${r}000"
        kill -KILL $! 2>/dev/null
        wait $! 2>/dev/null
    done
    pinwatchd-alarm test --no-wait >/run/lampTest || fail "$(cat /run/lampTest)"
    expect cmp "$alarmsFile" "$alarmsFile.before"
}

# ---- Prefixes ----

# flood: about 70 events of other devices; the daemon's socket holds less than ten.
flood() {
    local file
    for file in /sys/class/tty/*/uevent; do
        # That of a unit may be gone by now.
        { echo change >"$file"; } 2>/dev/null
    done
}

# unheard COMMAND...: the events that the command causes are lost to the daemon.
unheard() {
    kill -STOP "$daemonPid"
    flood
    "$@"
    kill -CONT "$daemonPid"
}

underFlood() {
    local flooding
    mayReopen=1
    while :; do
        flood
        usleep 50000
    done 8>&- &
    flooding=$!
    "$@"
    kill $flooding
}

# meanwhile FUNCTION COMMAND...: calls the function again and again meanwhile.
meanwhile() {
    local function=$1 repeating
    mayReopen=1
    shift
    touch /run/meanwhile
    while [ -e /run/meanwhile ]; do
        $function
    done 8>&- &
    repeating=$!
    "$@"
    rm /run/meanwhile
    wait $repeating
    expect test ! -e /run/late
}

# oneCheck: it ends in its time.
oneCheck() {
    local began
    uptimeCs
    began=$uptime
    pinwatchd-alarm check --timeout 4 >/run/check
    uptimeCs
    [ $((uptime - began)) -le 4000 ] || touch /run/late
}

# raises: an alarm comes and goes as fast as can be, each time with an event for the daemon.
raises() {
    pinwatchd-alarm raise often
    pinwatchd-alarm clear often
}

# beside UNIT OPTION COMMAND...: there is another device of the same make.
beside() {
    local other=$1
    sim plug "$1" "$2"
    shift 2
    "$@"
    sim unplug "$other"
}

# ---- Checks ----

# random N: sets `r`, 0 to N - 1.
random() {
    seed=$(((seed * 1103515245 + 12345) & 0x7fffffff))
    r=$(((seed >> 8) % $1))
}

# cycles N [MESSAGE]: waits for N more of the loop's cycles, or lines of the message, and sees that
# they come about once a second at most.
cycles() {
    local text=${2:-$cycle} began lines
    settleLog
    uptimeCs
    began=$uptime
    lines=$(timesLogged "$text")
    await logged "$text" $((lines + $1))
    lines=$(($(timesLogged "$text") - lines))
    uptimeCs
    expect [ "$lines" -le $(((uptime - began) / 100 + 2)) ]
}

shown() {
    case $mask in
    0) pinsAre 0 03 ;;
    *) pinsAre 0 0$mask ;;
    esac
}

# show: a new alarm must reach the pins.
show() {
    random 2
    mask=$(((mask + 1 + r) % 3))
    publishAlarm "[door]
state=closed
ALARM$mask=since 10:42"
    await shown
}

# openedOnce: each time it was attached the unit was opened once at most, without asking other
# devices, and its outputs were driven from the first write on.
openedOnce() {
    ! logged 'search FTDI devices' &&
        [ -z "$(grep -o "opened FTDI device.*" "$sysLog" | sort | uniq -d)" ] &&
        awk '/ unit 0: .*plugged/ { driven = 0; next }
            / unit 0: .* pins=0/ { driven = 1 }
            / unit 0: .* pins=floating/ && driven { wrong = 1 }
            END { exit wrong }' "$simLog"
}

# checks STATUS TEXT: the check says so; what it says is in the log.
checks() {
    local line
    line=$(pinwatchd-alarm check --timeout 30)
    logger "$line"
    case $line in "$1 - "*"$2"*) ;; *) return 1 ;; esac
}

# calm: with nothing to do the daemon leaves the unit and the alarms file alone, does not repeat
# itself faster than its pace of once a second, and is as large as before.
calm() {
    local last worst began
    # For what is still on its way: events in the daemon's socket.
    usleep 500000
    settleLog
    [ -n "$mayReopen" ] || expect openedOnce
    last=$(tail -n 1 "$simLog")
    touch -a -d @1000000000 "$alarmsFile"
    clearLog
    uptimeCs
    began=$uptime
    usleep 2200000
    expect test -e "/proc/$daemonPid/exe"
    expect shown
    expect [ "$(tail -n 1 "$simLog")" = "$last" ]
    expect [ "$(stat -c %X "$alarmsFile")" -eq 1000000000 ]
    await logged "$cycle"
    uptimeCs
    worst=$(sed 's/^.\{16\}//; s/\[[0-9]*\]//' "$sysLog" | sort | uniq -c | sort -rn | head -n 1)
    # shellcheck disable=SC2086 # count and message
    [ "$(set -- ${worst:-0} && echo "$1")" -le $(((uptime - began) / 100 + 2)) ] ||
        fail "repeated: $worst"
    private=$(awk '/^Private/ { p += $2 } END { print p }' "/proc/$daemonPid/smaps_rollup")
    fds=$(find "/proc/$daemonPid/fd" | wc -l)
    [ -n "${firstPrivate:-}" ] || firstPrivate=$private firstFds=$fds
    # Room for a heap that is cut up in another way.
    [ -n "$mayGrow" ] || expect [ "$private" -le $((firstPrivate * 2)) ]
    expect [ "$fds" -eq "$firstFds" ]
}

# ---- The course ----

# run LINE: the fault, two alarms, each written once, and calm.
run() {
    local began writes
    printf '%s ... ' "$1"
    uptimeCs
    began=$uptime
    mayReopen=''
    tail -n 1 "$simLog" >"$simLog.last"
    cat "$simLog.last" >"$simLog"
    clearLog
    eval "$1"
    show
    writes=$(grep -c ' bit mode ' "$simLog")
    # At any moment of the daemon's cycle.
    random 1000
    usleep "${r}000"
    show
    [ -n "$mayReopen" ] || expect [ "$(grep -c ' bit mode ' "$simLog")" -eq $((writes + 1)) ]
    calm
    uptimeCs
    lines=$((lines + 1))
    echo "ok, $(((uptime - began + 50) / 100)) s, $private kB"
}

without='' only='' mayGrow='' lines=0 mask=0 seed=1
command='critical lampTests meanwhile'
case ${1:-} in
--daemon) without=$command ;;
--unit) without="$command alarm badFile noFile locked sources settings" ;;
--only) only=$2 ;;
esac
# For a build with sanitizers: what is freed is kept from being used again, but not for ever.
export ASAN_OPTIONS=quarantine_size_mb=1
! grep -q AddressSanitizer /opt/orvel/bin/pinwatchd || mayGrow=1
startInstallation
normalSettings=$(cat "$settingsFile")
plugAndWait 0
startDaemon --ignore-sigpipe
show
set -f
IFS='
'
# shellcheck disable=SC2086 # a word for each line
set -- $table
set +f
unset IFS
for line; do
    case " $without " in *" ${line%% *} "*) continue ;; esac
    case $line in *"$only"*) run "$line" ;; esac
done
firstPrivate=$private # the heap has seen all there is
if [ -n "$mayGrow" ]; then
    mayGrow=''
    run 'badFile 01 longLine 5'
    run 'replug 0 1500 0 1500 0'
fi
stopDaemon
expect daemonEndedWith 0
expect pinsAre 0 floating
echo "passed: $lines faults"
