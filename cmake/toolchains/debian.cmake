# Cross-building on Debian: its cross compilers, and libraries of the target's architecture installed
# beside the machine's own. The toolchain file of an architecture sets `triplet` and includes this.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
set(PKG_CONFIG_EXECUTABLE /usr/bin/${triplet}-pkg-config CACHE FILEPATH "pkg-config of the target")

# What was built can be run here, on an emulator of the processor.
find_program(WEXD_EMULATOR NAMES qemu-${CMAKE_SYSTEM_PROCESSOR}-static qemu-${CMAKE_SYSTEM_PROCESSOR})
if(WEXD_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${WEXD_EMULATOR})
endif()
