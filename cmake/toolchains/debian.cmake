# What Debian's cross compilers have in common. GX_TRIPLET is the prefix of their tools.
set(CMAKE_C_COMPILER ${GX_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${GX_TRIPLET}-g++)
# Headers and CMake's files of libraries that are headers only, or used as such, are this system's own.
file(GLOB own_cmake_files /usr/lib/*-linux-gnu*/cmake)
list(APPEND CMAKE_PREFIX_PATH /usr ${own_cmake_files})
