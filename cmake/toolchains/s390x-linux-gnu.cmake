# 64-bit big-endian build with Debian's multiarch libraries; tests run under
# qemu-user. No -L for qemu: the cross toolchain's loader would meet the
# multiarch libc and abort every program.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(CMAKE_C_COMPILER s390x-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER s390x-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/s390x-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/s390x-linux-gnu/pkgconfig)

# A full path: test programs start the emulator themselves with execv.
find_program(KELP_QEMU_S390X qemu-s390x-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${KELP_QEMU_S390X}")
