# How this project builds a library, a program and a test.
include_guard()

set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
# Where programs are that this machine can run: for another architecture, through the emulator.
set(KOVA_LAUNCH_DIR "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
if(CMAKE_CROSSCOMPILING)
  set(KOVA_LAUNCH_DIR "${CMAKE_BINARY_DIR}/emulated")
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

find_package(Threads REQUIRED)
find_package(Protobuf 3.21 REQUIRED)
if(NOT KOVA_PLATFORM_PACKAGE)
  find_package(PkgConfig REQUIRED)
  find_package(ZLIB REQUIRED)
  pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()
include(Hardening)

# Everything of ours is compiled with these; generated code is not.
add_library(kova_warnings INTERFACE)
target_compile_options(kova_warnings INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror)

if(KOVA_SANITIZER)
  add_compile_options(-fsanitize=${KOVA_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${KOVA_SANITIZER})
  if(KOVA_SANITIZER MATCHES thread)
    add_compile_options(-Wno-tsan)  # asio's fences, which that sanitizer does not model
  else()
    # With these sanitizers GCC reports members of std::regex that are initialised; its manual warns
    # of it. The other presets keep the warning.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()

# kova_generated(FILE...): sources that the build makes. The target kova_generated makes all of them and
# nothing else, for tools that read the code without compiling it.
add_custom_target(kova_generated)
function(kova_generated)
  file(RELATIVE_PATH folder "${PROJECT_SOURCE_DIR}" "${CMAKE_CURRENT_SOURCE_DIR}")
  string(MAKE_C_IDENTIFIER "kova_generated_${folder}" target)
  add_custom_target(${target} DEPENDS ${ARGN})
  add_dependencies(kova_generated ${target})
endfunction()

# kova_library(ServiceIPC NAMESPACE zelt SOURCES src/A.cpp PUBLIC zelt::Base PRIVATE PkgConfig::SYSTEMD)
# A library with public headers under include/, alias <NAMESPACE>::<name>.
function(kova_library name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAMESPACE" "SOURCES;PUBLIC;PRIVATE")
  set(target ${arg_NAMESPACE}_${name})
  if(arg_SOURCES)
    add_library(${target} STATIC ${arg_SOURCES})
    target_include_directories(${target} PUBLIC include PRIVATE src)
    target_link_libraries(${target} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE} kova_warnings)
  else()
    add_library(${target} INTERFACE)
    target_include_directories(${target} INTERFACE include)
    target_link_libraries(${target} INTERFACE ${arg_PUBLIC})
  endif()
  add_library(${arg_NAMESPACE}::${name} ALIAS ${target})
endfunction()

# kova_fake(ServiceIPC NAMESPACE zelt PUBLIC ...): header-only substitutes for tests, under fake/.
function(kova_fake name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "NAMESPACE" "PUBLIC")
  set(target ${arg_NAMESPACE}_${name}Fake)
  add_library(${target} INTERFACE)
  target_include_directories(${target} INTERFACE fake)
  target_link_libraries(${target} INTERFACE ${arg_PUBLIC})
  add_library(${arg_NAMESPACE}::${name}Fake ALIAS ${target})
endfunction()

# kova_program(kova SOURCES ... LINK ...)
function(kova_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE ${arg_LINK} kova_warnings)
  if(CMAKE_CROSSCOMPILING)
    file(GENERATE OUTPUT "${KOVA_LAUNCH_DIR}/${name}"
      CONTENT "#!/bin/sh\nexec ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}> \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
  endif()
endfunction()

# kova_test(NAME ServiceIPC GROUP unit SOURCES ... LINK ... [TIMEOUT seconds])
# One GoogleTest program, one CTest entry a test case. GROUP is the CTest label: "unit" for
# one library or program, some on a bus of its own; "e2e" for real processes.
function(kova_test)
  if(NOT KOVA_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 0 arg "" "NAME;GROUP;TIMEOUT" "SOURCES;LINK")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 120)
  endif()
  set(target test_${arg_NAME})
  add_executable(${target} ${arg_SOURCES})
  target_link_libraries(${target} PRIVATE ${arg_LINK} GTest::gmock_main kova_warnings)
  set_target_properties(${target} PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
  if(KOVA_SHIPPED)
    target_compile_options(${target} PRIVATE -O1 -g0)  # it tests what ships, and does not ship itself
  endif()
  # "tests_unit" builds all of a group.
  if(NOT TARGET tests_${arg_GROUP})
    add_custom_target(tests_${arg_GROUP})
  endif()
  add_dependencies(tests_${arg_GROUP} ${target})
  include(GoogleTest)
  gtest_discover_tests(${target} TEST_PREFIX "${arg_NAME}." DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS "${arg_GROUP}" TIMEOUT ${arg_TIMEOUT})
endfunction()
