# Finds yaml-cpp; its target is yaml-cpp::yaml-cpp in every version.

find_package(yaml-cpp REQUIRED)
if(NOT TARGET yaml-cpp::yaml-cpp)  # before version 0.8
  add_library(yaml-cpp::yaml-cpp ALIAS yaml-cpp)
endif()
