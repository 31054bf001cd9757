# Cross-compiles for the card's AArch64 control CPUs with Debian's cross
# toolchain (g++-aarch64-linux-gnu) and the arm64 multiarch libraries
# (libprotobuf-dev:arm64); `tools/install-deps.sh cross` installs both.
#
#   cmake --preset aarch64     (or -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake)
#
# Programs that run during the build (protoc) are the host's; libraries are
# looked up in the arm64 multiarch directories (/usr/lib/aarch64-linux-gnu) and
# the cross toolchain's own (/usr/aarch64-linux-gnu/lib), never the host's.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# The multiarch triplet: find_library() and find_path() then search
# <prefix>/lib/aarch64-linux-gnu and <prefix>/include/aarch64-linux-gnu, where
# Debian installs the arm64 packages. A find root path is not used, since those
# packages live under /usr, beside the host's.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
list(APPEND CMAKE_SYSTEM_LIBRARY_PATH /usr/aarch64-linux-gnu/lib)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
# pkg-config (which FindOpenSSL asks first) reads the arm64 packages' files only.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
