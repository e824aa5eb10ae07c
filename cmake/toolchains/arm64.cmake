set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(debian_architecture arm64)
set(triplet aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
