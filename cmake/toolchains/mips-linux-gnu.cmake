# The router's own CPU: 32-bit big-endian MIPS (mips32r2, o32, hard-float).
# Debian 12 has no mips architecture: mbedTLS, libxcrypt and GoogleTest come
# from a prefix filled by scripts/build-mips-deps.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)

# A relative prefix is taken from the source tree; build*/ is ignored by git.
get_filename_component(_kelp_top "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
set(KELP_MIPS_PREFIX "build-deps/mips-linux-gnu"
  CACHE STRING "Prefix holding mbedTLS, libcrypt and GoogleTest built for MIPS")
get_filename_component(_kelp_mips_prefix "${KELP_MIPS_PREFIX}" ABSOLUTE BASE_DIR "${_kelp_top}")
# Try-compile projects read this file again and need the same prefix.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELP_MIPS_PREFIX)

set(CMAKE_FIND_ROOT_PATH "${_kelp_mips_prefix}" /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${_kelp_mips_prefix}/lib/pkgconfig")

# run-mips sets QEMU_LD_PREFIX and LD_LIBRARY_PATH for qemu-mips-static. The
# emulator is one program without arguments, written into the build tree, as
# programs that start it themselves may not take a list.
file(CONFIGURE OUTPUT "${CMAKE_BINARY_DIR}/run-mips" @ONLY CONTENT
  "#!/bin/sh\nexec '@_kelp_top@/scripts/run-mips' --prefix '@_kelp_mips_prefix@' \"$@\"\n")
file(CHMOD "${CMAKE_BINARY_DIR}/run-mips" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR "${CMAKE_BINARY_DIR}/run-mips")
