# Run by CPack on the staged tree before it is packed: Debian wants manual
# pages compressed with gzip -9n (no name, no time: the same bytes each build).
file(GLOB_RECURSE staged "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*")
list(FILTER staged INCLUDE REGEX "/share/man/man[1-8]/[^/]+\\.[1-8]$")
foreach(page IN LISTS staged)
  execute_process(COMMAND gzip -9nf ${page} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
