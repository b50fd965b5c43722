# shellcheck shell=dash
# The unit tests of an i386 build, on a 32-bit kernel.
/vm/daemon_tests --gtest_brief=1
