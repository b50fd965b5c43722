# shellcheck shell=dash disable=SC2154 # variables of installation.sh
# Guest script of tools/vm/run: puts the package /pinwatchd.deb over the VM, which has no package
# system of its own, starts it by its sysvinit script, and publishes an alarm.
#   tools/vm/run --add build/packages/pinwatchd_1.1.0-1_i386.deb:/pinwatchd.deb tests/packages/vm-try.sh

service=/etc/init.d/pinwatchd
publish=/usr/share/doc/pinwatchd/examples/publish.sh

startInstallation
rm -rf /opt/orvel
expect dpkg-deb -x /pinwatchd.deb /
plugAndWait 0
expect $service start
expect $service status
expectPins 0 03
echo "ALARM1=open" | expect $publish /run/orvel/alarms
expectPins 0 01
expect $service restart
expectLog "opened FTDI device" 2
expectPins 0 01
expect $service stop
expectPins 0 floating
cat "$simLog"
