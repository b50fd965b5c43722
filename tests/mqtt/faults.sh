#!/bin/bash
# faults.sh BRIDGE COMMAND [TEXT]: faults for a running pinwatchd-mqtt, with the real broker, in
# namespaces of their own, with which everything ends. After each, the file must raise what the
# broker holds, and what others raised. With TEXT only the faults with this text.
set -eu
# For a build with sanitizers: what is freed is kept from being used again, but not for ever.
export ASAN_OPTIONS=quarantine_size_mb=1
if [ -z "${PINWATCHD_FAULTS:-}" ]; then
    command -v mosquitto >/dev/null || { echo "faults.sh: skipped, no mosquitto here" && exit 77; }
    new=(unshare --map-root-user --net --mount --pid --fork --kill-child --mount-proc)
    "${new[@]}" true || { echo "faults.sh: skipped, needs user namespaces" && exit 77; }
    work=$(mktemp -d)
    trap 'rm -rf "$work"' EXIT
    PINWATCHD_FAULTS=$work "${new[@]}" "$0" "$@"
    exit
fi

faults=$(
    cat <<'END'
publish a/door 'ALARM2 open' b/boiler alarm1
publish a/door '' a/gate $'ALARM1 line\n\tand more' 'ä/grüße.[1] x' 'ALARM2 "q"'
publish Case 'ALARM1 one' case 'ALARM2 two'
publish case ''
bridge KILL
bridge STOP
restartUnchanged
broker TERM
broker KILL
broker STOP
broker KILL rm store/mosquitto.db
network
file rm alarms
file "$command" --file alarms clear --all
locked
refused 'is not ALARM1, ALARM2 or empty' -r a/door "ALARM2$(printf '%0100000d' 1)"
refused 'ends in a blank or a bracket' -r 'a/b]' ALARM1
refused 'is not retained' --quiet a/event ALARM2
large 1
large 3
manyTopics
manyMessages
cannotConnect 'Not authorized' PasswordFile=wrong
cannotConnect 'Connection refused' Port=1
cannotConnect 'certificate verify failed' Port=8883 CaFile=other.crt
cannotConnect 'published below' User=reader PasswordFile=right
encrypted
END
)

program=$(realpath "$1")
command=$(realpath "$2")
only=${3:-}
cd "$PINWATCHD_FAULTS"
topic=pinwatchd/alarms
silence=5
limit=100

fail() {
    echo "faults.sh: $*" >&2
    tail -n 15 log broker.log alarms difference >&2
    exit 1
}

# await COMMAND...: until it succeeds, for as long as a busy machine may need.
await() {
    local end=$((SECONDS + 120))
    until "$@"; do
        [ $SECONDS -lt $end ] || fail "awaited in vain: $*"
        sleep 0.1
    done
}

client() {
    "mosquitto_$1" -h 127.0.0.1 -u admin -P right "${@:2}"
}

