# Debian's cross compiler for armhf, with that architecture's libraries (dpkg --add-architecture armhf).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7)
set(GX_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
