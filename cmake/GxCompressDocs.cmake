# Runs before CPack packs the files: compresses manual pages and changelogs reproducibly.
file(GLOB_RECURSE documents
  ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.[1-9] ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog.Debian)
execute_process(COMMAND gzip -9nf ${documents} COMMAND_ERROR_IS_FATAL ANY)
