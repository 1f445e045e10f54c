# SPDX-License-Identifier: Apache-2.0
# find_package(skorra-ntp CONFIG [COMPONENTS shared|static]) gives skorra::ntp and skorra::sim.
#
# Where both a shared and a static library are installed, the component picks one. Without a component,
# BUILD_SHARED_LIBS does where it is set, and else the shared one is taken.
include(CMakeFindDependencyMacro)
find_dependency(Threads)

set(skorra-ntp_kinds ${skorra-ntp_FIND_COMPONENTS})
if(NOT skorra-ntp_kinds)
  set(skorra-ntp_kinds shared static)
  if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
    set(skorra-ntp_kinds static shared)
  endif()
endif()
set(skorra-ntp_kind "")
foreach(skorra-ntp_candidate IN LISTS skorra-ntp_kinds)
  if(NOT skorra-ntp_kind AND EXISTS "${CMAKE_CURRENT_LIST_DIR}/skorra-ntp-${skorra-ntp_candidate}-targets.cmake")
    set(skorra-ntp_kind ${skorra-ntp_candidate})
  endif()
endforeach()
list(LENGTH skorra-ntp_FIND_COMPONENTS skorra-ntp_components)
if(NOT skorra-ntp_kind MATCHES "^(shared|static)$" OR skorra-ntp_components GREATER 1)
  set(skorra-ntp_FOUND FALSE)
  set(skorra-ntp_NOT_FOUND_MESSAGE
      "no library for the components '${skorra-ntp_FIND_COMPONENTS}': give shared or static, and install that one")
  return()
endif()

# What static libraries leave to their users to link. Neither needs a header of it.
set(skorra-ntp_libraries tomlplusplus)
if(skorra-ntp_kind STREQUAL static)
  list(APPEND skorra-ntp_libraries cares)
endif()
foreach(skorra-ntp_library IN LISTS skorra-ntp_libraries)
  string(TOUPPER SKORRA_${skorra-ntp_library}_LIBRARY skorra-ntp_variable)
  find_library(${skorra-ntp_variable} ${skorra-ntp_library})
  mark_as_advanced(${skorra-ntp_variable})
  if(${skorra-ntp_variable} AND NOT TARGET skorra::${skorra-ntp_library})
    add_library(skorra::${skorra-ntp_library} UNKNOWN IMPORTED)
    set_target_properties(skorra::${skorra-ntp_library} PROPERTIES IMPORTED_LOCATION "${${skorra-ntp_variable}}")
  elseif(NOT ${skorra-ntp_variable} AND skorra-ntp_kind STREQUAL static)
    set(skorra-ntp_FOUND FALSE)
    set(skorra-ntp_NOT_FOUND_MESSAGE "the static library needs the library ${skorra-ntp_library}")
    return()
  endif()
endforeach()

include("${CMAKE_CURRENT_LIST_DIR}/skorra-ntp-${skorra-ntp_kind}-targets.cmake")
# A program on the simulated world links toml++; without it there is skorra::ntp only.
if(TARGET skorra::tomlplusplus)
  include("${CMAKE_CURRENT_LIST_DIR}/skorra-ntp-sim-targets.cmake")
endif()
