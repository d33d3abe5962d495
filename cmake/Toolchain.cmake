# What every target is compiled with, and the libraries from outside.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(Protobuf REQUIRED)

# One target carries the flags of all our code, so that generated code can be compiled without it.
add_library(appconfig_flags INTERFACE)
target_compile_options(appconfig_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Wold-style-cast -Woverloaded-virtual -Wnull-dereference -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # What a lock guards is touched only where it is held: base/mutex.h.
  target_compile_options(appconfig_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
  # Notes that GCC before 7.1 passed some arguments in other registers: no such code is about.
  target_compile_options(appconfig_flags INTERFACE -Wno-psabi)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND APPCONFIG_SANITIZE)
  # Sanitizer instrumentation makes GCC 12 see null pointers that no execution has.
  target_compile_options(appconfig_flags INTERFACE -Wno-null-dereference -Wno-maybe-uninitialized)
endif()

option(APPCONFIG_COVERAGE "Count which lines and branches the tests reach; scripts/coverage reads the counts" OFF)
if(APPCONFIG_COVERAGE)
  # Atomic counters: threads of one process would lose each other's counts.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
else()
  # No path of the building machine in a message or in debug information. What reads the counts finds
  # sources and generated sources by their paths.
  add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}/=)
endif()
# A 32-bit device has 64-bit file offsets and time all the same.
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_TIME_BITS=64)
endif()

# What is shipped: nothing that nobody calls, no library that nothing is used of, and no table of
# addresses that stays writable. docs/footprint.md says what is left.
add_compile_options($<$<NOT:$<CONFIG:Debug>>:-ffunction-sections> $<$<NOT:$<CONFIG:Debug>>:-fdata-sections>)
add_link_options($<$<NOT:$<CONFIG:Debug>>:LINKER:--gc-sections,--as-needed,-z,relro,-z,now>)

if(APPCONFIG_SANITIZE)
  add_compile_options(-fsanitize=${APPCONFIG_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${APPCONFIG_SANITIZE})
  # For the few tests that a sanitizer gets in the way of: compilers do not agree on how to say it.
  string(TOUPPER "${APPCONFIG_SANITIZE}" sanitizers)
  string(REPLACE "," ";" sanitizers "${sanitizers}")
  list(TRANSFORM sanitizers PREPEND APPCONFIG_SANITIZE_)
  add_compile_definitions(${sanitizers})
  if(APPCONFIG_SANITIZE STREQUAL "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Clang 14's does not know pthread_cond_clockwait: it takes a mutex for held through the whole
    # wait, and reports races that are none. Without this macro the standard library waits by
    # pthread_cond_timedwait, which it knows.
    file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/generated/tsan_waits.h CONTENT
      "#include <bits/c++config.h>\n#undef _GLIBCXX_USE_PTHREAD_COND_CLOCKWAIT\n")
    add_compile_options(-include ${PROJECT_BINARY_DIR}/generated/tsan_waits.h)
  endif()
endif()

option(APPCONFIG_FUZZ "Build the programs of fuzz/ as fuzzers, which takes Clang; otherwise they replay their inputs" OFF)
if(APPCONFIG_FUZZ)
  # Everything reports which code an input reached; the programs alone bring the fuzzer's main().
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()
