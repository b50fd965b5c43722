# shellcheck shell=bash disable=SC2034 # lists that the scripts use
# Sourced by ./run and ./test, with the root of the tree as current folder: the steps from a
# machine with nothing installed to a built tree. Each is quick when it has been done before.

packages=(
    g++ g++-i686-linux-gnu cmake ninja-build googletest
    libftdi-dev libusb-dev
    qemu-system-x86 cpio
)
documentPackages=(gettext mandoc python3)
releasePackages=(debootstrap lintian systemd)
fuzzPackages=(clang libclang-rt-14-dev)
analysePackages=(clang-format clang-tidy cppcheck git shellcheck)
benchPackages=(libbenchmark-dev libinih-dev strace valgrind)

setup_log=build/setup.log

# quietly TITLE COMMAND...: says what is done and how long it took; shows the output if it fails.
quietly() {
    local title=$1 began=$SECONDS
    shift
    printf '==> %s\n' "$title"
    mkdir -p build
    if ! "$@" >"$setup_log" 2>&1; then
        tail -n 40 "$setup_log" >&2
        echo "failed: $title (whole output: $setup_log)" >&2
        exit 1
    fi
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
    local missing as_root=()
    if ! command -v apt-get >/dev/null; then
        echo "no apt-get here: this works on Debian 12" >&2
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
    as_root+=(env DEBIAN_FRONTEND=noninteractive)
    printf '==> installing packages: %s\n' "${missing[*]}"
    mkdir -p build
    # One index that fails does no harm; whether the packages can be had, the next step shows.
    "${as_root[@]}" apt-get -q update >"$setup_log" 2>&1 || true
    if ! "${as_root[@]}" apt-get -q -y install --no-install-recommends "${missing[@]}" \
        >>"$setup_log" 2>&1; then
        echo "cannot install ${missing[*]} from this machine's package sources (/etc/apt);" \
            "apt's output is in $setup_log" >&2
        exit 1
    fi
}

prepareVm() {
    if [ ! -e build/vm/base.cpio ] || [ ! -e build/vm/6.1 ]; then
        quietly "fetching the VM's kernel (52 MB) and i386 libraries" tools/vm/image
    fi
}

configureAndBuild() {
    local preset=$1
    shift
    cmake --preset "$preset" && cmake --build --preset "$preset" -j "$(nproc)" ${1:+--target "$@"}
}

# build PRESET TITLE [TARGET...]
build() {
    local preset=$1 title=$2
    shift 2
    quietly "$title" configureAndBuild "$preset" "$@"
}
