# GoogleTest and the one way to add a test program.
include(GoogleTest)

set(TOLV_GOOGLETEST_DIR /usr/src/googletest CACHE PATH
  "GoogleTest's sources; built with the flags of this build tree")
if(EXISTS "${TOLV_GOOGLETEST_DIR}/CMakeLists.txt")
  block()
    set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
    set(INSTALL_GTEST OFF)
    set(BUILD_GMOCK OFF)
    add_subdirectory("${TOLV_GOOGLETEST_DIR}"
      "${CMAKE_BINARY_DIR}/googletest" EXCLUDE_FROM_ALL SYSTEM)
  endblock()
else()
  find_package(GTest REQUIRED)
  add_library(gtest ALIAS GTest::gtest)
  add_library(gtest_main ALIAS GTest::gtest_main)
endif()

set(TOLV_TEST_TIMEOUT_FACTOR 1 CACHE STRING
  "How many times longer a test may take here than natively")

# Where tests write that give no folder of their own: neither the machine's
# shared memory nor its error log is theirs to fill.
set(TOLV_TEST_SCRATCH "${CMAKE_BINARY_DIR}/scratch")
file(REMOVE_RECURSE "${TOLV_TEST_SCRATCH}")
file(MAKE_DIRECTORY "${TOLV_TEST_SCRATCH}/errorlog")

# What tolv_test() and tolv_sctp_test() have in common.
function(tolv_test_program NAME SOURCE)
  cmake_parse_arguments(PARSE_ARGV 2 ARG "" "" "WRAP;SOURCES;LIBRARIES")
  add_executable(${NAME} ${SOURCE} ${ARG_SOURCES})
  target_include_directories(${NAME} PRIVATE "${PROJECT_SOURCE_DIR}/tests")
  # The library is tested as the preset optimises it. Optimising the tests as
  # well would take longer than running them.
  target_compile_options(${NAME} PRIVATE -O0)
  target_link_libraries(${NAME} PRIVATE
    ${ARG_LIBRARIES} gtest gtest_main tolv_warnings)
  foreach(l_function IN LISTS ARG_WRAP)
    target_link_options(${NAME} PRIVATE "LINKER:--wrap=${l_function}")
  endforeach()
endfunction()

# tolv_test(SOURCE [WRAP function ...] [SOURCES file ...] [LIBRARIES target ...]
#           [NAME name] [TIMEOUT seconds])
#
# One program from SOURCE, named after its file, linked with the objects of the
# library so that tests reach what is private; every test of it is a process of
# its own. WRAP: libc functions that the program replaces (it defines
# __wrap_NAME and may call __real_NAME). SOURCES: more files, for example from
# tests/support. LIBRARIES: used in place of the library's objects and the
# platform. NAME: for a second program from the same file; the names of its
# tests begin with it. TIMEOUT: the limit of one test as it runs natively, 30
# seconds unless said.
function(tolv_test SOURCE)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "NAME;TIMEOUT"
    "WRAP;SOURCES;LIBRARIES")
  cmake_path(GET SOURCE STEM l_name)
  set(l_prefix "")
  if(ARG_NAME)
    set(l_name ${ARG_NAME})
    set(l_prefix ${ARG_NAME}.)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 30)
  endif()
  if(NOT ARG_LIBRARIES)
    set(ARG_LIBRARIES tolv_objects)
  endif()
  tolv_test_program(${l_name} ${SOURCE} WRAP ${ARG_WRAP}
    SOURCES ${ARG_SOURCES} LIBRARIES ${ARG_LIBRARIES})
  math(EXPR l_timeout "${ARG_TIMEOUT} * ${TOLV_TEST_TIMEOUT_FACTOR}")
  gtest_discover_tests(${l_name} TEST_PREFIX "${l_prefix}" DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${l_timeout}
      # Two properties, because a list does not survive the way to ctest.
      ENVIRONMENT "TOLV_TRACE_DIR=${TOLV_TEST_SCRATCH}"
      ENVIRONMENT_MODIFICATION
        "TOLV_ERRORLOG=set:${TOLV_TEST_SCRATCH}/errorlog")
endfunction()

# tolv_sctp_test(SOURCE [WRAP function ...] [SOURCES file ...])
#
# As tolv_test(), for tests that need SCTP sockets: ctest does not know them,
# because few kernels have SCTP; the lane sctp runs them in a virtual machine,
# as root. Statically linked: the machine has no libraries. Where the library
# calls the resolver the linker warns that names need shared libraries at run
# time; numeric addresses do not.
add_custom_target(tolv_sctp_tests)
file(GENERATE OUTPUT "${CMAKE_BINARY_DIR}/sctpTests.txt" CONTENT
  "$<JOIN:$<TARGET_PROPERTY:tolv_sctp_tests,TOLV_PROGRAMS>,\n>\n")
function(tolv_sctp_test SOURCE)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "WRAP;SOURCES")
  cmake_path(GET SOURCE STEM l_name)
  tolv_test_program(${l_name} ${SOURCE} WRAP ${ARG_WRAP}
    SOURCES ${ARG_SOURCES} $<TARGET_OBJECTS:tolv_objects>
    LIBRARIES tolvplatform_static -l:libsctp.a)
  # The objects without what they ask to be linked with, which is shared.
  target_include_directories(${l_name} PRIVATE "${PROJECT_SOURCE_DIR}/src"
    ${LIBSCTP_INCLUDE_DIRS})
  target_link_directories(${l_name} PRIVATE ${LIBSCTP_LIBRARY_DIRS})
  target_link_options(${l_name} PRIVATE -static)
  set_target_properties(${l_name} PROPERTIES EXCLUDE_FROM_ALL TRUE)
  add_dependencies(tolv_sctp_tests ${l_name})
  set_property(TARGET tolv_sctp_tests APPEND PROPERTY
    TOLV_PROGRAMS "${CMAKE_CURRENT_BINARY_DIR}/${l_name}")
endfunction()
