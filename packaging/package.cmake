# What an installation holds, and how `cpack` packs it for Debian. The daemon's paths are fixed,
# so everything is installed below / (or DESTDIR).

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /)
endif()

set(documentation usr/share/doc/pinwatchd)
set(here ${CMAKE_CURRENT_LIST_DIR})

function(install_program target directory)
    install(TARGETS ${target} RUNTIME DESTINATION ${directory})
    # cpack's own stripping leaves the compiler's name in.
    install(CODE "execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND ${CMAKE_STRIP} -R .comment
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${target}\")")
endfunction()

# Installs a file as NAME.gz; without a time inside, so that equal input gives equal packages.
function(install_compressed file directory name)
    install(FILES ${file} DESTINATION ${directory} RENAME ${name})
    install(CODE "execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND gzip -9nf
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/${name}\")")
endfunction()

install_program(pinwatchd opt/orvel/bin)
install_program(pinwatchd-alarm usr/bin)
install(FILES ${CMAKE_SOURCE_DIR}/command/pinwatchd-alarm.bash DESTINATION usr/share/bash-completion/completions
    RENAME pinwatchd-alarm)
install(PROGRAMS ${here}/pinwatchd-prepare ${here}/pinwatchd-check DESTINATION opt/orvel/libexec)
# For root alone: who can read settings can lock them, and a start would wait.
install(FILES ${here}/orvel.conf DESTINATION opt/orvel/etc
    PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
install(DIRECTORY DESTINATION var/opt/orvel/etc
    DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)

# The machine that the compiler builds for, as Debian calls it, and as systemd calls its system calls:
# on a 64-bit system those of a 32-bit program are not the native ones.
separate_arguments(flags NATIVE_COMMAND "${CMAKE_CXX_FLAGS}")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -dM -E -x c++ /dev/null
    OUTPUT_VARIABLE macros COMMAND_ERROR_IS_FATAL ANY)
set(calls native)
if(macros MATCHES "__x86_64__")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
elseif(macros MATCHES "__i386__")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
    set(calls x86)
elseif(macros MATCHES "__aarch64__")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
elseif(macros MATCHES "__ARM_PCS_VFP")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(calls arm)
endif()
file(READ ${here}/pinwatchd.service service)
string(REPLACE "SystemCallArchitectures=native" "SystemCallArchitectures=${calls}" service "${service}")
file(WRITE ${CMAKE_BINARY_DIR}/pinwatchd.service "${service}")
install(FILES ${CMAKE_BINARY_DIR}/pinwatchd.service ${here}/pinwatchd-alarm@.service
    ${here}/pinwatchd-check.service ${here}/pinwatchd-check.timer DESTINATION usr/lib/systemd/system)
install(FILES ${here}/pinwatchd.tmpfiles DESTINATION usr/lib/tmpfiles.d RENAME pinwatchd.conf)
install(PROGRAMS ${here}/pinwatchd.init DESTINATION etc/init.d RENAME pinwatchd)

foreach(page pinwatchd.8 pinwatchd-alarm.1 orvel.conf.5 pinwatchd-alarms.5)
    string(REGEX REPLACE ".*\\." "" section ${page})
    install_compressed(${CMAKE_SOURCE_DIR}/man/${page} usr/share/man/man${section} ${page})
endforeach()
install_compressed(${CMAKE_SOURCE_DIR}/CHANGELOG.md ${documentation} changelog)
install_compressed(${here}/deb/changelog ${documentation} changelog.Debian)
install(FILES ${here}/deb/copyright DESTINATION ${documentation})
install(FILES ${CMAKE_SOURCE_DIR}/docs/publishing.md ${CMAKE_SOURCE_DIR}/docs/replug.md
    ${CMAKE_SOURCE_DIR}/docs/monitoring.md ${CMAKE_SOURCE_DIR}/docs/unit.md
    ${CMAKE_SOURCE_DIR}/po/pinwatchd.pot DESTINATION ${documentation})
install(PROGRAMS ${CMAKE_SOURCE_DIR}/docs/examples/publish.py DESTINATION ${documentation}/examples)
install(FILES ${CMAKE_SOURCE_DIR}/docs/examples/tq5.conf DESTINATION ${documentation}/examples)
install(FILES ${here}/deb/lintian-overrides DESTINATION usr/share/lintian/overrides
    RENAME pinwatchd)

set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "show alarms on a USB alarm-output unit")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Mirrors the alarm state that another program publishes in an INI file onto
the two outputs of a TQ-5, a USB alarm-output unit on an FT232R chip, and
follows the unit through unplugging and re-insertion.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# The changelog's last entry, which stands first, has the maintainer and the time of everything.
file(STRINGS ${here}/deb/changelog signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
string(REGEX MATCH "[^ -].*>" CPACK_DEBIAN_PACKAGE_MAINTAINER ${signature})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${here}/deb/changelog)
set(CPACK_PROJECT_CONFIG_FILE ${here}/packtime.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${here}/shared-directories.cmake)
# Written out, as dpkg-shlibdeps cannot see a cross build's libraries; packtime.cmake adds libc.
if(PINWATCHD_LIBFTDI1)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libftdi1-2 (>= 1.5), libusb-1.0-0 (>= 2:1.0.22)")
else()
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libftdi1 (>= 0.20), libusb-0.1-4 (>= 2:0.1.12)")
endif()
set(CPACK_DEBIAN_PACKAGE_SUGGESTS ftdi-eeprom)
set(CPACK_PINWATCHD_PROGRAMS ${CMAKE_BINARY_DIR}/pinwatchd
    ${CMAKE_BINARY_DIR}/pinwatchd-alarm)
set(CPACK_PINWATCHD_READELF ${CMAKE_READELF})
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${here}/deb/conffiles ${here}/deb/preinst ${here}/deb/postinst ${here}/deb/prerm
    ${here}/deb/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
