# 32-bit ARM, with Debian's g++-arm-linux-gnueabihf.
set(architecture armhf)
set(compiler arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
