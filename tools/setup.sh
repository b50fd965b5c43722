# shellcheck shell=bash disable=SC2154 # variables of script.sh
# Sourced after script.sh, with the root of the tree as current folder: the steps from a machine with
# nothing installed to a built tree. Each is quick when it has been done before.

# packagesFor PURPOSE...: prints the Debian packages that these need.
packagesFor() {
    local purpose clang=19
    # The runtime of clang's sanitizers is a package of its version.
    ! grep -q '^VERSION_ID="12"' /etc/os-release || clang=14
    for purpose; do
        case $purpose in
        build | libftdi1)
            echo g++ g++-i686-linux-gnu cmake ninja-build pkgconf googletest libftdi1-dev \
                libmosquitto-dev mmdebstrap
            ;;&
        build) echo libftdi-dev ;;
        arm64) echo g++-aarch64-linux-gnu ;;
        armhf) echo g++-arm-linux-gnueabihf ;;
        vm) echo qemu-system-x86 cpio xz-utils ;;
        broker) echo iproute2 mosquitto mosquitto-clients openssl python3-paho-mqtt ;;
        vm-arm64) echo qemu-system-arm ;;
        documents) echo gettext mandoc python3 ;;
        lifecycle) echo lintian systemd uidmap ;;
        fuzz) echo clang "libclang-rt-$clang-dev" ;;
        analyse) echo clang-format clang-tidy cppcheck git shellcheck ;;
        bench) echo libbenchmark-dev libinih-dev valgrind ;;
        tests) packagesFor build vm broker documents lifecycle fuzz analyse bench ;;
        esac
    done
}

# giveToOwner FILE...: what root makes in another user's clone (sudo) is that user's.
giveToOwner() {
    [ "$(id -u)" -ne 0 ] || chown --reference=. "$@"
}

# Stands before what that user must do instead of root.
as_owner=()
if [ "$(id -u)" -eq 0 ] && [ "$(stat -c %u .)" -ne 0 ]; then
    as_owner=(setpriv --reuid "$(stat -c %u .)" --regid "$(stat -c %g .)" --init-groups
        env HOME="$(getent passwd "$(stat -c %u .)" | cut -d: -f6)")
fi

# lockBuild: for what two commands must not do at once in one clone; closing 8 ends it.
lockBuild() {
    exec 8>build/lock
    giveToOwner build/lock
    waitForLock 8
}

# quietly TITLE COMMAND...: says what is done and how long it took; shows the output if it fails.
quietly() {
    local log began=$SECONDS
    step=$1
    log=build/logs/${1//[^A-Za-z0-9]/-}.log
    shift
    mkdir -p build/logs
    touch "$log"
    giveToOwner build build/logs "$log"
    lockBuild
    printf '==> %s\n' "$step"
    launch "$@" >"$log" 2>&1 8>&-
    if ! finish; then
        tail -n 40 "$log" >&2
        echo "failed: $step (whole output: $log)" >&2
        exit 1
    fi
    exec 8>&-
    step=
    [ $((SECONDS - began)) -lt 2 ] || printf '    done in %d s\n' $((SECONDS - began))
}

# missingPackages PURPOSE...: prints what these need and the machine lacks.
missingPackages() {
    local package
    for package in $(packagesFor "$@"); do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            echo "$package"
    done
}

# installPackages PURPOSE...
installPackages() {
    local missing as_root=() log=build/logs/install.log began=$SECONDS
    if ! mkdir -p build/logs 2>/dev/null || [ ! -w build/logs ]; then
        fail "cannot write in $PWD/build, which belongs to $(stat -c %U "$([ -d build ] && echo build || echo .)")"
    fi
    touch "$log"
    giveToOwner build build/logs "$log"
    command -v apt-get >/dev/null || fail "no apt-get here: this works on Debian 12 and 13"
    mapfile -t missing < <(missingPackages "$@")
    [ "${#missing[@]}" -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null ||
            fail "these packages are missing, and installing needs root: ${missing[*]}"
        as_root=(sudo)
    fi
    as_root+=(env DEBIAN_FRONTEND=noninteractive LC_ALL=C)
    lockBuild
    # Another command may have installed them meanwhile.
    mapfile -t missing < <(missingPackages "$@")
    [ "${#missing[@]}" -eq 0 ] || installMissing
    exec 8>&-
}

installMissing() {
    # Where the machine itself installs something, apt waits for it.
    local install=(apt-get -q -o DPkg::Lock::Timeout=600 install --no-install-recommends "${missing[@]}")
    step="installing packages"
    printf '==> %s: %s\n' "$step" "${missing[*]}"
    # One index that fails does no harm; whether the packages can be had, the next step shows.
    "${as_root[@]}" apt-get -q update >"$log" 2>&1 8>&- || true
    "${as_root[@]}" "${install[@]}" --assume-no 2>/dev/null 8>&- |
        sed -n '/^Need to get\|^After this/s/^/    /p'
    "${as_root[@]}" "${install[@]}" -y >>"$log" 2>&1 8>&- ||
        fail "cannot install ${missing[*]} from this machine's package sources (/etc/apt);" \
            "apt's output is in $log"
    step=
    printf '    done in %d s\n' $((SECONDS - began))
}

# becomeOwner ARGUMENT...: where root works in another user's clone (sudo), the script with these
# arguments starts anew as that user, so that what it builds is the user's.
becomeOwner() {
    if [ "${#as_owner[@]}" -gt 0 ]; then
        exec "${as_owner[@]}" "$self" "$@"
    fi
}

# prepareVm KERNEL...: fetches what the VM boots; KERNEL as rig/vm/run has it.
prepareVm() {
    local kernel
    for kernel; do
        if [ ! build/vm/base.cpio -nt rig/vm/image ] || [ ! "build/vm/$kernel" -nt rig/vm/image ]; then
            quietly "fetching the VM's kernel $kernel (50 to 110 MB) and libraries" \
                "${as_owner[@]}" rig/vm/image "$kernel"
        fi
    done
}

# build PRESET TITLE [TARGET...]
build() {
    local preset=$1 title=$2
    shift 2
    # shellcheck disable=SC2016 # for the inner shell
    quietly "$title" "${as_owner[@]}" sh -c 'preset=$1 && shift && cmake --preset "$preset" &&
        exec cmake --build --preset "$preset" -j "$(nproc)" "$@"' - "$preset" ${1:+--target "$@"}
}
