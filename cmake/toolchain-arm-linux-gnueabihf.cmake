# 32-bit little-endian ARM Linux with unsigned plain char (armhf), built with
# Debian's g++-arm-linux-gnueabihf and run here under qemu-arm: beside the
# PowerPC board it tells a byte-order fault from a word-size one.
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-arm-linux-gnueabihf.cmake
set(DB_INTF_CROSS_TARGET armhf)
set(DB_INTF_CROSS_TRIPLET arm-linux-gnueabihf)
set(DB_INTF_CROSS_PROCESSOR arm)
set(DB_INTF_CROSS_QEMU qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
