# cpack reads this before it packs.

# Every time in a package is that of its changelog's last entry, which stands first.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/deb/changelog signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
string(REGEX REPLACE ".*>  " "" released ${signature})
execute_process(COMMAND date -d ${released} +%s COMMAND_ERROR_IS_FATAL ANY
    OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE)
set(ENV{SOURCE_DATE_EPOCH} ${seconds})

# libc's least version is that of the newest symbol used; which one, the compiler decides too.
execute_process(COMMAND ${CPACK_PINWATCHD_READELF} -VW ${CPACK_PINWATCHD_PROGRAMS}
    OUTPUT_VARIABLE versions COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "GLIBC_[0-9.]+" versions "${versions}")
list(SORT versions COMPARE NATURAL ORDER DESCENDING)
list(GET versions 0 newest)
string(REPLACE GLIBC_ "libc6 (>= " newest ${newest})
string(PREPEND CPACK_DEBIAN_PACKAGE_DEPENDS "${newest}), ")
