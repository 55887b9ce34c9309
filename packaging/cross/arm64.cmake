# 64-bit ARM.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(debian_architecture arm64)
set(compiler_triplet aarch64-linux-gnu)
set(library_folder aarch64-linux-gnu)
set(emulator qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
