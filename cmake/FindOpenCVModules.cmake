# Modules of OpenCV as imported targets: find_package(OpenCVModules COMPONENTS core imgproc ...) makes OpenCV::core and
# so on. Debian ships OpenCV's own CMake package only together with every module there is, so the libraries are looked
# up one by one.
find_path(OpenCVModules_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
set(_opencv_libraries)
foreach(_module IN LISTS OpenCVModules_FIND_COMPONENTS)
  find_library(OpenCVModules_${_module}_LIBRARY opencv_${_module})
  mark_as_advanced(OpenCVModules_${_module}_LIBRARY)
  list(APPEND _opencv_libraries OpenCVModules_${_module}_LIBRARY)
endforeach()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVModules
  REQUIRED_VARS OpenCVModules_INCLUDE_DIR ${_opencv_libraries})

if(OpenCVModules_FOUND)
  foreach(_module IN LISTS OpenCVModules_FIND_COMPONENTS)
    if(NOT TARGET OpenCV::${_module})
      add_library(OpenCV::${_module} UNKNOWN IMPORTED)
      set_target_properties(OpenCV::${_module} PROPERTIES
        IMPORTED_LOCATION "${OpenCVModules_${_module}_LIBRARY}"
        INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${OpenCVModules_INCLUDE_DIR}"
        INTERFACE_INCLUDE_DIRECTORIES "${OpenCVModules_INCLUDE_DIR}")
    endif()
  endforeach()
endif()
mark_as_advanced(OpenCVModules_INCLUDE_DIR)
