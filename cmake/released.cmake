# How the released programs are compiled and linked: hardened and lean.

# What dpkg-buildflags gives with hardening=+all, for the daemon runs as root.
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat-security
    # Works, and is not warned of, only where the compiler optimises.
    $<$<CONFIG:RelWithDebInfo>:-U_FORTIFY_SOURCE> $<$<CONFIG:RelWithDebInfo>:-D_FORTIFY_SOURCE=2>)
add_link_options(-Wl,-z,relro -Wl,-z,now)
# It would depend on where the debug information was made, which no package has.
add_link_options(-Wl,--build-id=none)
# Against forged jumps, by x86 and ARM. Not on 32 bits: Linux does not enforce it there, and some
# processors know no endbr32.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    include(CheckCXXCompilerFlag)
    check_cxx_compiler_flag(-fcf-protection PINWATCHD_CF_PROTECTION)
    check_cxx_compiler_flag(-mbranch-protection=standard PINWATCHD_BRANCH_PROTECTION)
    add_compile_options($<$<BOOL:${PINWATCHD_CF_PROTECTION}>:-fcf-protection>
        $<$<BOOL:${PINWATCHD_BRANCH_PROTECTION}>:-mbranch-protection=standard>)
endif()

# The little that the daemon uses of the C++ library is linked into it: with the whole library
# mapped it takes half as much memory again, for often nothing else there is in C++.
add_link_options(-static-libstdc++ -static-libgcc)
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections)
