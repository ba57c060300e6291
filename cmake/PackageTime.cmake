# Files in a package carry the time of the commit, so that packages of one commit are identical. Read by cpack.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(
    COMMAND git -C ${CPACK_SOURCE_TREE} log -1 --format=%ct
    OUTPUT_VARIABLE TIME OUTPUT_STRIP_TRAILING_WHITESPACE RESULT_VARIABLE FAILED ERROR_QUIET)
  if(NOT FAILED)
    set(ENV{SOURCE_DATE_EPOCH} ${TIME})
  endif()
endif()
