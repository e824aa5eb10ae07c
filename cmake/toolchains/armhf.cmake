set(CMAKE_SYSTEM_PROCESSOR arm)
set(debian_architecture armhf)
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
