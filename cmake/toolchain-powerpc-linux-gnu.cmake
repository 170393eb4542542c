# The board: 32-bit big-endian PowerPC Linux, built with Debian's
# g++-powerpc-linux-gnu and run here under qemu-ppc.
#   cmake -S . -B build/ppc -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-powerpc-linux-gnu.cmake
set(DB_INTF_CROSS_TARGET powerpc)
set(DB_INTF_CROSS_TRIPLET powerpc-linux-gnu)
set(DB_INTF_CROSS_PROCESSOR powerpc)
set(DB_INTF_CROSS_QEMU qemu-ppc)
include(${CMAKE_CURRENT_LIST_DIR}/cross-toolchain.cmake)
