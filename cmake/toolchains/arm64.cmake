# Cross-compiles for Debian's arm64; crossbuild-essential-arm64 and the libraries of that
# architecture are expected where Debian's multi-arch puts them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_NM aarch64-linux-gnu-nm)
set(PKG_CONFIG_EXECUTABLE aarch64-linux-gnu-pkg-config)
