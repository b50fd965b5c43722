# Cross build for 32-bit x86 with Debian's g++-i686-linux-gnu and the libraries that
# tools/sysroot has fetched.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

# The compiler's own folder: libc and libstdc++ for i386.
set(i386Runtime /usr/i686-linux-gnu)

# What tools/sysroot leaves.
get_filename_component(i386Sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/i386-sysroot ABSOLUTE)
if(NOT EXISTS ${i386Sysroot}/complete)
    message(FATAL_ERROR "no i386 libraries in ${i386Sysroot}: run tools/sysroot i386 on it")
endif()

set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${i386Sysroot} ${i386Runtime})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${i386Sysroot}/usr/include)
set(ENV{PKG_CONFIG_LIBDIR} ${i386Sysroot}/usr/lib/i386-linux-gnu/pkgconfig)
# The place of these libraries has no business in a program.
set(CMAKE_SKIP_RPATH ON)
# The linker looks for what they need in turn.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,\"${i386Sysroot}/usr/lib/i386-linux-gnu\"")
