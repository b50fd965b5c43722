# shellcheck shell=dash
# What every other scenario relies on: a plugged unit gets its node and shows a written alarm.

unitGetsNode() {
    plugAndWait 0
    expect test -c "/dev/bus/usb/$(nodePathOf 0)"
    sim unplug 0
    waitFor 5 noUnits
}

alarmReachesPins() {
    publishAlarm "[door]
ALARM1=1"
    plugAndWait 0
    startDaemon
    expectPins 0 01
    expectLog "opened FTDI device"
    stopDaemon
    expect daemonEndedWith 141
}

runScenarios unitGetsNode alarmReachesPins
