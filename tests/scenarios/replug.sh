# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# Every way in which a unit comes and goes, heard or not: the alarm must reach its pins each time.

pins=3 # no alarm

changeAlarm() {
    pins=$((pins % 2 + 1))
    publishAlarm "ALARM$pins="
}

isServed() {
    expectPins 0 "0$pins" 20
    changeAlarm
    expectPins 0 "0$pins" 20
}

startServing() {
    plugAndWait 0
    startDaemon
    isServed
}

takeOff() {
    sim unplug 0
    waitFor 10 noUnits
}

replug() {
    sim unplug 0
    plugAndWait 0
}

# flood ROUNDS: about 70 events a round; the daemon's socket holds less than ten.
flood() {
    for file in $(yes '/sys/class/tty/*/uevent' | head -n "$1"); do
        echo change >"$file"
    done
}

# unheard COMMAND...: the events that the command causes are lost to the daemon.
unheard() {
    kill -STOP "$daemonPid"
    flood 1
    "$@"
    kill -CONT "$daemonPid"
}

isReplugged20Times() {
    startServing
    for _ in $(seq 20); do
        sim unplug 0
        changeAlarm
        sim plug 0
        expectPins 0 "0$pins" 20
    done
    isServed
}

arrivesWhileTheDaemonStarts() {
    for delay in $(seq 40 40 480); do
        sim plug 0
        usleep $((delay * 1000))
        startDaemon
        isServed
        stopDaemon
        takeOff
    done
}

arrivesAtOnceOrOnTheSecondTry() {
    startDaemon
    expectLog "wait device inserted"
    sim plug 0
    isServed
    for delay in $(seq 100 100 700); do
        takeOff
        sim plug 0
        usleep $((delay * 1000))
        sim unplug 0
        usleep 150000
        sim plug 0
        isServed
    done
}

sendsOtherEvents() {
    startServing
    for action in change bind unbind; do
        echo "$action" >"$(sysfsOf 0)/uevent"
        expectLog "is still attached after '$action'"
        isServed
    done
}

leavesAndArrivesUnheard() {
    startServing
    for _ in 1 2 3; do
        flood 10 8>&- &
        takeOff
        wait $!
        flood 10 8>&- &
        sim plug 0
        isServed
        wait $!
    done
    unheard replug
    isServed
    known=$(timesLogged 'is gone: unit removed')
    unheard takeOff
    expectLog 'is gone: unit removed' $((known + 1))
    sim plug 0
    isServed
    takeOff
    unheard plugAndWait 0
    isServed
}

isReplacedWhileWritesFail() {
    startServing
    for way in '' unheard; do
        sim stall 0 0b
        failures=$(timesLogged 'ftdi_set_bitmode failed')
        changeAlarm
        expectLog 'ftdi_set_bitmode failed' $((failures + 2))
        $way replug
        isServed
    done
}

runScenarios isReplugged20Times arrivesWhileTheDaemonStarts arrivesAtOnceOrOnTheSecondTry \
    sendsOtherEvents leavesAndArrivesUnheard isReplacedWhileWritesFail
