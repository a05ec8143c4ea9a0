# 32-bit ARM with hard float (NXP i.MX6, Nitrogen, Wandboard): Debian armhf.
set(LORUN_CROSS_TRIPLE arm-linux-gnueabihf)
set(LORUN_CROSS_QEMU qemu-arm)
set(LORUN_DEBIAN_ARCH armhf)
# Every part is built by this one compiler: its note on the ABI change of GCC 7.1 says nothing here.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
