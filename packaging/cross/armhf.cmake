# 32-bit ARM with floating point in hardware (ARMv7).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(debian_architecture armhf)
set(compiler_triplet arm-linux-gnueabihf)
set(library_folder arm-linux-gnueabihf)
set(emulator qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
