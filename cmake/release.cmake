# `cmake --build DIR --target dist` leaves wexd-<version>.tar.gz in the build folder: what is committed,
# nothing else. The same commit makes the same file, to the byte.
find_program(GIT git)
if(NOT GIT OR NOT EXISTS ${PROJECT_SOURCE_DIR}/.git)
  return()
endif()
set(release ${PROJECT_NAME}-${PROJECT_VERSION})
add_custom_target(dist
  COMMAND ${GIT} -c tar.umask=0022 archive --format=tar.gz --prefix=${release}/
          --output=${PROJECT_BINARY_DIR}/${release}.tar.gz HEAD
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "Packing what is committed as ${release}.tar.gz" VERBATIM)
