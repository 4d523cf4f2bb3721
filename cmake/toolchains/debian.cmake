# Settings for all of Debian's cross compilers. GX_TRIPLET is the prefix of their tools.
set(CMAKE_C_COMPILER ${GX_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${GX_TRIPLET}-g++)
# Header-only libraries, and those that are used as such, come from the build system's packages.
file(GLOB own_cmake_files /usr/lib/*-linux-gnu*/cmake)
list(APPEND CMAKE_PREFIX_PATH /usr ${own_cmake_files})
