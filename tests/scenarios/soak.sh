# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# A random course of faults for as long as asked; tests/soak runs it. Arguments: SECONDS SEED
#
# It goes in rounds: each fault once alone, where it is known what the daemon must do meanwhile,
# then one to three faults at a time. Each round ends with the faults mended, two alarms that
# must reach the pins, and a calm moment.

duration=$1 seed=$2 firstSeed=$2
kinds='unplug replug quickReplug change flood refuse stallOpening rewrite garbage truncate delete
noFile lock settings stranger'
limit=60            # seconds for what takes one or two on a machine that has the time
memoryAllowance=256 # kB of growth: room for a heap that is cut up in another way
events=/tmp/soak.events

# ---- The course ----

# random N: sets `r`, 0 to N - 1.
random() {
    seed=$(((seed * 1103515245 + 12345) & 0x7fffffff))
    r=$(((seed >> 8) % $1))
}

# oneOf TEXT...: sets `choice`.
oneOf() {
    random $#
    shift "$r"
    choice=$1
}

# upTo N COMMAND...: runs the command 1 to N times.
upTo() {
    random "$1"
    local left=$((r + 1))
    shift
    while [ "$left" -gt 0 ]; do
        "$@"
        left=$((left - 1))
    done
}

# pause MS: waits for a random time below MS.
pause() {
    random "$1"
    usleep $((r * 1000))
}

event() {
    uptimeCs
    printf '%d.%02d %s\n' $((uptime / 100)) $((uptime % 100)) "$*" >>"$events"
}

await() {
    waitFor "$limit" "$@"
}

# alone COMMAND...: the command, if no other fault has a part in this round.
alone() {
    [ "$faultsInRound" -gt 1 ] || "$@"
}

# ---- Files ----

# stampFile FILE: gives it a time that no file had before: the daemon goes by times alone.
stampFile() {
    local now
    now=$(date +%s)
    stamp=$((stamp + 1))
    [ "$stamp" -gt "$now" ] || stamp=$now
    touch -d "@$stamp" "$1"
}

# putFile FILE TEXT: by a rename or in place. The text may hold \n.
putFile() {
    [ -f "$1" ] || rm -rf "$1"
    oneOf '' .new
    printf '%b\n' "$2" >"$1$choice"
    stampFile "$1$choice"
    [ -z "$choice" ] || mv "$1$choice" "$1"
}

# putAlarm MASK: 0 none, 1 ALARM1, 2 ALARM2.
putAlarm() {
    mask=$1
    case $mask in
    0) oneOf '' '[door]' '# ALARM1=1\n[door]\nstate=ALARM1' ;;
    1) oneOf 'ALARM1=' '[door]\n alarm1 = open' '[a]\nb=1\n[door]\nALARM1="1"\nALARM1=0' ;;
    2) oneOf '[boiler]\nALARM2=1' '[a]\nALARM2=1\n[b]\nALARM1=1' 'alarm1=x\nalarm2=y' ;;
    esac
    event "alarm $mask"
    putFile "$alarmsFile" "$choice"
}

# publish: another alarm than before.
publish() {
    random 2
    putAlarm $(((mask + 1 + r) % 3))
}

shown() {
    case $mask in
    0) pinsAre 0 03 ;;
    1) pinsAre 0 01 ;;
    2) pinsAre 0 02 ;;
    esac
}

# show: a new alarm must reach the pins.
show() {
    publish
    await shown
    alarmsShown=$((alarmsShown + 1))
}

# lock FILE: until the round's end, and one file at a time.
lock() {
    [ -z "$locked" ] && [ -f "$1" ] || return 0
    event "lock $1"
    exec 9<>"$1"
    flock 9
    locked=$1
}

unlock() {
    [ -n "$locked" ] || return 0
    event unlock
    flock -u 9
    exec 9>&-
    locked=
}

# ---- The unit ----

unplug() {
    [ -n "$plugged" ] || return 0
    event unplug
    sim unplug 0
    plugged=
}

# plug [REQUEST]: REQUEST is stalled before the kernel can look at the unit.
plug() {
    [ -z "$plugged" ] || return 0
    event "plug, stalled request: ${1:-none}"
    echo 'plug 0' >&8
    sim stall 0 "${1:-none}"
    plugged=1
}

replug() {
    unplug
    pause "$1"
    plug
    usleep 100000
    pause "$1"
}

# obey: ends all refusals of the plugged unit.
obey() {
    sim stall 0 none
    sim pins 0 auto
}

change() {
    event "change to the unit's uevent file"
    echo change 2>/dev/null >"$(sysfsOf 0)/uevent"
    pause 500
}

