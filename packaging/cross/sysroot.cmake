# Included by the toolchain files. It sets Debian's compiler for another processor with the sysroot of
# packaging/cross/sysroot, and QEMU if it is installed. The includer sets CMAKE_SYSTEM_PROCESSOR and the
# names of the Debian architecture, of the compiler, of the library folder, and of the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../../build/sysroot/${debian_architecture})
cmake_path(NORMAL_PATH CMAKE_SYSROOT)
set(CMAKE_CXX_COMPILER ${compiler_triplet}-g++)

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Debian keeps libraries and their pkg-config files in a folder for each architecture.
set(CMAKE_LIBRARY_ARCHITECTURE ${library_folder})
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CMAKE_SYSROOT}/usr/lib/${library_folder}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)

# Only the build of the tests runs programs: it asks them for their tests.
find_program(DOCKHAND_QEMU_${debian_architecture} ${emulator})
if(DOCKHAND_QEMU_${debian_architecture})
  set(CMAKE_CROSSCOMPILING_EMULATOR ${DOCKHAND_QEMU_${debian_architecture}};-L;${CMAKE_SYSROOT})
endif()
