#!/bin/bash
# The example publishes what it is given, whole, and in each second more than one version. Where it
# cannot, the version before stays, and nothing else.
[ "${1:-}" != --help ] || exec echo "usage: tests/examples.sh"
set -eux
if [ "${1:-}" != inside ]; then
    # Mounts of its own, for a small disk.
    unshare --mount --map-root-user true || { echo "examples.sh: skipped, needs user namespaces" && exit 77; }
    exec unshare --mount --map-root-user "$0" inside
fi
publish=$(dirname "$(realpath "$0")")/../docs/examples/publish.py
disk=$(mktemp -d)
mount -t tmpfs -o size=128k,mode=755 none "$disk"
trap 'umount -l "$disk"; rmdir "$disk"' EXIT
alarms=$disk/folder/alarms
mkdir "$disk/directory"
mkdir -m 2770 "$disk/folder"

# holds TEXT: the file does, its group may read it, and it is alone in its directory.
holds() {
    [ "$(cat "$alarms")" = "$1" ]
    [ "$(stat -c %a "$alarms")" = 660 ]
    [ "$(ls "$disk/folder")" = alarms ]
}

previous=0
for text in 'ALARM1=open since 10:42' 'ALARM2=' '[none]'; do
    "$publish" "$alarms" <<<"$text"
    holds "$text"
    seconds=$(stat -c %Y "$alarms")
    [ "$seconds" -gt "$previous" ]
    previous=$seconds
done

# An option is no file.
(cd "$disk/folder" && "$publish" --help </dev/null && ! "$publish" -x </dev/null)
holds '[none]'

# One publisher at a time.
flock -s "$disk/folder" timeout 1 "$publish" "$alarms" <<<ALARM1=1 || [ $? -eq 124 ]
holds '[none]'

cat /dev/zero >"$disk/filler" 2>/dev/null || true
! printf 'ALARM2=%05000d\n' 2 | "$publish" "$alarms" || exit
rm "$disk/filler"
holds '[none]'

for link in "$disk/directory" "$disk/file"; do
    touch "$disk/file"
    ln -sf "$link" "$alarms"
    "$publish" "$alarms" <<<ALARM1=1 || true
    [ ! -s "$disk/file" ]
    [ -z "$(ls "$disk/directory")" ]
    rm "$alarms"
done
