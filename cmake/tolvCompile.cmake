# How every target of this project is compiled.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

if(TOLV_SANITIZE)
  # For the whole tree, GoogleTest too: a sanitizer is blind in code that was
  # built without it.
  add_compile_options(-fsanitize=${TOLV_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TOLV_SANITIZE})
endif()

# Linked by every target whose code is ours.
add_library(tolv_warnings INTERFACE)
target_compile_options(tolv_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wold-style-cast -Woverloaded-virtual -Wnon-virtual-dtor -Wcast-align
  -Wcast-qual -Wformat=2 -Wundef
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