# publish NAME PAYLOAD [NAME PAYLOAD]...
publish() {
    while [ $# -gt 0 ]; do
        client pub -q 1 -r -t "$topic/$1" -m "$2"
        shift 2
    done
}

startBroker() {
    mosquitto -c broker.conf >>broker.log 2>&1 &
    broker=$!
    await client pub -t started -n 2>/dev/null
}

# startBridge [SETTING]...: of the broker's section. A terminal sees what goes to the system log.
startBridge() {
    printf '%s\n' '[alarms]' "File=$PWD/alarms" "Limit=$limit" '[status]' Name=lamp \
        '[broker]' Host=10.0.0.1 "Silence=$silence" User=bridge PasswordFile=right "$@" >conf
    # shellcheck disable=SC2016 # for the inner shell
    python3 -c 'import pty, sys; pty.spawn(sys.argv[1:])' \
        sh -c 'echo $$ >pid && exec "$0" --config conf' "$program" </dev/null >>log 2>&1 &
    await test -s pid
    bridge=$(cat pid)
    rm pid
}

# restartBridge [SETTING]...
restartBridge() {
    signal TERM "$bridge"
    startBridge "$@"
}

# signal NAME PID
signal() {
    kill "-$1" "$2"
    [ "$1" = STOP ] || await ended "$2"
}

ended() {
    ! kill -0 "$1" 2>/dev/null
}

# timesLogged TEXT: by this fault.
timesLogged() {
    tail -n +"$((seen + 1))" log | grep -cF -e "$1"
}

logged() {
    [ "$(timesLogged "$1")" -gt 0 ]
}

# What the broker holds, and what the file raises, as sorted lines "[section] alarm1".
held() {
    client sub -t "$topic/#" -F '%t %p' --retained-only -W 1 2>/dev/null |
        sed -nE "s,^$topic/(.+) (ALARM[12]|alarm1)( .*|$),[mqtt/\1] \2,p" | tr '[:upper:]' '[:lower:]' | sort -u
}

raised() {
    "$command" --file alarms show | awk '/^\[/ { name = $0 } /^    / { print name, $1 }' |
        tr '[:upper:]' '[:lower:]' | sort -u
}

shows() {
    raised | diff expected - >difference
}

isRaised() {
    raised | grep -qFx -e "$1"
}

isSilent() {
    isRaised '[mqtt] alarm1'
}

# statusIs TOPIC PAYLOAD
statusIs() {
    [ "$(client sub -t "pinwatchd/status/lamp/$1" -C 1)" = "$2" ]
}

# ---- Faults ----

bridge() {
    signal "$1" "$bridge"
    [ "$1" != STOP ] || sleep $((silence * 3))
    publish a/door '' b/new 'ALARM1 meanwhile'
    if [ "$1" = STOP ]; then kill -CONT "$bridge"; else startBridge; fi
}

# restartUnchanged: nothing is cleared before all is known.
restartUnchanged() {
    local before
    publish a/door ALARM1
    await isRaised '[mqtt/a/door] alarm1'
    before=$(stat -c '%i %Y' alarms)
    restartBridge
    await statusIs bridge online
    [ "$(stat -c '%i %Y' alarms)" = "$before" ] || fail "was written without need"
}

# broker SIGNAL [COMMAND...]: which runs while it is away.
broker() {
    publish a/door '' a/gate ALARM1
    touch store/mark
    await test store/mosquitto.db -nt store/mark
    signal "$1" "$broker"
    await isSilent
    "${@:2}"
    if [ "$1" = STOP ]; then kill -CONT "$broker"; else startBroker; fi
    publish b/new 'ALARM2 after'
}

network() {
    publish a/door ALARM1
    ip address del 10.0.0.1/32 dev lo
    await isSilent
    publish a/door '' a/gate ALARM2
    ip address add 10.0.0.1/32 dev lo
}

file() {
    publish a/door ALARM1
    await isRaised '[mqtt/a/door] alarm1'
    "$@"
    "$command" --file alarms raise local
}

locked() {
    publish a/door ALARM1
    exec 4<.
    flock 4
    publish a/door '' a/gate ALARM2
    await logged 'cannot update the alarms file'
    exec 4<&-
}

# refused REASON OPTION NAME PAYLOAD: says so, and goes on.
refused() {
    publish a/door 'ALARM1 before'
    client pub -q 1 "$2" -t "$topic/$3" -m "$4"
    publish a/gate 'ALARM2 behind'
    await logged "$1"
    publish "$3" ''
}

# large MEGABYTES: beyond 2 the broker keeps it to itself.
large() {
    head -c "${1}000000" /dev/zero | client pub -r -t "$topic/large" -s
    publish a/gate 'ALARM1 behind'
    [ "$1" -gt 2 ] || await logged "large', '': the payload"
}

memory() {
    sed -n 's/^VmHWM:\s*\([0-9]*\) kB/\1/p' "/proc/$bridge/status"
}

isAtLimit() {
    [ "$(raised | grep -c '\[mqtt/')" -eq $limit ] && isRaised "[mqtt] $1"
}

manyTopics() {
    local before
    before=$(memory)
    /usr/bin/python3 - "$topic" <<'END'
import sys, paho.mqtt.publish
paho.mqtt.publish.multiple([(f"{sys.argv[1]}/many/{n}", f"ALARM1 {n}", 0, True) for n in range(10000)],
                           auth={"username": "admin", "password": "right"})
END
    publish zz/last 'ALARM2 beyond the limit'
    await isAtLimit alarm2
    signal KILL "$bridge"
    rm alarms
    startBridge
    await isAtLimit alarm2
    "$command" --file alarms raise local
    publish zz/last ''
    await isAtLimit alarm1
    signal KILL "$broker"
    rm store/mosquitto.db
    startBroker
    [ $(($(memory) - before)) -lt 16384 ] || fail "from $before to $(memory) kB"
}

manyMessages() {
    for number in {1..5000}; do echo "ALARM$((number % 2 + 1)) $number"; done |
        client pub -q 1 -r -t "$topic/busy" -l
}

# cannotConnect REASON SETTING...: an alarm of its own says so, one line of the log why, and it waits.
cannotConnect() {
    restartBridge "${@:2}"
    await isSilent
    await logged "$1"
    [ "$(timesLogged "$1")" -eq 1 ] || fail "is told more than once: $1"
    # In hundredths of a second, of the seconds of silence.
    [ "$(awk '{ print $14 + $15 }' "/proc/$bridge/stat")" -lt 100 ] || fail "does not wait"
    restartBridge
}

encrypted() {
    restartBridge Port=8883 CaFile=own.crt
    publish a/encrypted ALARM1
    await isRaised '[mqtt/a/encrypted] alarm1'
    signal TERM "$broker"
    startBroker
    publish a/encrypted ''
}

# ---- The course ----

ip link set lo up
ip address add 10.0.0.1/32 dev lo
mkdir store
for name in own other; do
    openssl req -x509 -newkey rsa:2048 -nodes -keyout $name.key -out $name.crt -days 2 \
        -subj /CN=pinwatchd -addext subjectAltName=IP:10.0.0.1 2>/dev/null
done
echo right >right
echo wrong >wrong
printf '%s:right\n' admin bridge reader >passwords
mosquitto_passwd -U passwords
printf '%s\n' 'user admin' 'topic readwrite #' 'user bridge' "topic read $topic/#" \
    'topic readwrite pinwatchd/status/lamp/#' 'user reader' 'topic read #' >rights
cat >broker.conf <<END
user root
password_file passwords
acl_file rights
persistence true
persistence_location $PWD/store/
autosave_interval 1
listener 1883
listener 8883
certfile own.crt
keyfile own.key
END
touch log
startBroker
startBridge
"$command" --file alarms raise local
while read -r line <&3; do
    [[ $line == *"$only"* ]] || continue
    began=$SECONDS
    seen=$(wc -l <log)
    eval "$line"
    { echo '[local] alarm1' && held; } | sort >expected
    await shows
    echo "ok $line, $((SECONDS - began)) s, $(wc -l <expected) alarms"
done 3<<<"$faults"
[ -z "$only" ] || exit 0
signal TERM "$bridge"
statusIs bridge offline || fail "is not offline"
statusIs alarm ALARM1 || fail "tells another alarm"
"$program" --config conf --clear
[ "$(raised)" = '[local] alarm1' ] || fail "did not clear its own alone"
