# shellcheck shell=bash
# Sourced: clean Debian roots to try a package in, each made once and kept under build/.

codename=bookworm

# The package source that this machine itself uses.
mirror() {
    # shellcheck disable=SC2016 # apt's own variables
    apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' "Codename: $codename" |
        head -n 1
}

# cleanRoot ARCHITECTURE PACKAGES FOLDER: FOLDER, which must not exist, becomes the root of a small
# system with these packages (joined by commas). In it packages start no services by themselves.
cleanRoot() {
    local architecture=$1 packages=$2 folder=$3 cache source
    cache=build/root-$architecture-$packages.tar
    mkdir -p "$folder"
    if [ ! -e "$cache" ]; then
        source=$(mirror)
        if [ -z "$source" ]; then
            echo "no package source for $codename in /etc/apt" >&2
            return 1
        fi
        echo "making a clean root for $architecture (once, about a minute)"
        if ! debootstrap --arch="$architecture" --variant=minbase --include="$packages" \
            "$codename" "$folder" "$source" >"$folder.log" 2>&1; then
            tail -n 20 "$folder.log" >&2
            echo "debootstrap failed" >&2
            return 1
        fi
        rm -rf "$folder"/var/cache/apt/archives/*.deb "$folder"/var/lib/apt/lists/*
        printf '#!/bin/sh\nexit 101\n' >"$folder/usr/sbin/policy-rc.d"
        chmod 755 "$folder/usr/sbin/policy-rc.d"
        tar -C "$folder" -cf "$cache.new" .
        mv "$cache.new" "$cache"
    else
        tar -C "$folder" -xpf "$cache"
    fi
}
