# usbd_install_package(NAME): installs what lets programs outside the tree build against the
# project's public library NAME (usbd-client, usbd-host): the CMake package (NAME-config.cmake
# from NAME-config.cmake.in, its version file, and the targets exported as NAME-targets, in the
# usbd:: namespace) and the pkg-config file (NAME.pc from NAME.pc.in, whose @usbd_pc_libdir@ and
# @usbd_pc_includedir@ are relative to ${prefix} where they can be). The files .in lie in the
# calling directory; everything goes to the "development" component.
include(CMakePackageConfigHelpers)

function(usbd_install_package name)
  set(cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/${name})
  install(EXPORT ${name}-targets NAMESPACE usbd:: DESTINATION ${cmakedir} COMPONENT development)
  configure_package_config_file(${name}-config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/${name}-config.cmake
    INSTALL_DESTINATION ${cmakedir})
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/${name}-config-version.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}-config.cmake
                ${CMAKE_CURRENT_BINARY_DIR}/${name}-config-version.cmake
          DESTINATION ${cmakedir} COMPONENT development)

  # pkg-config wants paths relative to its own prefix variable where it can have them.
  foreach(kind LIBDIR INCLUDEDIR)
    string(TOLOWER ${kind} lower)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${kind}}")
      set(usbd_pc_${lower} ${CMAKE_INSTALL_${kind}})
    else()
      set(usbd_pc_${lower} "\${prefix}/${CMAKE_INSTALL_${kind}}")
    endif()
  endforeach()
  configure_file(${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
