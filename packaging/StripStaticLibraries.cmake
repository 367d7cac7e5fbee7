# Run by CPack once it has installed the packages' files into its staging
# folder: the static libraries lose their debug information (and notes and
# comments), as dh_strip treats them; CPACK_STRIP_FILES strips only programs.
file(GLOB_RECURSE archives "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a")
foreach(archive IN LISTS archives)
  execute_process(COMMAND ${CPACK_KVTRACK_STRIP} --strip-debug --remove-section=.comment
                          --remove-section=.note --enable-deterministic-archives ${archive}
                  COMMAND_ERROR_IS_FATAL ANY)
endforeach()
