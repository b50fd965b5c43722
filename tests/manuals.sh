#!/bin/bash
# The manual pages are sound, and pinwatchd(8) explains the messages that the daemon logs, no others.
[ "${1:-}" != --help ] || exec echo "usage: tests/manuals.sh"
set -eu
cd "$(dirname "$(realpath "$0")")/.."
# That a page which they refer to is not installed is no fault.
mandoc -Tlint man/* 2>/dev/null | grep -v 'not found: Xr ' && exit 1
diff <(cat src/{,libftdi0/}*.cpp common/*.cpp | grep -zoP '(log(Error|Warning|Info|Debug\d)|\bdebug)\(\s*(tr\(\s*)?"\K[^"]*' |
    sed -z 's/\\n$//' | tr '\0' '\n' | sort -u) \
    <(sed -n "s/\\\\(aq/'/g; s/^\\.It Sy //p" man/pinwatchd.8 | sort -u)
