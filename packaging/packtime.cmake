# cpack reads this before it packs: every time in a package is that of its changelog's last entry,
# which stands first.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/deb/changelog signature REGEX "^ -- .*>  " LIMIT_COUNT 1)
string(REGEX REPLACE ".*>  " "" released ${signature})
execute_process(COMMAND date -d ${released} +%s COMMAND_ERROR_IS_FATAL ANY
    OUTPUT_VARIABLE seconds OUTPUT_STRIP_TRAILING_WHITESPACE)
set(ENV{SOURCE_DATE_EPOCH} ${seconds})