# flood N: makes the kernel broadcast N events of other devices.
flood() {
    local left=$1 file
    while :; do
        for file in /sys/class/tty/*/uevent /sys/bus/usb/devices/usb*/uevent; do
            echo change >"$file"
            left=$((left - 1))
            [ "$left" -gt 0 ] || return 0
        done
    done
}

# ---- Faults ----

# inject KIND
inject() {
    event "fault $1"
    eval "count_$1=\$((count_$1 + 1))"
    faults=$((faults + 1))
    case $1 in
    unplug)
        unplug
        alone await logged 'close FTDI device'
        ;;
    replug) replug 2000 ;;
    quickReplug) upTo 4 replug 600 ;;
    change)
        upTo 3 change
        alone await logged 'close FTDI device'
        alone await shown
        ;;
    flood) # by chance in the background, so that what comes next happens during it
        random 1500
        flood $((r + 50)) 8>&- 9>&- &
        floods="$floods $!"
        oneOf : "wait $!" && $choice
        ;;
    refuse) # A value that could not be read back stands at the pins all the same. When the alarm
        # goes back to the last one written, the daemon has nothing to write: so it does not here.
        local written=$mask
        plug
        oneOf 'stall 0 0b:ftdi_set_bitmode failed' 'stall 0 0c:ftdi_read_pins failed' \
            'pins 0 00:set FTDI device pins failed'
        event "$choice"
        # shellcheck disable=SC2086 # words of a command
        sim ${choice%:*}
        local message=${choice#*:}
        publish
        alone await logged "$message"
        [ "$faultsInRound" -eq 1 ] || needsReplug=1
        alone obey
        alone await shown
        alone putAlarm $((3 - written - mask))
        alone await shown
        ;;
    stallOpening) # a failed opening is not repeated, so only the next plug mends this
        unplug
        oneOf '00:unable to open' '03:unable to open' '90:ftdi_read_eeprom failed'
        plug "${choice%:*}"
        needsReplug=1
        alone await logged "${choice#*:}"
        alone expect pinsAre 0 floating
        ;;
    rewrite)
        upTo 8 publish
        alone await shown
        ;;
    garbage) # many lines and NULs, one long line, no last line feed
        for filter in 'head -c 3000' 'tr \n\0 xy' cat; do
            event "$filter"
            rm -rf "$alarmsFile"
            $filter </opt/orvel/bin/pinwatchd >"$alarmsFile"
            stampFile "$alarmsFile"
            pause 2500
        done
        ;;
    truncate)
        rm -rf "$alarmsFile"
        : >"$alarmsFile"
        stampFile "$alarmsFile"
        mask=0
        alone await shown
        ;;
    delete) # the pins keep their state, but a new connection begins without an alarm
        rm -rf "$alarmsFile"
        [ "$faultsInRound" -eq 1 ] && [ "$level" -eq 3 ] || return 0
        await logged 'wait for vid=0000' $(($(timesLogged 'wait for vid=0000') + 3))
        expect shown
        replug 500
        mask=0
        await shown
        ;;
    noFile)
        oneOf mkdir 'mkdir -p' 'ln -s alarms'
        event "$choice"
        rm -rf "$alarmsFile"
        $choice "$alarmsFile"
        pause 3000
        alone expect shown
        ;;
    lock) # a writer that empties the file and fills it before the daemon may read it
        lock "$alarmsFile"
        [ "$locked" = "$alarmsFile" ] || return 0
        : >"$alarmsFile"
        stampFile "$alarmsFile"
        pause 4000
        alone expect shown
        # In place: a rename would leave the lock with the old file.
        mask=$(((mask + 1) % 3))
        printf '[a]\nALARM%d=1\n' "$mask" >"$alarmsFile"
        stampFile "$alarmsFile"
        alone unlock
        alone await shown
        ;;
    settings)
        settingsBroken=1
        oneOf missing folder locked overlay '1 ' 0 1 2 7 -1 0x2 high
        event "$choice"
        case $choice in
        missing) rm -rf "$settingsFile" ;;
        folder) rm -rf "$settingsFile" && mkdir "$settingsFile" ;;
        locked) lock "$settingsFile" && stampFile "$settingsFile" ;;
        overlay) putFile "$overlayFile" '[CU/Params/3]\nlogdebug=2' ;;
        *) putFile "$settingsFile" "LogDebug=3\n[cu/params/3]\nLogDebug=\"$choice\"" ;;
        esac
        ;;
    stranger) # an FTDI device that is none of the daemon's comes or goes
        if [ -n "$stranger" ]; then
            sim unplug 1
            stranger=
        else
            oneOf product=Other bcd=0400 eeprom=003a
            sim plug 1 "$choice"
            stranger=$choice
        fi
        ;;
    esac
    pause 2000
}

