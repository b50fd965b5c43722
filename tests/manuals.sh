#!/bin/bash
# The manual pages are sound, and those of the daemon and the bridge explain what these log.
[ "${1:-}" != --help ] || exec echo "usage: tests/manuals.sh"
set -eu
cd "$(dirname "$(realpath "$0")")/.."
# That a page which they refer to is not installed is no fault.
mandoc -Tlint man/* 2>/dev/null | grep -v 'not found: Xr ' && exit 1
# explains PAGE SOURCE...: the messages of these, and no others.
explains() {
    diff <(cat "${@:2}" | grep -zoP '(log(Error|Warning|Info|Debug\d)|\bdebug)\(\s*(tr\(\s*)?"\K[^"]*' |
        sed -z 's/\\n$//' | tr '\0' '\n' | sort -u) \
        <(sed -n "s/\\\\(aq/'/g; s/^\\.It Sy //p" "man/$1" | sort -u)
}
explains pinwatchd.8 src/{,libftdi0/}*.cpp common/*.cpp
explains pinwatchd-mqtt.8 mqtt/*.cpp
