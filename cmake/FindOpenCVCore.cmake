# The two OpenCV modules the engine's frame path may use, core and imgproc, as the imported
# target OpenCVCore::OpenCVCore.
#
# Debian splits OpenCV into per-module -dev packages; the CMake package file OpenCVConfig.cmake
# comes only with the umbrella libopencv-dev, which drags in every module and their many
# dependencies. This module finds the headers and the two libraries directly, so that
# libopencv-core-dev and libopencv-imgproc-dev are all a machine needs.
find_path(OpenCVCore_INCLUDE_DIR opencv2/core.hpp PATH_SUFFIXES opencv4)
find_library(OpenCVCore_CORE_LIBRARY opencv_core)
find_library(OpenCVCore_IMGPROC_LIBRARY opencv_imgproc)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(OpenCVCore
  REQUIRED_VARS OpenCVCore_INCLUDE_DIR OpenCVCore_CORE_LIBRARY OpenCVCore_IMGPROC_LIBRARY
  REASON_FAILURE_MESSAGE "install libopencv-core-dev and libopencv-imgproc-dev")

if(OpenCVCore_FOUND AND NOT TARGET OpenCVCore::OpenCVCore)
  add_library(OpenCVCore::OpenCVCore INTERFACE IMPORTED)
  set_target_properties(OpenCVCore::OpenCVCore PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${OpenCVCore_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${OpenCVCore_IMGPROC_LIBRARY};${OpenCVCore_CORE_LIBRARY}")
endif()
mark_as_advanced(OpenCVCore_INCLUDE_DIR OpenCVCore_CORE_LIBRARY OpenCVCore_IMGPROC_LIBRARY)
