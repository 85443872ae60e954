# The instrument's 32-bit target: arm-linux-gnueabihf (Debian armhf). See debian-cross.cmake.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(RFSI_TARGET_TRIPLET arm-linux-gnueabihf)
set(RFSI_TARGET_LOADER /lib/ld-linux-armhf.so.3)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
