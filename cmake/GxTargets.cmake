# Options for all targets of the project, and the functions that declare libraries and tests.

add_library(gx_options INTERFACE)
target_compile_features(gx_options INTERFACE cxx_std_20)
target_compile_options(gx_options INTERFACE
  -Wall -Wextra -Wpedantic
  $<$<NOT:$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wshadow>  # in a unity build, a file sees the names of the others
  -Wconversion
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  # A class derives twice from IReference, through its interface and through CReference, and overrides both.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-inaccessible-base>
  # GCC 12 sees an overlap in std::string's operator+ that is not there.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${GX_WERROR}>:-Werror>
  # The module exports one function, and dlclose has to unmap it: no unique symbols.
  -fvisibility=hidden -fvisibility-inlines-hidden
  $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

# Hardening as in distribution packages: many memory errors then end in a crash instead of an exploit.
include(CheckCXXCompilerFlag)
include(CheckPIESupported)
check_pie_supported()
set(CMAKE_REQUIRED_FLAGS -Werror)  # Clang only warns about flags that the processor does not support
foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "GX_HAS${flag}" has_flag)
  check_cxx_compiler_flag(${flag} ${has_flag})
  if(${has_flag} AND NOT GX_SANITIZE)
    target_compile_options(gx_options INTERFACE ${flag})
  endif()
endforeach()
unset(CMAKE_REQUIRED_FLAGS)
if(NOT GX_SANITIZE)
  target_compile_options(gx_options INTERFACE $<$<CONFIG:Release>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
endif()
target_link_options(gx_options INTERFACE $<$<PLATFORM_ID:Linux>:LINKER:-z,relro,-z,now>)

if(GX_SANITIZE)
  target_compile_options(gx_options INTERFACE
    -fsanitize=${GX_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(gx_options INTERFACE -fsanitize=${GX_SANITIZE})
endif()
if(GX_BUILD_FUZZERS)
  target_compile_options(gx_options INTERFACE -fsanitize=fuzzer-no-link)
endif()

# Declares the static library gx_<name> of one folder under src/. It uses the libraries named after DEPENDS.
function(gx_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_library(gx_${name} STATIC ${ARG_SOURCES})
  target_include_directories(gx_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(gx_${name} PUBLIC ${ARG_DEPENDS} PRIVATE gx_options)
endfunction()

# Declares one test program; ctest lists its cases by name. Compiling it as one piece takes a third of the time.
function(gx_test name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPENDS} gx_options GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endfunction()
