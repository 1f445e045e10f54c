# SPDX-License-Identifier: Apache-2.0

# How the targets of this project are built. A consumer of skorra::ntp gets the include folder, the threads and
# the language level; everything in skorra_build stays inside.
option(SKORRA_WERROR "Treat the compiler's warnings as errors" OFF)
set(SKORRA_SANITIZE
    ""
    CACHE STRING "Sanitizers, as given to -fsanitize=")

add_library(skorra_build INTERFACE)
target_compile_features(skorra_build INTERFACE cxx_std_20)
target_compile_options(
  skorra_build
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            # Assertions name their file from the source folder on: no library tells where it was built.
            -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=
            # g++ 12 sees overlapping copies in sums of strings where there are none (GCC bug 105329).
            $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
            # Accesses to a member without its lock (platform/base/thread_annotations.h).
            $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
target_link_libraries(skorra_build INTERFACE Threads::Threads)
if(SKORRA_WERROR)
  target_compile_options(skorra_build INTERFACE -Werror)
endif()

# What carries SKORRA_EXPORT (platform/base/export.h) is visible outside a shared library.
if(BUILD_SHARED_LIBS)
  target_compile_definitions(skorra_build INTERFACE SKORRA_SHARED)
endif()

# A 32-bit time_t ends in 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(skorra_build INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

if(SKORRA_SANITIZE)
  target_compile_options(skorra_build INTERFACE -fsanitize=${SKORRA_SANITIZE} -fno-sanitize-recover=all
                                                -fno-omit-frame-pointer)
  target_link_options(skorra_build INTERFACE -fsanitize=${SKORRA_SANITIZE})
endif()

# Every target of the project goes through this.
function(skorra_target name)
  # First in the path: a host may look for headers in folders of its own, which hold files of the same names.
  target_include_directories(${name} BEFORE PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:skorra_build>)
  set_target_properties(
    ${name}
    PROPERTIES CXX_EXTENSIONS OFF
               POSITION_INDEPENDENT_CODE ON
               CXX_VISIBILITY_PRESET hidden
               VISIBILITY_INLINES_HIDDEN ON
               RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
endfunction()

# skorra_objects(NAME SOURCES...): one room's objects.
function(skorra_objects name)
  add_library(${name} OBJECT ${ARGN})
  skorra_target(${name})
endfunction()

# skorra_compile_together(NAME SOURCES...): inside a host, which does not work on these files, small sources of a room
# are compiled as one, since most of their time goes to the same headers.
function(skorra_compile_together name)
  if(NOT PROJECT_IS_TOP_LEVEL)
    list(TRANSFORM ARGN PREPEND ${PROJECT_SOURCE_DIR}/)
    set_source_files_properties(${ARGN} TARGET_DIRECTORY ${name} PROPERTIES UNITY_GROUP together)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
  endif()
endfunction()

# skorra_library(NAME LEVEL OBJECTS...): makes the library NAME of the objects of rooms. Its users need the language
# level LEVEL, the include folder and the threads, and get nothing else.
function(skorra_library name level)
  skorra_target(${name})
  # An installed library holds its rooms: its users see none of them.
  list(TRANSFORM ARGN REPLACE "(.+)" "$<BUILD_INTERFACE:\\1>")
  target_link_libraries(${name} PRIVATE ${ARGN})
  target_include_directories(${name} INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  target_compile_features(${name} INTERFACE ${level})
  target_link_libraries(${name} PUBLIC Threads::Threads)
  get_target_property(type ${name} TYPE)
  if(type STREQUAL SHARED_LIBRARY)
    # The templates of the standard library and of others' headers are visible in objects of ours.
    set(exported ${PROJECT_SOURCE_DIR}/cmake/exported.map)
    # nodelete: its threads never end, so dlclose must not unmap it.
    target_link_options(${name} PRIVATE LINKER:--version-script=${exported} LINKER:-z,nodelete)
    set_target_properties(${name} PROPERTIES LINK_DEPENDS ${exported} VERSION ${PROJECT_VERSION} SOVERSION 0)
  endif()
endfunction()

# skorra_program(NAME WORLD SOURCES...): an executable on one of the two worlds behind the seams, linux or sim. Its file
# has the name without skorra_, which keeps the targets of a host apart from ours.
function(skorra_program name world)
  add_executable(${name} ${ARGN})
  skorra_target(${name})
  string(REGEX REPLACE "^skorra_" "" file ${name})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${file})
  set(rooms skorra_c skorra_clock skorra_manager skorra_transport skorra_platform skorra_files)
  if(world STREQUAL linux)
    list(APPEND rooms skorra_linux)
  else()
    list(APPEND rooms skorra_netmodel skorra_sim_seams)
  endif()
  target_link_libraries(${name} PRIVATE ${rooms})
endfunction()

# Every target that includes Asio sees it with the same settings: what is linked together must agree. Left to
# itself, Asio picks its allocation function by the headers that happened to come before it.
function(skorra_use_asio name)
  find_path(SKORRA_ASIO_INCLUDE_DIR asio.hpp REQUIRED)
  target_compile_definitions(${name} PRIVATE ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_DISABLE_VISIBILITY
                                             ASIO_DISABLE_STD_ALIGNED_ALLOC)
  target_include_directories(${name} SYSTEM PRIVATE ${SKORRA_ASIO_INCLUDE_DIR})
endfunction()

# skorra_command(VARIABLE TARGET): the path of what runs TARGET here, for tests that start programs themselves. A
# program of another machine needs its emulator.
function(skorra_command variable target)
  set(command $<TARGET_FILE:${target}>)
  if(CMAKE_CROSSCOMPILING)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    set(script ${PROJECT_BINARY_DIR}/emulated/${target})
    file(GENERATE OUTPUT ${script} CONTENT "#!/bin/sh\nexec ${emulator} ${command} \"$@\"\n"
         FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
    set(command ${script})
  endif()
  set(${variable} ${command} PARENT_SCOPE)
endfunction()
