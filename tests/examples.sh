#!/bin/bash
# Every example publishes what it is given, whole, and in each second more than one version. Where
# it cannot, the version before stays, and nothing else.
[ "${1:-}" != --help ] || exec echo "usage: tests/examples.sh"
set -eux
if [ "${1:-}" != inside ]; then
    # Mounts of its own, for a small disk; without root those of a user namespace.
    namespaces=(--mount)
    [ "$(id -u)" -eq 0 ] || namespaces+=(--map-root-user)
    if ! unshare "${namespaces[@]}" true; then
        echo "examples.sh: skipped, needs root or user namespaces"
        exit 77
    fi
    exec unshare "${namespaces[@]}" "$0" inside "$(id -u)"
fi
user=$2
examples=$(dirname "$(realpath "$0")")/../docs/examples
disk=$(mktemp -d)
mount -t tmpfs -o size=128k,mode=755 none "$disk"
trap 'umount -l "$disk"; rmdir "$disk"' EXIT
alarms=$disk/folder/alarms
mkdir "$disk/folder" "$disk/directory" "$disk/bin"
cc -Wall -Wextra -Werror -O2 -D_FORTIFY_SOURCE=2 -o "$disk/publish" "$examples/publish.c"
# Tells the script in the middle of a publication to end.
# shellcheck disable=SC2016 # for the inner shell
printf '#!/bin/sh\nkill -TERM "$PPID"\nexec /bin/touch "$@"\n' >"$disk/bin/touch"
chmod 755 "$disk/bin/touch"

seconds() {
    stat -c %Y "$alarms"
}

# holds TEXT: the file does, and is alone in its directory.
holds() {
    [ "$(cat "$alarms")" = "$1" ]
    [ "$(ls "$disk/folder")" = alarms ]
}

for publish in "$examples/publish.sh" "$examples/publish.py" "$disk/publish"; do
    previous=0
    for text in 'ALARM1=open since 10:42' 'ALARM2=' '[none]'; do
        echo "$text" | PATH=$disk/bin:$PATH "$publish" "$alarms"
        holds "$text"
        [ "$(seconds)" -gt "$previous" ]
        previous=$(seconds)
    done

    # One publisher at a time, and none while the daemon reads what is written in place.
    locked=$disk/folder
    [ "$publish" != "$disk/publish" ] || locked=$alarms
    flock -s "$locked" timeout 1 "$publish" "$alarms" <<<ALARM1=1 || [ $? -eq 124 ]
    holds '[none]'

    cat /dev/zero >"$disk/filler" 2>/dev/null || true
    ! printf 'ALARM2=%05000d\n' 2 | "$publish" "$alarms" || exit
    rm "$disk/filler"
    holds '[none]'

    for link in "$disk/directory" "$disk/file"; do
        touch "$disk/file"
        ln -sf "$link" "$alarms"
        echo ALARM1=1 | "$publish" "$alarms" || true
        [ ! -s "$disk/file" ]
        [ -z "$(ls "$disk/directory")" ]
        rm "$alarms"
    done
done

# By one who may write the file but not set its time, which is later than now.
if [ "$user" -eq 0 ]; then
    install -m 666 /dev/null "$alarms"
    touch -d '+2 seconds' "$alarms"
    previous=$(seconds)
    echo ALARM2=2 | setpriv --reuid=nobody --clear-groups "$disk/publish" "$alarms"
    holds ALARM2=2
    [ "$(seconds)" -gt "$previous" ]
fi
