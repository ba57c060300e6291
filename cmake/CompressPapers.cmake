# Debian's manual pages and changelogs are compressed. Run by cpack on each package's files.
file(GLOB_RECURSE PAPERS ${CPACK_TEMPORARY_DIRECTORY}/*.[158] ${CPACK_TEMPORARY_DIRECTORY}/*/changelog)
execute_process(COMMAND gzip -9nf ${PAPERS} COMMAND_ERROR_IS_FATAL ANY)
