# Build options, language level, warnings and floating-point rules: the same for every room.

option(TORVALE_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
set(TORVALE_BENCH OFF CACHE STRING "Benchmarks: ON builds them, CHECK compiles them quickly and links nothing")
option(TORVALE_APP "Build the command line program" ${PROJECT_IS_TOP_LEVEL})
option(TORVALE_INSTALL "Rules of installation and packages" ON)
option(TORVALE_WERROR "Warnings are errors" ${PROJECT_IS_TOP_LEVEL})
option(TORVALE_STATIC "Put libraries into the program where the distribution has archives of them: it starts faster" ON)
option(TORVALE_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
set(TORVALE_SANITIZE "" CACHE STRING "Sanitizers: address;undefined or thread")

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "" FORCE)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE}")
endif()

add_library(torvale_flags INTERFACE)
target_compile_options(torvale_flags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow $<$<BOOL:${TORVALE_WERROR}>:-Werror>
  # One point has one bit pattern: no contraction, no reassociation, in any build.
  -ffp-contract=off -fno-fast-math)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12 warns of overlapping copies in plain string concatenation (its bug 105651).
  target_compile_options(torvale_flags INTERFACE -Wno-restrict)
endif()
if(TORVALE_SANITIZE)
  list(JOIN TORVALE_SANITIZE "," sanitizers)
  target_compile_options(torvale_flags INTERFACE -fsanitize=${sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all
    -Wno-maybe-uninitialized) # the compiler sees it in the library's regular expressions when they are instrumented
  target_link_options(torvale_flags INTERFACE -fsanitize=${sanitizers})
endif()
if(TORVALE_SANITIZE)
  set(TORVALE_STATIC OFF)
endif()

# torvale_find_library: a library of the distribution, as an archive where there is one and it is wanted.
macro(torvale_find_library variable name)
  if(TORVALE_STATIC)
    find_library(${variable} NAMES lib${name}.a ${name} REQUIRED)
  else()
    find_library(${variable} ${name} REQUIRED)
  endif()
endmacro()

# Files with vectors of four doubles (evaluation/slot_group.h), on machines without AVX too. Where there is AVX arrays of
# vectors are set and copied by whole vectors: one that was written in halves is waited for when it is read.
include(CheckCXXCompilerFlag)
set(TORVALE_OPTIONS_OF_FOUR -Wno-psabi)
check_cxx_compiler_flag("-mstore-max=256 -mmove-max=256" TORVALE_HAS_WIDE_MOVES)
if(TORVALE_HAS_WIDE_MOVES)
  list(APPEND TORVALE_OPTIONS_OF_FOUR -mstore-max=256 -mmove-max=256)
endif()
