# Runs between the staging of the packages and their making: pages and change logs are compressed there, without a
# time stamp, so that the same sources make the same packages.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/* ${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/doc/*/changelog*)
foreach(text ${texts})
    execute_process(COMMAND gzip -9 --no-name ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
