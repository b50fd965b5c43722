# 64-bit ARM, with Debian's g++-aarch64-linux-gnu.
set(architecture arm64)
set(compiler aarch64-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
