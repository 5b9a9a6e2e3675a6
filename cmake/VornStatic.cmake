# Finds out whether the launcher can be linked without shared libraries. Defines
# the target vorn_static_yaml_cpp, or sets VORN_STATIC_PROBLEM to the missing part.

# vorn_find_static_yaml_cpp(): the archive of the yaml-cpp that find_package()
# has found, which may be installed in a separate prefix.
function(vorn_find_static_yaml_cpp)
  get_target_property(type yaml-cpp::yaml-cpp TYPE)
  get_target_property(configurations yaml-cpp::yaml-cpp IMPORTED_CONFIGURATIONS)
  set(location "")
  foreach(configuration IN LISTS configurations)
    get_target_property(location yaml-cpp::yaml-cpp IMPORTED_LOCATION_${configuration})
  endforeach()
  if(NOT location)
    get_target_property(location yaml-cpp::yaml-cpp LOCATION)
  endif()
  get_filename_component(directory "${location}" DIRECTORY)
  if(type STREQUAL STATIC_LIBRARY)
    set(archive ${location})
  elseif(EXISTS "${directory}/libyaml-cpp.a")
    set(archive ${directory}/libyaml-cpp.a)
  else()
    set(VORN_STATIC_PROBLEM "${directory}/libyaml-cpp.a is missing" PARENT_SCOPE)
    return()
  endif()
  add_library(vorn_static_yaml_cpp STATIC IMPORTED GLOBAL)
  get_target_property(headers yaml-cpp::yaml-cpp INTERFACE_INCLUDE_DIRECTORIES)
  set_target_properties(vorn_static_yaml_cpp PROPERTIES IMPORTED_LOCATION ${archive})
  if(headers)
    target_include_directories(vorn_static_yaml_cpp INTERFACE ${headers})
  endif()
endfunction()

set(VORN_STATIC_PROBLEM "")
vorn_find_static_yaml_cpp()
if(NOT VORN_STATIC_PROBLEM)
  try_compile(VORN_STATIC_LINK_WORKS
    ${PROJECT_BINARY_DIR}/static-link
    ${PROJECT_SOURCE_DIR}/cmake/static_link.cpp
    COMPILE_DEFINITIONS -fPIE
    LINK_OPTIONS -static-pie
    LINK_LIBRARIES vorn_static_yaml_cpp
    CXX_STANDARD 17
    OUTPUT_VARIABLE VORN_STATIC_LINK_OUTPUT)
  if(NOT VORN_STATIC_LINK_WORKS)
    string(REGEX MATCH "[^\n]*(cannot find|error)[^\n]*" VORN_STATIC_ERROR
      "${VORN_STATIC_LINK_OUTPUT}")
    set(VORN_STATIC_PROBLEM
      "a static program cannot be linked (${VORN_STATIC_ERROR})")
  endif()
endif()
