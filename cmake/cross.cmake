# What the ARM toolchain files share.  Before including it a toolchain file
# sets CMAKE_SYSTEM_PROCESSOR, VRIX_CROSS_TRIPLE (the Debian triplet of the
# cross compiler), VRIX_CROSS_ARCH (Debian's name of the architecture) and
# VRIX_CROSS_QEMU (the user-mode emulator that runs its programs here).
#
# The compilers are Debian's cross compilers (crossbuild-essential-<arch>).
# The C library and libstdc++ come with them under /usr/<triplet>; the other
# target libraries (SQLite, GoogleTest) are the Debian packages of the target
# architecture unpacked by `./dev.sh cross <arch>` under .cross/<arch> of the
# source tree, so that the build needs no multiarch installation on the host
# (whose shared packages must then match the host's versions exactly).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${VRIX_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VRIX_CROSS_TRIPLE}-g++)

get_filename_component(vrix_cross_root "${CMAKE_CURRENT_LIST_DIR}/../.cross/${VRIX_CROSS_ARCH}"
  ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH /usr/${VRIX_CROSS_TRIPLE} ${vrix_cross_root})
set(CMAKE_LIBRARY_ARCHITECTURE ${VRIX_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# Headers and CMake packages: the target's first, then the host's
# architecture-independent ones (CLI11 and nlohmann_json are headers only).
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config sees the target's .pc files only: the host's libfuse3 or
# libavformat must not be taken for the target's.
set(ENV{PKG_CONFIG_LIBDIR}
  "${vrix_cross_root}/usr/lib/${VRIX_CROSS_TRIPLE}/pkgconfig:${vrix_cross_root}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${vrix_cross_root}")

# Tests (and the listing of a test binary's cases at build time) run under
# user-mode emulation with the target's loader and libraries.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VRIX_CROSS_QEMU} -L /usr/${VRIX_CROSS_TRIPLE})
