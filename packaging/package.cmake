# What an installation holds, and how `cpack` packs it for Debian. The daemon's paths are fixed,
# so everything is installed below / (or DESTDIR).

if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
    set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /)
endif()

set(here ${CMAKE_CURRENT_LIST_DIR})
set(deb ${here}/deb)

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

# The functions are for both packages: `component` says to which of them a file belongs.

function(change_installed path)
    list(JOIN ARGN " " command)
    install(CODE "execute_process(COMMAND_ERROR_IS_FATAL ANY COMMAND ${command}
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${path}\")" ${component})
endfunction()

function(install_program target directory)
    install(TARGETS ${target} RUNTIME DESTINATION ${directory} ${component})
    # cpack's own stripping leaves the compiler's name in.
    change_installed(${directory}/${target} ${CMAKE_STRIP} -R .comment)
endfunction()

# Installs a file as NAME.gz; without a time inside, so that equal input gives equal packages.
function(install_compressed file directory name)
    install(FILES ${file} DESTINATION ${directory} RENAME ${name} ${component})
    change_installed(${directory}/${name} gzip -9nf)
endfunction()

function(install_manuals)
    foreach(page ${ARGN})
        string(REGEX REPLACE ".*\\." "" section ${page})
        install_compressed(${CMAKE_SOURCE_DIR}/man/${page} usr/share/man/man${section} ${page})
    endforeach()
endfunction()

# What each package has for its service NAME. `units` are stopped with the package's removal.
function(install_service name units)
    set(documentation usr/share/doc/${name})
    install_compressed(${CMAKE_SOURCE_DIR}/CHANGELOG.md ${documentation} changelog)
    install_compressed(${deb}/changelog ${documentation} changelog.Debian)
    install(FILES ${deb}/copyright DESTINATION ${documentation} ${component})
    install(FILES ${deb}/${name}.lintian-overrides DESTINATION usr/share/lintian/overrides
        RENAME ${name} ${component})
    install(PROGRAMS ${here}/${name}.init DESTINATION etc/init.d RENAME ${name} ${component})
    file(READ ${here}/${name}.service service)
    string(REPLACE "SystemCallArchitectures=native" "SystemCallArchitectures=${calls}" service
        "${service}")
    set(made ${CMAKE_BINARY_DIR}/packaging/${name})
    file(WRITE ${made}/${name}.service "${service}")
    install(FILES ${made}/${name}.service DESTINATION usr/lib/systemd/system ${component})

    # The common script of that name, with the package's own lines.
    foreach(script postinst prerm postrm)
        set(own)
        if(EXISTS ${deb}/${name}.${script})
            file(READ ${deb}/${name}.${script} own)
        endif()
        # The first line is for shellcheck.
        string(REGEX REPLACE "^# shellcheck[^\n]*\n" "" own "${own}")
        configure_file(${deb}/${script}.in ${made}/${script} @ONLY)
        list(APPEND control ${made}/${script})
    endforeach()
    configure_file(${deb}/${name}.conffiles ${made}/conffiles COPYONLY)
    set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${control} ${made}/conffiles PARENT_SCOPE)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${here}/${name}.service
        ${deb}/${name}.postinst ${deb}/${name}.postrm ${deb}/${name}.prerm)
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
install_service(pinwatchd "pinwatchd-check.timer pinwatchd.service")
install(FILES ${here}/pinwatchd-alarm@.service ${here}/pinwatchd-check.service ${here}/pinwatchd-check.timer
    DESTINATION usr/lib/systemd/system)
install(FILES ${here}/pinwatchd.tmpfiles DESTINATION usr/lib/tmpfiles.d RENAME pinwatchd.conf)
install_manuals(pinwatchd.8 pinwatchd-alarm.1 orvel.conf.5 pinwatchd-alarms.5)
set(documentation usr/share/doc/pinwatchd)
install(FILES ${CMAKE_SOURCE_DIR}/docs/publishing.md ${CMAKE_SOURCE_DIR}/docs/replug.md
    ${CMAKE_SOURCE_DIR}/docs/monitoring.md ${CMAKE_SOURCE_DIR}/docs/unit.md
    ${CMAKE_SOURCE_DIR}/po/pinwatchd.pot DESTINATION ${documentation})
install(PROGRAMS ${CMAKE_SOURCE_DIR}/docs/examples/publish.py DESTINATION ${documentation}/examples)
install(FILES ${CMAKE_SOURCE_DIR}/docs/examples/tq5.conf DESTINATION ${documentation}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_PACKAGING_INSTALL_PREFIX /)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
# The changelog's last entry, which stands first, has the maintainer and the time of everything.
file(STRINGS ${deb}/changelog signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
string(REGEX MATCH "[^ -].*>" CPACK_DEBIAN_PACKAGE_MAINTAINER ${signature})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${deb}/changelog)
set(CPACK_PROJECT_CONFIG_FILE ${here}/packtime.cmake)
set(CPACK_PINWATCHD_READELF ${CMAKE_READELF})
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(mosquitto_FOUND)
    add_subdirectory(packaging/mqtt)
endif()

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "show alarms on a USB alarm-output unit")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "Mirrors the alarm state that another program publishes in an INI file onto
the two outputs of a TQ-5, a USB alarm-output unit on an FT232R chip, and
follows the unit through unplugging and re-insertion.")
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
list(APPEND CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${deb}/preinst)
include(CPack)