mend() {
    event mend
    unlock
    # shellcheck disable=SC2086 # a list
    [ -z "$floods" ] || wait $floods
    floods=
    [ -f "$alarmsFile" ] || rm -rf "$alarmsFile"
    if [ -n "$settingsBroken" ]; then
        oneOf 0 1 2 3 3
        level=$choice
        settingsBroken=
        rm -f "$overlayFile"
        putFile "$settingsFile" "[cu/params/3]\nLogDebug=$level"
    fi
    [ -z "$needsReplug" ] || unplug
    needsReplug=
    [ -z "$plugged" ] || obey
    plug
}

# ---- Rounds ----

# calm: a daemon with nothing to do leaves the unit alone, keeps its size, and does not repeat
# itself. Once a second is the pace of its loop.
calm() {
    local seconds last worst
    # For what is still on its way: events in the daemon's socket, messages to the log.
    sleep 1
    last=$(grep ' unit 0: ' "$simLog" | tail -n 1)
    echo "$last" >"$simLog"
    : >"$sysLog"
    random 3
    seconds=$((r + 2))
    sleep "$seconds"

    expect daemonRuns
    expect shown
    [ "$(cat "$simLog")" = "$last" ] || fail "something happened at the unit"
    worst=$(sed 's/^.\{16\}//; s/\[[0-9]*\]//' "$sysLog" | sort | uniq -c | sort -rn | head -n 1)
    # shellcheck disable=SC2086 # count and message
    [ "$(set -- ${worst:-0} && echo "$1")" -le $((2 * seconds + 10)) ] ||
        fail "repeated in $seconds seconds: $worst"
    if [ "$level" -eq 3 ]; then
        await logged 'wait for vid='
    else
        expect notLogged 'wait for vid='
    fi
    measure
    [ -n "$startRss" ] || return 0
    expect [ "$rss" -le $((startRss + memoryAllowance)) ]
    expect [ "$private" -le $((startPrivate + memoryAllowance)) ]
    expect [ "$fds" -le $((startFds + 1)) ]
}

# measure: sets `rss` and `private` (kB) and `fds`.
measure() {
    # shellcheck disable=SC2046 # two numbers
    set -- $(awk '/^Rss/ { r = $2 } /^Private/ { p += $2 } END { print r, p }' \
        "/proc/$daemonPid/smaps_rollup") "/proc/$daemonPid/fd"/*
    rss=$1 private=$2 fds=$(($# - 2))
}

round() {
    event "round of:$*"
    faultsInRound=$#
    rounds=$((rounds + 1))
    for kind; do
        inject "$kind"
    done
    mend
    show
    show
    calm
    tail -n 60 "$events" >"$events.new"
    mv "$events.new" "$events"
}

addKind() {
    # shellcheck disable=SC2086 # a list
    oneOf $kinds
    chosen="$chosen $choice"
}

timeIsLeft() {
    uptimeCs
    elapsed=$(((uptime - began) / 100))
    [ "$elapsed" -lt "$duration" ]
}

progress() {
    echo "$elapsed s: $rounds rounds, $faults faults, $alarmsShown alarms shown, RSS $rss kB," \
        "private $private kB, $fds descriptors"
}

course() {
    local nextProgress=60
    freshState
    plug
    mkdir -p "$dataDir" "${overlayFile%/*}"
    startDaemon --ignore-sigpipe
    show
    for kind in $kinds; do
        ! timeIsLeft || round "$kind"
    done
    # Growth counts from here: the heap has seen all there is.
    startRss=$rss startPrivate=$private startFds=$fds
    while timeIsLeft; do
        chosen=
        upTo 3 addKind
        # shellcheck disable=SC2086 # a list
        round $chosen
        if [ "$elapsed" -ge "$nextProgress" ]; then
            progress
            nextProgress=$((elapsed + 60))
        fi
    done
    stopDaemon TERM "$limit"
    expect daemonEndedWith 0
    await pinsAre 0 floating
    for kind in $kinds; do
        eval "printf '  %-14s %d\n' $kind \$count_$kind"
    done
    progress
    echo "after each fault once: RSS $startRss kB, private $startPrivate kB, $startFds descriptors"
}

faults=0 rounds=0 alarmsShown=0 mask=0 stamp=0 level=3
plugged='' startRss='' stranger='' locked='' floods='' needsReplug='' settingsBroken=''
for kind in $kinds; do
    eval "count_$kind=0"
done
uptimeCs
began=$uptime
if (course); then
    echo "soak passed, seed $firstSeed"
else
    echo "  --- last events"
    sed 's/^/  /' "$events"
    echo "soak FAILED, seed $firstSeed"
    exit 1
fi
