# Installs into an empty stage folder: files of an earlier install must not hide what is missing.
file(REMOVE_RECURSE ${STAGE})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${STAGE}
                COMMAND_ERROR_IS_FATAL ANY)
