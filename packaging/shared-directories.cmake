# cpack runs this once it has packed. A package that lists /opt and /var/opt takes them with it when it
# is purged, if they are empty then, whoever made them; so it does not list them.
foreach(deb ${CPACK_PACKAGE_FILES})
    execute_process(WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY} COMMAND_ERROR_IS_FATAL ANY
        COMMAND sh -euc "rm -rf shared
            mkdir shared
            cd shared
            ar p '${deb}' data.tar.xz | tar -xpJ
            find . -mindepth 1 ! -path ./opt ! -path ./var/opt | LC_ALL=C sort |
                tar -c --no-recursion --owner=root:0 --group=root:0 -J -f ../data.tar.xz -T -
            cd ..
            ar r '${deb}' data.tar.xz
            rm -r shared data.tar.xz")
endforeach()
