# Builds for arm64 on another architecture with Debian's compiler and libraries, and
# runs the programs in an emulator. docs/arm64.md describes it.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc CACHE STRING "C compiler")
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++ CACHE STRING "C++ compiler")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)

# The cross compiler has a C library of its own, which gets no security updates;
# link statically with Debian's libraries for arm64.
set(CMAKE_EXE_LINKER_FLAGS_INIT -L/usr/lib/aarch64-linux-gnu)

# Debian's libyaml-cpp-dev cannot be installed for two architectures at a time;
# scripts/common.sh unpacks it here.
list(PREPEND CMAKE_PREFIX_PATH
  ${CMAKE_CURRENT_LIST_DIR}/../build-arm64/debian/usr)

# No library of the building machine.
set(ENV{PKG_CONFIG_LIBDIR}
  /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(CMAKE_IGNORE_PATH /usr/lib/x86_64-linux-gnu /lib/x86_64-linux-gnu)
