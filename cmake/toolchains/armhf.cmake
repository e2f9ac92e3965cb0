# Cross-compiles for Debian's armhf; crossbuild-essential-armhf and the libraries of that
# architecture are expected where Debian's multi-arch puts them.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_NM arm-linux-gnueabihf-nm)
# g++ notes where calls by value changed between its versions; no library here is that old.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
set(PKG_CONFIG_EXECUTABLE arm-linux-gnueabihf-pkg-config)
