# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# The daemon beside a unit that works, fails, is of the wrong kind or leaves, and with alarms
# files that are none. The long line needs a VM of 768 MiB.

cycle='wait for vid=0000'
waiting='wait for vid=0403'

startServing() {
    mkdir -p "$dataDir"
    plugAndWait 0
    startDaemon
    expectPins 0 03
}

# awaitLines N TEXT: waits until the system log has N more lines with TEXT, and sees that they
# come about once a second at most.
awaitLines() {
    uptimeCs
    local began=$uptime lines
    lines=$(timesLogged "$2")
    waitFor 60 logged "$2" $((lines + $1))
    lines=$(($(timesLogged "$2") - lines))
    uptimeCs
    expect [ "$lines" -le $(((uptime - began) / 100 + 2)) ]
}

unplugIsNoticed() {
    node=$(nodePathOf 0)
    sim unplug 0
    expectLog "close FTDI device 'TQ-5 alarm unit' ($node)"
    expectLog "[$daemonPid]: $waiting"
}

alarmsReachThePins() {
    startServing
    while read -r pins text; do
        publishAlarm "$(printf '%b' "$text")"
        expectPins 0 "$pins"
    done <<'END'
01 [door]\nALARM1=1
02 [door]\nALARM1=1\n[roof]\nalarm2=0
01 alarm1=
03 [ALARM1]\nother=ALARM2
END
    awaitLines 2 "$cycle"
    # Each value once and none between.
    expect [ "$(sed -n 's/.*bit mode 20 mask //p' "$simLog" | tr '\n' ' ')" = "33 31 32 31 33 " ]
    unplugIsNoticed
}

failedWritesAreRepeated() {
    startServing
    while read -r pins readBack command argument normal message; do
        sim "$command" 0 "$argument"
        publishAlarm "ALARM${pins#0}="
        awaitLines 3 "$message"
        sim "$command" 0 "$normal"
        awaitLines 1 "current ftdi pins: 0x$readBack"
        expect pinsAre 0 "$pins"
        writes=$(timesLogged 'using bitmask')
        awaitLines 2 "$cycle"
        expect [ "$(timesLogged 'using bitmask')" -eq "$writes" ]
    done <<'END'
01 0d stall 0b none ftdi_set_bitmode failed(-1) for 0x31: 
02 0e stall 0c none ftdi_read_pins failed: 
01 0d pins 02 auto set FTDI device pins failed: expected=01, current=02
END
    sim stall 0 0b
    publishAlarm "ALARM2="
    awaitLines 2 'ftdi_set_bitmode failed('
    unplugIsNoticed
    sim plug 0
    expectPins 0 02
}

otherUnitsAreTurnedAway() {
    plugAndWait 0 bcd=0400
    plugAndWait 1 'product="serial cable"'
    startDaemon
    expectLog "$waiting"
    plugAndWait 2 eeprom=003a
    expectLog "FTDI device 'TQ-5 alarm unit': cbus functions (cbus0=10, cbus1=3) are not configured"
    expectLog "FTDI device: unexpected chip type (bcdDevice = '0400')"
    expectLog 'FTDI device is not compatible'
    expectLog "unknown FTDI device 'serial cable'"
    expect notLogged 'opened FTDI device'
    sim plug 3 'product="alarm unit tq-5 B"'
    expectPins 3 03
}

# stopsBySignals STATUS PINS LINE [OPTION]: each signal ends a daemon that has logged LINE with
# STATUS; PINS is what it leaves.
stopsBySignals() {
    for signal in INT TERM QUIT; do
        startDaemon "${4:-}"
        expectLog "[$daemonPid]: $3"
        stopDaemon "$signal"
        expect daemonEndedWith "$1"
        expect pinsAre 0 "$2"
        # An orderly end says so.
        expect [ "$(timesLogged "[$daemonPid]: close FTDI device")" -eq $(($1 == 0)) ]
    done
}

stopSignals() {
    stopsBySignals 141 '' "$waiting"
    stopsBySignals 0 '' "$waiting" --ignore-sigpipe
    plugAndWait 0
    stopsBySignals 141 03 "$cycle"
    stopsBySignals 0 floating "$cycle" --ignore-sigpipe
}

# isHarmless PINS: takes $alarmsFile.bad in the alarms file's place; PINS is what it shows.
isHarmless() {
    touch -d @1000000000 "$alarmsFile.bad"
    rm -f "$alarmsFile"
    mv "$alarmsFile.bad" "$alarmsFile"
    awaitLines 2 "$cycle"
    expectPins 0 "$1"
    rm -r "$alarmsFile"
    publishAlarm "ALARM2="
    expectPins 0 02
}

badAlarmsFilesDoNoHarm() {
    startServing
    printf '[a]\0\nALARM1\0=\0\n\0=\0[\0' >"$alarmsFile.bad"
    isHarmless 03
    head -c 1000000 /dev/zero | tr '\0' x >"$dataDir/piece"
    (printf 'ALARM1=' && for _ in $(seq 100); do cat "$dataDir/piece"; done) >"$alarmsFile.bad"
    isHarmless 01
    mkdir "$alarmsFile.bad"
    isHarmless 02

    # Locked by its writer.
    echo "ALARM1=" >"$alarmsFile.new"
    exec 9<"$alarmsFile.new"
    flock -x 9
    mv "$alarmsFile.new" "$alarmsFile"
    staysTrue 4 pinsAre 0 02
    flock -u 9
    expectPins 0 01
}

idleDaemonReadsNothing() {
    publishAlarm "ALARM1="
    touch -d @1000000000 "$alarmsFile" "$settingsFile"
    plugAndWait 0
    startDaemon
    expectPins 0 01
    for file in "$alarmsFile" "$settingsFile"; do
        echo "ALARM2=" >"$file.new"
        touch -d @1000000000 "$file.new"
        mv "$file.new" "$file"
    done
    awaitLines 5 "$cycle"
    expect pinsAre 0 01
    expect [ "$(stat -c %X "$alarmsFile" "$settingsFile" | tr '\n' ' ')" = '1000000000 1000000000 ' ]
}

runScenarios alarmsReachThePins failedWritesAreRepeated otherUnitsAreTurnedAway stopSignals \
    badAlarmsFilesDoNoHarm idleDaemonReadsNothing
