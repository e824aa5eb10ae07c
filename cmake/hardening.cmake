# What makes a mistake that is left harder to use: included once, for everything that is built.
#
# The sanitizers find the same mistakes by other means, and some of these get in their way.
include(CheckCXXCompilerFlag)

if(WEXD_SANITIZE)
  return()
endif()

set(hardening -fstack-protector-strong)
# Not every processor has these; where one has none, its compiler refuses them.
foreach(flag -fstack-clash-protection -fcf-protection=full)
  string(MAKE_C_IDENTIFIER "WEXD_HAS${flag}" has)
  check_cxx_compiler_flag(${flag} ${has})
  if(${has})
    list(APPEND hardening ${flag})
  endif()
endforeach()
add_compile_options(${hardening})

# Checked library functions exist for optimised code only.
add_compile_options("$<$<NOT:$<CONFIG:Debug>>:SHELL:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3>")

# Functions of libraries are all looked up at the start, and the table of them is read-only from then
# on. Code that is generated at link time takes the flags from there.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_link_options(${hardening} -Wl,-z,relro -Wl,-z,now)
if(WEXD_HAS_fcf_protection_full)
  # The start files of the C library lack the mark of code that a shadow stack suits, but are such.
  add_link_options(-Wl,-z,shstk)
endif()

include(CheckPIESupported)
check_pie_supported(LANGUAGES C CXX)
