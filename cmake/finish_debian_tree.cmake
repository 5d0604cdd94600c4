# Run by CPack over the installed tree before it is packed: what debhelper would do.
file(GLOB_RECURSE documents LIST_DIRECTORIES OFF
     ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.1 ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog
     ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/changelog.Debian)
foreach(document IN LISTS documents)
  execute_process(COMMAND gzip --best --no-name --force ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()

file(GLOB_RECURSE archives LIST_DIRECTORIES OFF ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
  execute_process(
    COMMAND strip --strip-debug --remove-section=.comment --remove-section=.note
            --enable-deterministic-archives ${archive} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
