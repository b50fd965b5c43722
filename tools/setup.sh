# shellcheck shell=bash disable=SC2034 # lists that the scripts use
# Sourced by ./run and ./test, with the root of the tree as current folder: the steps from a
# machine with nothing installed to a built tree. Each is quick when it has been done before.

packages=(
    g++ g++-i686-linux-gnu cmake ninja-build googletest
    libftdi-dev libusb-dev libftdi1-dev libusb-1.0-0-dev
    qemu-system-x86 cpio xz-utils
)
documentPackages=(gettext mandoc python3)
releasePackages=(debootstrap lintian systemd)
# The runtime of clang's sanitizers is a package of its version.
case $(sed -n 's/^VERSION_ID="\{0,1\}\([0-9]*\).*/\1/p' /etc/os-release) in
12) fuzzPackages=(clang libclang-rt-14-dev) ;;
*) fuzzPackages=(clang libclang-rt-19-dev) ;;
esac
analysePackages=(clang-format clang-tidy cppcheck git shellcheck)
benchPackages=(libbenchmark-dev libinih-dev strace valgrind)

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

# quietly TITLE COMMAND...: says what is done and how long it took; shows the output if it fails.
# Two commands that build in one clone wait for one another here.
quietly() {
    local title=$1 log began=$SECONDS
    log=build/logs/${1//[^A-Za-z0-9]/-}.log
    shift
    mkdir -p build/logs
    exec 8>build/lock
    touch "$log"
    giveToOwner build build/logs build/lock "$log"
    if ! flock -n 8; then
        echo "==> waiting for another command that builds here"
        flock 8
    fi
    printf '==> %s\n' "$title"
    if ! "$@" >"$log" 2>&1 8>&-; then
        tail -n 40 "$log" >&2
        echo "failed: $title (whole output: $log)" >&2
        exit 1
    fi
    exec 8>&-
    [ $((SECONDS - began)) -lt 2 ] || printf '    done in %d s\n' $((SECONDS - began))
}

missingPackages() {
    local package
    for package in "${packages[@]}"; do
        [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
            echo "$package"
    done
}

installPackages() {
    local missing as_root=() log=build/logs/install.log began=$SECONDS
    mkdir -p build/logs
    touch "$log"
    giveToOwner build build/logs "$log"
    if ! command -v apt-get >/dev/null; then
        echo "no apt-get here: this works on Debian 12 and 13" >&2
        exit 1
    fi
    mapfile -t missing < <(missingPackages)
    [ "${#missing[@]}" -gt 0 ] || return 0
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "these packages are missing, and installing needs root: ${missing[*]}" >&2
            exit 1
        fi
        as_root=(sudo)
    fi
    as_root+=(env DEBIAN_FRONTEND=noninteractive LC_ALL=C)
    local install=(apt-get -q install --no-install-recommends "${missing[@]}")
    printf '==> installing packages: %s\n' "${missing[*]}"
    # One index that fails does no harm; whether the packages can be had, the next step shows.
    "${as_root[@]}" apt-get -q update >"$log" 2>&1 || true
    "${as_root[@]}" "${install[@]}" --assume-no 2>/dev/null |
        sed -n '/^Need to get\|^After this/s/^/    /p'
    if ! "${as_root[@]}" "${install[@]}" -y >>"$log" 2>&1; then
        echo "cannot install ${missing[*]} from this machine's package sources (/etc/apt);" \
            "apt's output is in $log" >&2
        exit 1
    fi
    printf '    done in %d s\n' $((SECONDS - began))
}

# prepare ARGUMENT...: installs what is missing and sees that build/ can be written. Where root
# works in another user's clone (sudo), the script with these arguments starts anew as that user,
# so that what it builds is the user's.
prepare() {
    if ! mkdir -p build/logs 2>/dev/null || [ ! -w build/logs ]; then
        echo "cannot write in $PWD/build, which belongs to $(stat -c %U "$([ -d build ] && echo build || echo .)")" >&2
        exit 1
    fi
    installPackages
    if [ "${#as_owner[@]}" -gt 0 ]; then
        # The scripts have changed into the clone since they were called.
        exec "${as_owner[@]}" "$(cd "$OLDPWD" && realpath "$0")" "$@"
    fi
}

# prepareVm KERNEL...: fetches what the VM boots; KERNEL as tools/vm/run has it.
prepareVm() {
    local kernel
    for kernel; do
        if [ ! build/vm/base.cpio -nt tools/vm/image ] || [ ! -e "build/vm/$kernel" ]; then
            quietly "fetching the VM's kernel $kernel (50 to 110 MB) and i386 libraries" \
                "${as_owner[@]}" tools/vm/image "$kernel"
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
