# cpack runs this once it has packed. A package that lists /opt and /var/opt takes them with it when it
# is purged, if they are empty then, whoever made them; so it does not list them.
foreach(deb ${CPACK_PACKAGE_FILES})
    # Not tar --delete, which loses what follows in some archives.
    execute_process(WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY
        COMMAND sh -euc "ar x '${deb}' data.tar.xz
            xz -d data.tar.xz
            mmtarfilter --path-exclude=/opt --path-exclude=/var/opt <data.tar >kept.tar
            xz -c kept.tar >data.tar.xz
            ar r '${deb}' data.tar.xz
            rm data.tar data.tar.xz kept.tar")
endforeach()
