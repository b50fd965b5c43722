#!/bin/bash
# Every example publishes what it is given, whole, and in each second more than one version.
set -eux
examples=$(dirname "$(realpath "$0")")/../docs/examples
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cc -Wall -Wextra -Werror -o "$folder/publish" "$examples/publish.c"
for publish in "$examples/publish.sh" "$examples/publish.py" "$folder/publish"; do
    previous=0
    for text in 'ALARM1=open since 10:42' 'ALARM2=' '[none]'; do
        echo "$text" | "$publish" "$folder/alarms"
        [ "$(cat "$folder/alarms")" = "$text" ]
        time=$(stat -c %Y "$folder/alarms")
        [ "$time" -gt "$previous" ]
        previous=$time
    done
done
# In place only while nobody reads.
flock -s "$folder/alarms" timeout 1 "$folder/publish" "$folder/alarms" </dev/null || [ $? -eq 124 ]
[ -s "$folder/alarms" ]
