# Cross build with Debian's compiler for another architecture, and the libraries that tools/sysroot
# has fetched for it. Read in by the toolchain files, which set
#   architecture  the name that Debian gives it
#   compiler      the prefix of the compiler, and its folder of libc and libstdc++ below /usr
#   CMAKE_SYSTEM_PROCESSOR and CMAKE_LIBRARY_ARCHITECTURE

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${compiler}-g++)

set(PINWATCHD_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/${architecture}-sysroot
    CACHE PATH "libftdi and libusb, as tools/sysroot leaves them")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PINWATCHD_SYSROOT)
get_filename_component(sysroot ${PINWATCHD_SYSROOT} ABSOLUTE)
if(NOT EXISTS ${sysroot}/complete)
    message(FATAL_ERROR
        "no ${architecture} libraries in ${sysroot}: run tools/sysroot ${architecture} on it")
endif()

set(CMAKE_FIND_ROOT_PATH ${sysroot} /usr/${compiler})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${sysroot}/usr/include)
set(libraries ${sysroot}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(ENV{PKG_CONFIG_LIBDIR} ${libraries}/pkgconfig)
# The place of these libraries has no business in a program.
set(CMAKE_SKIP_RPATH ON)
# The linker looks for what they need in turn.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,\"${libraries}\"")
