# SPDX-License-Identifier: Apache-2.0

# 32-bit Arm with hardware floating point, by Debian's cross compiler. The libraries come from a root of their own
# (tests/arm/make_root.sh), and programs run in the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/arm/root)
get_filename_component(CMAKE_SYSROOT ${CMAKE_SYSROOT} REALPATH)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm;-L;${CMAKE_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# 272 notes that the passing of some parameters changed with g++ 7: everything here is built by one compiler.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
