# Finds OpenCV's core and imgproc as Debian's two packages install them: headers and libraries
# without a CMake configuration file, which only the full development package carries.
#
# Defines the targets OpenCVCore::core and OpenCVCore::imgproc.

find_path(OpenCVCore_INCLUDE_DIR opencv2/core/version.hpp PATH_SUFFIXES opencv4)
find_library(OpenCVCore_core_LIBRARY opencv_core)
find_library(OpenCVCore_imgproc_LIBRARY opencv_imgproc)
if(OpenCVCore_INCLUDE_DIR)
  file(STRINGS ${OpenCVCore_INCLUDE_DIR}/opencv2/core/version.hpp _opencv_version_lines
       REGEX "#define CV_VERSION_(MAJOR|MINOR|REVISION) ")
  string(REGEX REPLACE "[^0-9]+([0-9]+)" "\\1." OpenCVCore_VERSION "${_opencv_version_lines}")
  string(REGEX REPLACE "\\.$" "" OpenCVCore_VERSION "${OpenCVCore_VERSION}")
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
  OpenCVCore
  REQUIRED_VARS OpenCVCore_core_LIBRARY OpenCVCore_imgproc_LIBRARY OpenCVCore_INCLUDE_DIR
  VERSION_VAR OpenCVCore_VERSION)
mark_as_advanced(OpenCVCore_INCLUDE_DIR OpenCVCore_core_LIBRARY OpenCVCore_imgproc_LIBRARY)

if(OpenCVCore_FOUND AND NOT TARGET OpenCVCore::core)
  foreach(_module core imgproc)
    add_library(OpenCVCore::${_module} UNKNOWN IMPORTED)
    set_target_properties(
      OpenCVCore::${_module}
      PROPERTIES IMPORTED_LOCATION ${OpenCVCore_${_module}_LIBRARY}
                 INTERFACE_INCLUDE_DIRECTORIES ${OpenCVCore_INCLUDE_DIR})
  endforeach()
  target_link_libraries(OpenCVCore::imgproc INTERFACE OpenCVCore::core)
endif()
