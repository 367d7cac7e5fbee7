# Fails the configuration when a source file of a layer includes a header of
# a layer above it. A file's layer is its folder under kvtrack/ (tools/ is the
# top); a folder missing from the list is an error too, so new subsystems
# have to take their place in the order.
function(kvtrack_check_layers)
  set(layers ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS
       ${PROJECT_SOURCE_DIR}/kvtrack/*.h ${PROJECT_SOURCE_DIR}/kvtrack/*.cpp
       ${PROJECT_SOURCE_DIR}/tools/*.h ${PROJECT_SOURCE_DIR}/tools/*.cpp)
  set(violations "")
  foreach(source IN LISTS sources)
    file(RELATIVE_PATH relative ${PROJECT_SOURCE_DIR} ${source})
    get_filename_component(folder ${relative} DIRECTORY)
    string(REGEX REPLACE "^kvtrack/" "" layer ${folder})
    string(REGEX REPLACE "^tools/.*" "tools" layer ${layer})
    list(FIND layers ${layer} own)
    if(own EQUAL -1)
      string(APPEND violations "\n  ${relative}: folder ${layer} has no place in KVTRACK_LAYERS")
      continue()
    endif()
    file(STRINGS ${source} includes REGEX "^#include \"kvtrack/")
    foreach(line IN LISTS includes)
      string(REGEX REPLACE "^#include \"kvtrack/(.*)/[^/]*\".*" "\\1" used ${line})
      list(FIND layers ${used} below)
      if(below EQUAL -1 OR below GREATER own)
        string(APPEND violations "\n  ${relative} (${layer}) includes kvtrack/${used}, a layer above it")
      endif()
    endforeach()
  endforeach()
  if(violations)
    message(FATAL_ERROR "Includes against the layer order:${violations}")
  endif()
endfunction()
