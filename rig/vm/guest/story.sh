# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# The main job as a story: what is written to the alarms file, and what the unit shows then.
# With --shell it stops where a shell takes over.

steps=0

# step TEXT: the next step begins; time counts from the action that follows.
step() {
    steps=$((steps + 1))
    printf '%d. %s\n' "$steps" "$1"
    uptimeCs
    began=$uptime
}

# alarmStep TEXT CONTENT: publishes the content and shows it.
alarmStep() {
    step "$1"
    printf '%s\n' "$2" | sed 's/^/       | /'
    publishAlarm "$2"
}

# seen VALUE: waits until the unit's pins have it and shows its lamps.
seen() {
    await pinsAre 0 "$1"
    uptimeCs
    printf '   %s   after %d.%02d s\n\n' "$(lampsOf 0 | drawLamps)" \
        $(((uptime - began) / 100)) $(((uptime - began) % 100))
}

# told ARGUMENT...: shows what the command says, which must be OK.
told() {
    pinwatchd-alarm "$@" >/run/told || fail "$(cat /run/told)"
    sed 's/^/   /' /run/told
    echo
}

[ "${1:-}" = --shell ] && shell=1 || shell=

echo "pinwatchd on $(uname -sr), $(uname -m), with a virtual TQ-5 on a virtual USB port"
echo "Outputs: $(echo '● high, ○ low (an alarm takes one output low), - not driven' | drawLamps)"
echo

startInstallation
plugAndWait 0
step "The unit is attached, there is no alarms file, and the daemon starts."
startDaemon --ignore-sigpipe
seen 03

if [ -z "$shell" ]; then
    alarmStep "Another program writes $alarmsFile with ALARM1." "[front door]
ALARM1=open"
    seen 01

    alarmStep "It adds ALARM2, which takes precedence." "[front door]
ALARM1=open
[boiler]
ALARM2=too hot"
    seen 02

    alarmStep "Both alarms are over." "[front door]
[boiler]"
    seen 03

    step "pinwatchd-alarm check: does the unit show what the file raises?"
    told check

    step "pinwatchd-alarm test 1: each lamp is lit for a second."
    told test 1

    step "The daemon is told to stop (SIGTERM): it leaves the outputs undriven and ends."
    stopDaemon TERM
    seen floating
    expect daemonEndedWith 0
    await logged "close FTDI device"

    echo "All $steps steps were seen at the unit."
    exit 0
fi

mkdir -p "$dataDir"
cat <<EOF
Try, for example:
    pinwatchd-alarm raise door    write $alarmsFile
    pinwatchd-alarm clear door
    pinwatchd-alarm check         does the unit show it? pinwatchd-alarm test tests the lamps
    publishAlarm '[door]
    ALARM1=1'                the same, as a program of its own may do it
    sim unplug 0             take the unit off; sim plug 0 brings it back
    sim plug 0 blank         after an unplug: a module from the factory; ftdi_eeprom makes it a unit
    sim stall 0 0b           let the unit refuse writes; sim stall 0 none ends that
    stopDaemon               end the daemon; startDaemon starts it again
    showLog                  the system log without debug messages; all of it: cat $sysLog
    exit                     end the VM
Before each prompt stands what has happened at the unit meanwhile, so press Enter to see it.
tq5sim --help tells what the lines mean.
EOF
shift
[ $# -eq 0 ] || printf 'Added: %s\n' "$*"
unitNews >/dev/null
export daemonPid
# shellcheck disable=SC2016 # expanded at each prompt
export PS1='$(unitNews)
# '
