# OpenCV 4: the three modules we use (core, imgproc, imgcodecs). Debian's
# per-module -dev packages ship headers and libraries but no CMake package
# (that comes with the full libopencv-dev and its long dependency list), so
# they are found directly. Sets OpenCV_INCLUDE_DIRS, OpenCV_LIBS (core and
# imgproc) and OpenCV_CODECS_LIBS (imgcodecs), kept apart because the codec
# library loads some hundred further libraries: only what writes or reads
# image files links it, and the plug-in loads it on demand (qxcodecs).
find_path(OpenCV_INCLUDE_DIRS opencv2/core.hpp PATH_SUFFIXES opencv4 REQUIRED)
set(OpenCV_LIBS "")
foreach(module core imgproc imgcodecs)
  find_library(OpenCV_${module}_LIBRARY opencv_${module} REQUIRED)
endforeach()
set(OpenCV_LIBS ${OpenCV_core_LIBRARY} ${OpenCV_imgproc_LIBRARY})
set(OpenCV_CODECS_LIBS ${OpenCV_imgcodecs_LIBRARY})
