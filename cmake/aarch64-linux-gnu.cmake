# SPDX-License-Identifier: Apache-2.0
# Cross-compiling for arm64 with Debian's aarch64 toolchain and the arm64 multiarch packages of
# every dependency; test programs run under qemu-user.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
# The static emulator: the dynamic one stalls in forked children of threaded programs.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
