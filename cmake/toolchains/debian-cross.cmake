# Shared part of the Debian cross toolchains: compilers from
# crossbuild-essential-ARCH, libraries from a sysroot of the target's -dev
# packages (scripts/cross.sh makes it), and the target's programs run through
# qemu-user, so that CTest runs the whole suite here.
# Expects LORUN_CROSS_TRIPLE, LORUN_CROSS_QEMU, LORUN_DEBIAN_ARCH and LORUN_SYSROOT.
if(NOT LORUN_SYSROOT)
  message(FATAL_ERROR "LORUN_SYSROOT must name the target's sysroot (scripts/cross.sh makes one).")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LORUN_SYSROOT)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${LORUN_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${LORUN_CROSS_TRIPLE}-g++)
set(CMAKE_SYSROOT ${LORUN_SYSROOT})
set(CMAKE_LIBRARY_ARCHITECTURE ${LORUN_CROSS_TRIPLE})
# Installed and packaged into the target's multiarch folders, as Debian's own
# libraries are (GNUInstallDirs does this only for native builds).
# (A build folder configured before kept GNUInstallDirs' plain "lib": replaced.)
if(NOT CMAKE_INSTALL_LIBDIR OR CMAKE_INSTALL_LIBDIR STREQUAL "lib")
  set(CMAKE_INSTALL_LIBDIR lib/${LORUN_CROSS_TRIPLE} CACHE PATH "Object code libraries (lib/${LORUN_CROSS_TRIPLE})" FORCE)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${LORUN_CROSS_QEMU};-L;${LORUN_SYSROOT})
# pkg-config reads the target's .pc files and prefixes their paths with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${LORUN_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
    "${LORUN_SYSROOT}/usr/lib/${LORUN_CROSS_TRIPLE}/pkgconfig:${LORUN_SYSROOT}/usr/share/pkgconfig")
# Both cross targets' libraries were built with these; the sysroot's libstdc++ too.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${LORUN_SYSROOT}/usr/lib/${LORUN_CROSS_TRIPLE}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${LORUN_SYSROOT}/usr/lib/${LORUN_CROSS_TRIPLE}")
