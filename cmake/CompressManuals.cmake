# Debian's manual pages are compressed. Run by cpack on each package's files.
file(GLOB_RECURSE PAGES ${CPACK_TEMPORARY_DIRECTORY}/*.[158])
execute_process(COMMAND gzip -9nf ${PAGES} COMMAND_ERROR_IS_FATAL ANY)
