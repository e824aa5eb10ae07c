# What makes the programs that ship small and quick: included once, for everything that is built.
#
# Code that nobody calls is left out, and the programs are optimised as a whole, with all libraries of
# this tree in them. The objects of the libraries hold ordinary code as well, which is what tests are
# linked from (see tests/unit).
include(CheckIPOSupported)

set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--gc-sections -Wl,--as-needed)

# The dynamic linker of the C library that knows the packed form says so to those who link with it.
include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,-z,pack-relative-relocs WEXD_HAS_PACKED_RELOCATIONS)
if(WEXD_HAS_PACKED_RELOCATIONS)
  add_link_options(-Wl,-z,pack-relative-relocs)
endif()

option(WEXD_STATIC_LIBSTDCXX
  "Link the C++ library into the programs, for devices without another one in C++" OFF)
if(WEXD_STATIC_LIBSTDCXX)
  add_link_options(-static-libstdc++ -static-libgcc)
endif()

# Only this compiler makes objects that hold both.
if(WEXD_SANITIZE OR WEXD_COVERAGE OR NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  return()
endif()
check_ipo_supported(LANGUAGES C CXX)
foreach(config RELEASE RELWITHDEBINFO MINSIZEREL)
  set(CMAKE_INTERPROCEDURAL_OPTIMIZATION_${config} ON)
endforeach()
add_compile_options($<$<NOT:$<CONFIG:Debug>>:-ffat-lto-objects>)
