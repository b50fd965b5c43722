#!/bin/sh
# publish.sh FILE: replaces the alarms file FILE by standard input. A reader sees the old text or
# the new one, never a part, and always another time.
#   printf '[door]\nALARM1=open\n' | ./publish.sh /run/orvel/alarms
set -eu

[ "${1:-}" != --help ] || set --
file=${1:?usage: publish.sh FILE}
text=$(cat)

# One publisher at a time, by a lock on the directory, which no rename takes away; and each to its
# end, which is near.
exec 9<"$(dirname "$file")"
flock 9
trap '' HUP INT TERM

# In the same directory, for a file only moves whole within one file system.
new=$(mktemp "$file.XXXXXX")
trap 'rm -f "$new"' EXIT
printf '%s\n' "$text" >"$new"

# Versions are told apart by their times in whole seconds. Counting up from the version before
# never comes back to a time that was used already.
previous=$(stat -c %Y "$file" 2>/dev/null || echo 0)
time=$(date +%s)
[ "$time" -gt "$previous" ] || time=$((previous + 1))
touch -d "@$time" "$new"

# -T: not into a directory, should one or a link to one be in the file's place.
mv -fT "$new" "$file"
