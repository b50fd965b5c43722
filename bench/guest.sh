# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# In the VM: the daemon's memory beside earlyoom's, and the time from an alarms file's rename to
# the pins in hundredths of a second.

tries=100

startInstallation
writeSettings ""
plugAndWait 0
startDaemon
expectPins 0 03
earlyoom --dryrun -r 0 >/dev/null 2>&1 &
waitFor 5 test -r "/proc/$!/smaps_rollup"

try=0
mtime=$(date +%s)
mkdir -p "$dataDir"
while [ "$try" -lt "$tries" ]; do
    try=$((try + 1))
    alarm=$((try % 2 + 1))
    echo "ALARM$alarm=" >"$alarmsFile.new"
    touch -d "@$((mtime + try))" "$alarmsFile.new"
    # Every try begins at another moment of the daemon's cycle.
    usleep $((try * 617 % 1000 * 1000))
    uptimeCs
    began=$uptime
    mv "$alarmsFile.new" "$alarmsFile"
    expectPins 0 "0$alarm"
    uptimeCs
    echo "delay $((uptime - began))"
done
sed "s/^/pinwatchd /" "/proc/$daemonPid/smaps_rollup"
sed "s/^/earlyoom /" "/proc/$!/smaps_rollup"
