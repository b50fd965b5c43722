# cpack runs this once it has packed. A package that lists /opt and /var/opt takes them with it when it
# is purged, if they are empty then, whoever made them; so it does not list them.
foreach(deb ${CPACK_PACKAGE_FILES})
    # Without recursion: what is below them stays.
    execute_process(WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY
        COMMAND sh -euc "ar x '${deb}' data.tar.xz
            xz -d data.tar.xz
            tar --delete --no-recursion -f data.tar ./opt ./var/opt
            xz data.tar
            ar r '${deb}' data.tar.xz
            rm data.tar.xz")
endforeach()
