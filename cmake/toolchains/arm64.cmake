# The instrument's 64-bit target: aarch64-linux-gnu (Debian arm64). See debian-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(RFSI_TARGET_TRIPLET aarch64-linux-gnu)
set(RFSI_TARGET_LOADER /lib/ld-linux-aarch64.so.1)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
