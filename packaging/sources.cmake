# vantrel_device_sources(FILE): writes the daemon's sources to FILE, taken from
# the targets that its program links, each behind the name of the module of
# Android.bp that must have it. The stand-ins of platform/linux are no part of
# a device's build.

function(_vantrel_link_closure target out)
  set(found ${${out}} ${target})
  get_target_property(libraries ${target} LINK_LIBRARIES)
  foreach(library ${libraries})
    if(library MATCHES "^vantrel_" AND NOT library IN_LIST found
       AND NOT library MATCHES "^vantrel_(flags|platform)$")
      _vantrel_link_closure(${library} found)
    endif()
  endforeach()
  set(${out} ${found} PARENT_SCOPE)
endfunction()

function(vantrel_device_sources file)
  _vantrel_link_closure(vantrel targets)
  set(lines)
  foreach(target ${targets})
    if(target STREQUAL "vantrel")
      set(module vantrel)
    elseif(target STREQUAL "vantrel_proto")
      set(module libvantrel_proto)
    else()
      set(module libvantrel)
    endif()
    get_target_property(folder ${target} SOURCE_DIR)
    get_target_property(sources ${target} SOURCES)
    foreach(source ${sources})
      cmake_path(ABSOLUTE_PATH source BASE_DIRECTORY ${folder} NORMALIZE)
      # A generated source stands for its schema.
      string(REPLACE "${CMAKE_BINARY_DIR}/generated" "${PROJECT_SOURCE_DIR}"
             source ${source})
      string(REGEX REPLACE "\\.pb\\.cc$" ".proto" source ${source})
      cmake_path(RELATIVE_PATH source BASE_DIRECTORY ${PROJECT_SOURCE_DIR})
      string(APPEND lines "${module} ${source}\n")
    endforeach()
  endforeach()
  file(WRITE ${file} "${lines}")
endfunction()
