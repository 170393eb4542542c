# Shared part of the toolchain files for the board's 32-bit Linux targets, built
# with Debian's cross compilers on a build machine and run there under qemu
# user-mode emulation. A toolchain file sets DB_INTF_CROSS_TARGET, DB_INTF_CROSS_TRIPLET,
# DB_INTF_CROSS_PROCESSOR and DB_INTF_CROSS_QEMU, then includes this file.
#
# Libraries for the target come from DB_INTF_CROSS_PREFIX (a cache variable or
# an environment variable; scripts/cross-test builds that prefix from Debian's
# source packages). Programs are never taken from it: protoc is the build
# machine's, of the same version as the target's libprotobuf.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${DB_INTF_CROSS_PROCESSOR})
set(CMAKE_C_COMPILER ${DB_INTF_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${DB_INTF_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${DB_INTF_CROSS_TRIPLET})

if(NOT DB_INTF_CROSS_PREFIX)
  if(DEFINED ENV{DB_INTF_CROSS_PREFIX})
    set(DB_INTF_CROSS_PREFIX $ENV{DB_INTF_CROSS_PREFIX})
  else()
    get_filename_component(DB_INTF_CROSS_PREFIX
      "${CMAKE_CURRENT_LIST_DIR}/../build/cross/${DB_INTF_CROSS_TARGET}/deps" ABSOLUTE)
  endif()
endif()
set(DB_INTF_CROSS_PREFIX "${DB_INTF_CROSS_PREFIX}" CACHE PATH "Libraries built for the target")
# try_compile projects run this file again and need the same prefix.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DB_INTF_CROSS_PREFIX)

set(CMAKE_FIND_ROOT_PATH ${DB_INTF_CROSS_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "protoc of the build machine")

# Libraries of the prefix link others by bare name (LevelDB's exported target
# names "snappy"), and their own dependencies must resolve at link time.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-L${DB_INTF_CROSS_PREFIX}/lib -Wl,-rpath-link,${DB_INTF_CROSS_PREFIX}/lib")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${CMAKE_EXE_LINKER_FLAGS_INIT}")

# The kernel here cannot start target programs (no binfmt registration), so
# tests, test discovery and every program a test starts run through
# scripts/target-run, which puts qemu in between (see that script).
get_filename_component(DB_INTF_CROSS_RUN "${CMAKE_CURRENT_LIST_DIR}/../scripts/target-run" ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${DB_INTF_CROSS_RUN};${DB_INTF_CROSS_QEMU}"
    "-L;/usr/${DB_INTF_CROSS_TRIPLET};-E;LD_LIBRARY_PATH=${DB_INTF_CROSS_PREFIX}/lib;--")
