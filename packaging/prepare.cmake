# Run by CPack on the staged tree before it is packed, to give Debian the files as it wants them:
# programs and libraries stripped of their symbols and of the .comment and .note sections (as
# dh_strip does), manual pages and the changelog gzipped with the best compression and no name or
# time stamp inside.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    list(JOIN ARGV " " text)
    message(FATAL_ERROR "${text} failed: ${rc}")
  endif()
endfunction()

file(GLOB_RECURSE files LIST_DIRECTORIES false "${CPACK_TEMPORARY_DIRECTORY}/*")
foreach(f IN LISTS files)
  if(IS_SYMLINK "${f}")
    continue()
  endif()
  file(READ "${f}" magic LIMIT 4 HEX)
  if(magic STREQUAL "7f454c46")
    if(f MATCHES "\\.so(\\.[0-9.]+)?$")
      run(strip --remove-section=.comment --remove-section=.note --strip-unneeded "${f}")
    else()
      run(strip --remove-section=.comment --remove-section=.note "${f}")
    endif()
  elseif((f MATCHES "/share/man/" OR f MATCHES "/share/doc/[^/]+/changelog$") AND NOT f MATCHES "\\.gz$")
    run(gzip -9nf "${f}")
  endif()
endforeach()
