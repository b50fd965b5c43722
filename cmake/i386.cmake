# 32-bit x86, with Debian's g++-i686-linux-gnu.
set(architecture i386)
set(compiler i686-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
