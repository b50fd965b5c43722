#!/bin/bash
# command.sh PROGRAM: pinwatchd-alarm as users call it, what it leaves of the file, and who else
# may be at the file meanwhile.
set -eu
program=$(realpath "$1")
PATH=$(dirname "$program"):$PATH
# shellcheck source=command/pinwatchd-alarm.bash
. "$(dirname "$0")/../command/pinwatchd-alarm.bash"
folder=$(mktemp -d)
trap 'chmod -R u+rwx "$folder"; rm -rf "$folder"' EXIT
chmod 755 "$folder"
cd "$folder"
as=() file=alarms

fail() {
    echo "command.sh: $*" >&2
    exit 1
}

expect() {
    "$@" || fail "not true: $*"
}

alarm() {
    "${as[@]}" "$program" --file "$file" "$@"
}

# gives STATUS OUTPUT ARGUMENT...: the status, and all that is printed, as patterns.
# shellcheck disable=SC2053 # they are patterns
gives() {
    local status=0 output expected=$1 text=$2
    shift 2
    output=$(alarm "$@" 2>&1) || status=$?
    [[ $status = $expected ]] || fail "$*: status $status, not $expected: $output"
    [[ $output = $text ]] || fail "$*: printed '$output', not '$text'"
}

# holds TEXT: so does the file, as a version of its own if it is another text than before.
version=0 before=none
holds() {
    expect test -z "$(find . -type f -name '*.pinwatchd-*')"
    expect test "$(cat alarms && echo .)" = "${1:+$1$'\n'}."
    set -- "$1" "$(stat -c %Y alarms)"
    if [ "$1" = "$before" ]; then expect test "$2" -eq "$version"; else expect test "$2" -gt "$version"; fi
    before=$1 version=$2
}

