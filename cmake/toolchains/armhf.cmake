# 32-bit ARM with hard float (NXP i.MX6, Nitrogen, Wandboard): Debian armhf.
set(LORUN_CROSS_TRIPLE arm-linux-gnueabihf)
set(LORUN_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
