# What a program needs that counts which of its lines run: included before all that is to count. The
# counts are added to the .gcda files beside the objects, by each program as it ends.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  message(FATAL_ERROR "WEXD_COVERAGE needs g++, whose counts scripts/coverage reads")
endif()

add_library(coverage_ends OBJECT ${CMAKE_SOURCE_DIR}/tests/coverage/ends.c)
target_compile_options(coverage_ends PRIVATE -Wall -Wextra -Werror)

# Several threads count.
add_compile_options(--coverage -fprofile-update=atomic)
add_link_options(--coverage -Wl,--wrap=_exit)
link_libraries(coverage_ends)