gives 0 'CBUS0 high  CBUS1 high  no alarm*does not exist*' show
gives 0 '' clear backup
holds ''
echo left >alarms.pinwatchd-1 # by one that was killed
gives 0 '' raise backup alarm1 exit 23
holds $'[backup]\nALARM1 = exit 23'
gives 0 '' raise BACKUP
gives 0 '' raise backup ALARM1 'exit 23' --wait
holds "$before"
gives 1 $'[[]backup]\n    ALARM1 exit 23\nCBUS0 high  CBUS1 low  ALARM1\n*last changed 2*' show
gives 0 '' raise 'h:d 2' ALARM2 $'too \t hot\xc2\x9b'
gives 0 '' raise 'h:d 2' 2 hot
gives 0 '' raise -- -.mount alarm-2 --help
holds $'[backup]\nALARM1 = exit 23\n[h:d 2]\nALARM2 = too \t hot\xc2\x9b\nALARM1 = 2 hot\n[-.mount]\nALARM1 = alarm-2 --help'
gives 2 $'*ALARM2 too ? hot[?]\nCBUS0 low  CBUS1 high  ALARM2*' show
for typed in '' --w '--file alarms clear h:' 'raise --file alarms back\ up a'; do
    COMP_LINE="pinwatchd-alarm $typed" COMP_POINT=${#COMP_LINE}
    _pinwatchd_alarm
done
expect test "${COMPREPLY[*]}" = 'raise clear show check test --wait d\ 2 ALARM1 ALARM2'
gives 0 '' clear 'h:d 2' ALARM1
gives 0 '' clear backup
holds $'[h:d 2]\nALARM2 = too \t hot\xc2\x9b\n[-.mount]\nALARM1 = alarm-2 --help'
gives 0 '' clear --all
holds ''
for arguments in '' 'lower x' raise clear 'clear a ALARM3' 'clear a ALARM1 x' 'clear --all a' 'show a' \
    'show --wait' 'show --timeout 9' 'raise --all a' 'raise a -1' 'clear -.mount' 'raise a ALARM3 hot' \
    'raise a ALARM2: hot' 'raise a alarm-2' 'raise a 1' 'raise a 2' 'check --timeout 0' 'check --no-wait' 'test 0' \
    'test 1 2' 'test --quiet'; do
    # shellcheck disable=SC2086 # several arguments
    gives 64 'pinwatchd-alarm: *' $arguments
done
gives 64 '*needs a section*' raise ''
gives 65 'pinwatchd-alarm: the section *' raise 'a]'
gives 65 'pinwatchd-alarm: the text *' raise a $'b\nc'
gives '[23]' '* - *' check --timeout 30 # no daemon, or not root
[ "$(id -u)" -eq 0 ] || gives 3 'UNKNOWN - only root *' test
holds ''
expect test "$(alarm show 2>&1 >/dev/full)" = "pinwatchd-alarm: standard output: No space left on device"

ln -s alarms link
mkfifo fifo
mkdir closed alarms.pinwatchd-2
echo x >twice
ln twice twin
for other in "$PWD" fifo link twice none/alarms ''; do gives 66 'pinwatchd-alarm: *' raise a --file "$other"; done
gives 66 'pinwatchd-alarm: *' show --file ''
expect test "$(cat twin)" = x
truncate -s 1048570 large
gives 74 'pinwatchd-alarm: large: File too large' raise a --file large
printf 'a=1\n\0\0ALARM1=\0\n' >alarms
before=none version=0
gives 0 '*NUL bytes*' raise b
holds $'a=1\n  ALARM1= \n[b]\nALARM1 = '
for _ in {1..60000}; do printf 'ALARM1=\n;\n'; done >alarms
timeout 20 "$program" --file alarms clear --all || fail "takes the square of the file"
expect test "$(sort -u alarms)" = ';'
times=$(for _ in 1 2 3 4 5; do rm alarms && alarm raise a && stat -c %Y alarms; done)
expect test "$(sort -u <<<"$times" | wc -l)" -eq 5

touch -d '+300 days' alarms # by a clock that was set back
before=none version=$(stat -c %Y alarms)
said=$(flock alarms timeout -s ALRM 1 "$program" --file alarms raise b 2>&1) || true
expect test "$said" = 'pinwatchd-alarm: alarms: not done within 60 seconds, is it locked?'
flock -s alarms "$program" --file alarms raise a ALARM1 again
holds $'[a]\nALARM1 = again'
# meets STATUS OUTPUT FUNCTION: where a call goes to this function, in C, instead.
meets() {
    cc -w -shared -D_GNU_SOURCE -include errno.h -include stdio.h -x c -o call.so - <<<"long $3"
    ASAN_OPTIONS=verify_asan_link_order=0 LD_PRELOAD=./call.so gives "$1" "$2" raise b
}
meets 74 '*: No locks available' 'flock() { errno = ENOLCK; return -1; }'
meets 73 'pinwatchd-alarm: alarms: No space left on device' 'write() { return 0; }'
(ulimit -f 0 && gives 74 'pinwatchd-alarm: alarms: File too large' raise b)
holds "$before"
echo x=1 >other # by a publisher who takes no lock
meets 0 '' 'fsync() { rename("other", "alarms"); return 0; }'
expect test "$(cat alarms)" = $'x=1\n[b]\nALARM1 = '

[ "$(id -u)" -ne 0 ] || as=(setpriv --reuid=nobody --regid=nogroup --clear-groups)
install -m 666 alarms closed/alarms
chmod 555 closed
gives 77 'pinwatchd-alarm: directory of closed/alarms: Permission denied' raise a --file closed/alarms
as=()
if [ "$(id -u)" -eq 0 ]; then
    # Owner and mode stay, and an access list, by which user 12345 may write.
    chown 12345:12345 alarms
    python3 -c 'import os
os.setxattr("alarms", "system.posix_acl_access", bytes.fromhex(
    "0200000001000600ffffffff020006003930000004000400ffffffff10000600ffffffff20000000ffffffff"))'
    chmod 775 .
    gives 0 '' raise c
    expect test "$(stat -c '%u:%g %a' alarms)" = '12345:12345 660'
    expect python3 -c 'import os; os.getxattr("alarms", "system.posix_acl_access")'

    # In a user's directory what is the user's stays so, and what only root may read does too.
    install -d -o nobody user
    file=user/alarms
    gives 0 '' raise root
    expect test "$(stat -c %U user/alarms)" = nobody
    chown 12345 user/alarms
    gives 77 '*another user*' raise root
    chown nobody user/alarms
    # What is looked at is what was opened, when the user swaps the two.
    mv user/alarms user/own
    (umask 077 && printf '[b]\nALARM1=secret\n' >user/alarms)
    meets 0 '' 'flock(int file, int how) {
        static int swaps;
        if (how == 1 && swaps++ == 0) renameat2(-100, "user/alarms", -100, "user/own", 2);
        return 0;
    }'
    expect test "$(stat -c '%U %a' user/*)" = $'nobody 644\nroot 600'
    expect test "$(cat user/*)" = $'[root]\nALARM1 = \n[b]\nALARM1 = \n[b]\nALARM1=secret'
fi

# Members of a group, in its directory, and others of whom some are killed: no change is lost, and
# a reader always finds the whole file.
mkdir -m 2770 group
file=group/alarms
[ "$(id -u)" -ne 0 ] || chgrp nogroup group
gives 0 '' raise other ALARM2
publisher() {
    local count as=()
    [ "$(id -u)" -ne 0 ] || as=(setpriv "--reuid=$((20000 + $1))" --regid=nogroup --clear-groups)
    for count in 1 2 3; do
        alarm raise "source $1" ALARM1 "$count!"
        [ $(($1 % 2)) -eq 0 ] || alarm clear "source $1"
    done
}
for number in {1..20}; do publisher "$number" & done
for count in {1..50}; do
    life=0.0$((RANDOM % 100 + 100))
    { timeout -s KILL $life "$program" --file $file raise killed ALARM1 "$count!" || true; } 2>/dev/null
    expect test "$(alarm show | grep -c ALARM2)" -eq 2
done
wait
gives 0 '' clear killed
expect test "$(grep -c 'ALARM1 = 3!$' $file) of $(wc -l <$file)" = '10 of 22' # no change was lost
expect test "$(stat -c '%g %a' $file)" = "$(stat -c %g group) 660"
