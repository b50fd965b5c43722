#!/bin/bash
# The manual pages are sound, and pinwatchd(8) explains the messages that the daemon logs, no others.
set -eu
cd "$(dirname "$(realpath "$0")")/.."
# That the pages refer to each other is no fault where they are not installed.
mandoc -Tlint man/* 2>/dev/null | grep -vE 'not found: Xr (pinwatchd|pinwatchd-alarms|orvel.conf) ' && exit 1
diff <(cat src/*.cpp common/*.cpp | grep -zoP '(log(Error|Warning|Info|Debug\d)|\bdebug)\(\s*(tr\(\s*)?"\K[^"]*' |
    sed -z 's/\\n$//' | tr '\0' '\n' | sort -u) \
    <(sed -n "s/\\\\(aq/'/g; s/^\\.It Sy //p" man/pinwatchd.8 | sort -u)
