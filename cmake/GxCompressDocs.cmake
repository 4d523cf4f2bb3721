# Before the packages are closed: manual pages and changelogs go into them compressed, the same bytes each time.
file(GLOB_RECURSE documents
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.[1-9] ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog.Debian)
execute_process(COMMAND gzip -9nf ${documents} COMMAND_ERROR_IS_FATAL ANY)
