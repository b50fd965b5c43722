# How the released programs are compiled and linked: hardened and lean.

# What dpkg-buildflags gives with hardening=+all, for the daemon runs as root.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat-security
    # Works, and is not warned of, only where the compiler optimises.
    $<$<CONFIG:RelWithDebInfo>:-U_FORTIFY_SOURCE> $<$<CONFIG:RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
add_link_options(-Wl,-z,relro -Wl,-z,now)
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    # Not on i386: Linux does not enforce it there, and some 32-bit processors know no endbr32.
    add_compile_options(-fcf-protection)
endif()

# The little that the daemon uses of the C++ library is linked into it: with the whole library
# mapped it takes half as much memory again, for often nothing else there is in C++.
add_link_options(-static-libstdc++ -static-libgcc)
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections)
