# Language, warnings and sanitizers of everything that is built here.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# Programs are run from the build tree: everything loadable and everything that loads lies together.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib;$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

option(POCATALOG_TESTS "Build the tests" ON)
option(POCATALOG_BENCH "Build the benchmarks" OFF)
option(POCATALOG_FUZZ "Build the fuzz targets, which needs clang++" OFF)
set(POCATALOG_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
# Boost 1.74 picks its binary-era name for placeholders unless told not to.
add_compile_definitions(BOOST_BIND_GLOBAL_PLACEHOLDERS)
include_directories(${CMAKE_SOURCE_DIR})

if(POCATALOG_SANITIZE)
  add_compile_options(-fsanitize=${POCATALOG_SANITIZE} -fno-omit-frame-pointer
                      -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${POCATALOG_SANITIZE})
endif()
if(POCATALOG_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
