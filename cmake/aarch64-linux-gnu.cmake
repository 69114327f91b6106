# SPDX-License-Identifier: Apache-2.0
# Debian's compiler for arm64: the cross compiler, or on arm64 itself the native one, which has the same name there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
