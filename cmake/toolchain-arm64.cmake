# Cross-building for 64-bit ARM with Debian's arm64 packages (`dpkg --add-architecture arm64`, then
# the -dev packages as name:arm64). scripts/build-arm64 sets up a tree that has them.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Debian keeps the libraries of all architectures in one tree, so only the path of pkg-config must
# change.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")

# Runs the unit tests, also to list them.
find_program(VELANTRIX_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64)
if(VELANTRIX_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VELANTRIX_QEMU_AARCH64})
endif()

set(VELANTRIX_DEBIAN_ARCHITECTURE arm64)
