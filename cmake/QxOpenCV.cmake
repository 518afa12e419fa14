# OpenCV 4: the three modules we use (core, imgproc, imgcodecs). Debian's
# per-module -dev packages ship headers and libraries but no CMake package
# (that comes with the full libopencv-dev and its long dependency list), so
# fall back to finding them directly. Sets OpenCV_INCLUDE_DIRS and OpenCV_LIBS.
find_package(OpenCV 4 QUIET COMPONENTS core imgproc imgcodecs)
if(NOT OpenCV_FOUND)
  find_path(OpenCV_INCLUDE_DIRS opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
  set(OpenCV_LIBS "")
  foreach(module core imgproc imgcodecs)
    find_library(OpenCV_${module}_LIBRARY opencv_${module} REQUIRED)
    list(APPEND OpenCV_LIBS ${OpenCV_${module}_LIBRARY})
  endforeach()
  message(STATUS "OpenCV modules: ${OpenCV_LIBS} (headers in ${OpenCV_INCLUDE_DIRS})")
endif()
