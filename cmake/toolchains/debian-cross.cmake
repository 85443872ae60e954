# Shared part of the toolchain files: Debian's cross compiler for RFSI_TARGET_TRIPLET, and a target
# sysroot (RFSI_TARGET_SYSROOT, made by scripts/cross/prepare-sysroot) for Qt and GoogleTest.
# With RFSI_LINK_FOR_EMULATION, programs are linked to the sysroot's dynamic linker and libraries, so
# that they run here under qemu-user without qemu's -L; without it, they are built for the instrument.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${RFSI_TARGET_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${RFSI_TARGET_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${RFSI_TARGET_TRIPLET})

# try_compile projects read this file again and need the same settings.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RFSI_TARGET_SYSROOT RFSI_TARGET_EMULATOR RFSI_LINK_FOR_EMULATION)
if(NOT RFSI_TARGET_SYSROOT OR NOT EXISTS "${RFSI_TARGET_SYSROOT}/usr/lib/${RFSI_TARGET_TRIPLET}")
    message(FATAL_ERROR "RFSI_TARGET_SYSROOT must name a sysroot made by scripts/cross/prepare-sysroot")
endif()

set(CMAKE_FIND_ROOT_PATH ${RFSI_TARGET_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(target_libraries "${RFSI_TARGET_SYSROOT}/lib/${RFSI_TARGET_TRIPLET}:${RFSI_TARGET_SYSROOT}/usr/lib/${RFSI_TARGET_TRIPLET}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${target_libraries}")
if(RFSI_LINK_FOR_EMULATION)
    # For running here under qemu-user: programs use the sysroot's loader and libraries. DT_RPATH, not
    # DT_RUNPATH, so that it also serves the libraries' own dependencies (Qt's zlib, ICU, ...).
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${RFSI_TARGET_SYSROOT}${RFSI_TARGET_LOADER} \
-Wl,--disable-new-dtags -Wl,-rpath,${target_libraries} -Wl,-rpath-link,${target_libraries}")
    # Our libraries too: a DT_RUNPATH of theirs would hide the program's path from their own
    # dependencies (libgcc_s for a program that does not load it first).
    string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,--disable-new-dtags -Wl,-rpath,${target_libraries}")
else()
    # For the instrument: its own loader and libraries, found where the system keeps them.
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${target_libraries}")
endif()
if(RFSI_TARGET_EMULATOR)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${RFSI_TARGET_EMULATOR})
endif()
# Qt 6's CMake files run Qt's tools (moc and the like) of the build machine, from Debian's Qt 6 there:
# the target's own would not run here.
execute_process(COMMAND dpkg-architecture -qDEB_BUILD_MULTIARCH OUTPUT_VARIABLE build_multiarch
    OUTPUT_STRIP_TRAILING_WHITESPACE)
set(QT_HOST_PATH /usr)
set(Qt6CoreTools_DIR /usr/lib/${build_multiarch}/cmake/Qt6CoreTools)
