# 64-bit ARM (NVIDIA Tegra/Jetson, NXP i.MX8): Debian arm64.
set(LORUN_CROSS_TRIPLE aarch64-linux-gnu)
set(LORUN_CROSS_QEMU qemu-aarch64)
set(LORUN_DEBIAN_ARCH arm64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
