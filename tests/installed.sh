#!/bin/bash
# The packages are there that the other tests need.
[ "${1:-}" != --help ] || exec echo "usage: tests/installed.sh"
set -eu
cd "$(dirname "$(realpath "$0")")/.."
. tools/setup.sh
mapfile -t missing < <(missingPackages tests)
[ ${#missing[@]} -eq 0 ] || echo "./test installs what tests need; not there: ${missing[*]}"
[ ${#missing[@]} -eq 0 ]
