# 32-bit x86.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(debian_architecture i386)
set(compiler_triplet i686-linux-gnu)
set(library_folder i386-linux-gnu)
set(emulator qemu-i386-static)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot.cmake)
