# Debian's cross compiler for riscv64. Debian 12 has only the compiler's own libraries for it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR riscv64)
set(GX_TRIPLET riscv64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
