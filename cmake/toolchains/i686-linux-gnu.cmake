# 32-bit little-endian build with Debian's i386 multiarch libraries. The
# programs run natively where the kernel runs 32-bit programs; some kernels
# have that switched off at boot, and there KELP_I386_QEMU=ON runs them under
# qemu-user instead (scripts/test-all.sh probes and chooses).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

# The multiarch directory is i386-linux-gnu, the compiler prefix i686.
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/i386-linux-gnu/pkgconfig)

set(KELP_I386_QEMU OFF CACHE BOOL "Run the 32-bit programs under qemu-i386-static")
if(KELP_I386_QEMU)
  # A full path: test programs start the emulator themselves with execv. The
  # multiarch loader is where a 32-bit program looks for it: no -L.
  find_program(KELP_QEMU_I386 qemu-i386-static REQUIRED)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KELP_QEMU_I386}")
endif()
