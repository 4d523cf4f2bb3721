# Debian's cross compiler for arm64, with that architecture's libraries (dpkg --add-architecture arm64).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(GX_TRIPLET aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
