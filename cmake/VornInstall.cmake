# Installs a library of this project for other projects.

include(CMakePackageConfigHelpers)

# vorn_install_library(target DESCRIPTION text DIRECTORY name [INCLUDED name]
#   [WITH target] HEADERS file...)
#
# Installs the library; its headers in this directory below the include directory; and a
# package of the target's name for CMake (vorn::target) and pkg-config. INCLUDED
# is the directory on the path of users, if it is not the include directory itself.
# WITH is a header-only target that the library needs.
function(vorn_install_library target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DESCRIPTION;DIRECTORY;INCLUDED;WITH" "HEADERS")
  install(TARGETS ${target} ${arg_WITH} EXPORT ${target})
  install(FILES ${arg_HEADERS}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${arg_DIRECTORY})
  set(package ${CMAKE_INSTALL_LIBDIR}/cmake/${target})
  install(EXPORT ${target}
    NAMESPACE vorn::
    FILE ${target}-config.cmake
    DESTINATION ${package})
  set(version ${CMAKE_CURRENT_BINARY_DIR}/${target}-config-version.cmake)
  write_basic_package_version_file(${version} COMPATIBILITY SameMajorVersion)
  install(FILES ${version} DESTINATION ${package})

  set(VORN_PC_NAME ${target})
  set(VORN_PC_DESCRIPTION ${arg_DESCRIPTION})
  set(VORN_PC_INCLUDED ${CMAKE_INSTALL_INCLUDEDIR}/${arg_INCLUDED})
  file(RELATIVE_PATH VORN_PREFIX_FROM_PC
    /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${target}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
