# SPDX-License-Identifier: Apache-2.0

# What cmake --install installs. A static and a shared library may share a prefix: build twice, install both. No file
# of it names a folder of the build or the prefix, so that the prefix can be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/skorra-ntp)
get_target_property(type skorra_ntp TYPE)
if(type STREQUAL SHARED_LIBRARY)
  set(kind shared)
else()
  set(kind static)
  # The users of a static library link what it uses; the package looks for these two.
  target_link_libraries(skorra_ntp INTERFACE $<INSTALL_INTERFACE:$<LINK_ONLY:skorra::cares>>
                                             $<INSTALL_INTERFACE:$<LINK_ONLY:skorra::tomlplusplus>>)
endif()
target_link_libraries(skorra_sim INTERFACE $<INSTALL_INTERFACE:$<LINK_ONLY:skorra::tomlplusplus>>)

# The simulated world is a static library in both builds.
set_target_properties(skorra_sim PROPERTIES EXCLUDE_FROM_ALL OFF)

# A project of C alone links by the C compiler, which does not bring the libraries of C++.
foreach(library skorra_ntp skorra_sim)
  get_target_property(library_type ${library} TYPE)
  if(library_type STREQUAL STATIC_LIBRARY)
    foreach(name stdc++ m)
      target_link_libraries(${library} INTERFACE $<INSTALL_INTERFACE:$<$<LINK_LANGUAGE:C>:${name}>>)
    endforeach()
  endif()
endforeach()
set(export_of_skorra_ntp ${kind})
set(export_of_skorra_sim sim)
foreach(name ntp sim)
  set(export skorra-ntp-${export_of_skorra_${name}}-targets)
  set_target_properties(skorra_${name} PROPERTIES EXPORT_NAME ${name})
  install(
    TARGETS skorra_${name}
    EXPORT ${export}
    INCLUDES
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/skorra-ntp)
  install(
    EXPORT ${export}
    NAMESPACE skorra::
    DESTINATION ${package_folder})
endforeach()

# Before 1.0 the interface may change from one minor version to the next.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/skorra-ntp-config-version.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_SOURCE_DIR}/cmake/skorra-ntp-config.cmake
              ${PROJECT_BINARY_DIR}/skorra-ntp-config-version.cmake DESTINATION ${package_folder})

file(RELATIVE_PATH path_to_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" path_to_prefix ${path_to_prefix})
configure_file(${PROJECT_SOURCE_DIR}/cmake/skorra-ntp.pc.in ${PROJECT_BINARY_DIR}/skorra-ntp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/skorra-ntp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The public headers, and what they include, as they are at the time of the installation.
install(CODE "set(skorra_source \"${PROJECT_SOURCE_DIR}\")
set(skorra_include_folder \"${CMAKE_INSTALL_INCLUDEDIR}/skorra-ntp\")")
install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/install_headers.cmake)

if(SKORRA_BUILD_APPS)
  install(TARGETS skorra-ntp)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/skorra-ntp.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(
    FILES ${PROJECT_SOURCE_DIR}/packaging/skorra-ntp.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME skorra-ntp)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/skorra-ntp.toml
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/skorra-ntp/examples)
endif()
