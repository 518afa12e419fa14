# Installation layout and the Debian package.
#
# `cmake --install` puts the plug-ins into the system GStreamer plug-in
# directory, the libraries, headers, pkg-config files and qxbus under the
# install prefix, and the configuration root under /opt/quorix/ixo. The package
# installs the same with the prefix /usr.

set(QX_PACKAGE_PREFIX "/usr")

# ---- where installed modules find the installed libraries -------------------
#
# The plug-in directory (GStreamer's own) and the Python package directory are
# absolute, the libraries live under the prefix, so loadable modules get
# $ORIGIN-relative run paths to the library directory of both the configured
# prefix and the package prefix. Relative paths keep working in a
# DESTDIR-staged tree and in a tree unpacked from the package, where absolute
# ones would point at the real system. A module installed elsewhere than the
# plug-in directory names its directory in the target property QX_INSTALL_DIR.
function(qx_origin_path out from to)
  file(RELATIVE_PATH relative "${from}" "${to}")
  if(relative STREQUAL "")
    set(${out} "$ORIGIN" PARENT_SCOPE)
  else()
    set(${out} "$ORIGIN/${relative}" PARENT_SCOPE)
  endif()
endfunction()

function(qx_install_rpath out from)
  qx_origin_path(for_prefix "${from}" "${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
  qx_origin_path(for_package "${from}" "${QX_PACKAGE_PREFIX}/${CMAKE_INSTALL_LIBDIR}")
  set(paths "${for_prefix}")
  if(NOT for_package STREQUAL for_prefix)
    list(APPEND paths "${for_package}")
  endif()
  set(${out} "${paths}" PARENT_SCOPE)
endfunction()

function(qx_collect_targets out dir)
  get_property(targets DIRECTORY "${dir}" PROPERTY BUILDSYSTEM_TARGETS)
  get_property(subdirs DIRECTORY "${dir}" PROPERTY SUBDIRECTORIES)
  foreach(sub IN LISTS subdirs)
    qx_collect_targets(sub_targets "${sub}")
    list(APPEND targets ${sub_targets})
  endforeach()
  set(${out} ${targets} PARENT_SCOPE)
endfunction()

qx_collect_targets(qx_all_targets "${PROJECT_SOURCE_DIR}")
foreach(target IN LISTS qx_all_targets)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "MODULE_LIBRARY")
    get_target_property(install_dir ${target} QX_INSTALL_DIR)
    if(NOT install_dir)
      set(install_dir "${QX_GST_PLUGIN_DIR}")
    endif()
    qx_install_rpath(rpath "${install_dir}")
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${rpath}")
  endif()
endforeach()

# ---- pkg-config file of the bus library -------------------------------------
#
# Relocatable (${pcfiledir}), so the same file serves /usr/local, /usr and staged trees.
if(TARGET marletapi)
  set(qx_pc_up "")
  string(REPLACE "/" ";" qx_libdir_parts "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
  foreach(part IN LISTS qx_libdir_parts)
    string(APPEND qx_pc_up "/..")
  endforeach()
  file(GENERATE OUTPUT "${CMAKE_BINARY_DIR}/pkgconfig/marletapi.pc" CONTENT
"prefix=\${pcfiledir}${qx_pc_up}
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}

Name: marletapi
Description: Bus client library of qxedge: things, tag groups and name-value records over DDS
Version: ${PROJECT_VERSION}
Libs: -L\${libdir} -lmarletapi
Cflags: -I\${includedir}
")
  install(FILES "${CMAKE_BINARY_DIR}/pkgconfig/marletapi.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endif()

# ---- Debian package ---------------------------------------------------------

set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "qxedge")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Quorix")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GStreamer elements joining video-analytics pipelines to the Marlet bus")
set(CPACK_PACKAGE_DESCRIPTION
    "qxedgesink publishes each frame and its inference results as tag groups on the bus; qxedgesrc subscribes, pairs frames with results and pushes buffers with batch metadata. Includes the bus client library, the batch-metadata library, the qxbus tool and the default configuration under /opt/quorix/ixo.")
# The plug-in directory and the configuration root are absolute paths: stage
# the whole install under DESTDIR so they land inside the package. With
# DESTDIR staging the prefix of the install run is CPACK_INSTALL_PREFIX.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX "${QX_PACKAGE_PREFIX}")
set(CPACK_PACKAGING_INSTALL_PREFIX "${QX_PACKAGE_PREFIX}")

set(CPACK_DEBIAN_PACKAGE_NAME "qxedge")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Quorix edge team <edge@quorix.invalid>")
set(CPACK_DEBIAN_PACKAGE_SECTION "video")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
# Shared libraries in the package: a shlibs file for packages built against
# them; CPack then also runs ldconfig in postinst and postrm, so the loader
# cache knows them at once.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

find_program(QX_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(QX_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  # Without dpkg-shlibdeps, the runtime libraries of Debian 12 by name.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS
      "libc6, libstdc++6, libglib2.0-0, libgstreamer1.0-0, libgstreamer-plugins-base1.0-0, libddsc0debian, libopencv-core406, libopencv-imgproc406, libopencv-imgcodecs406")
endif()

# The Python module loads only into the Python version it was built for and
# works with PyGObject's GStreamer bindings and NumPy; the elements need none
# of that, so it is a recommendation.
if(TARGET qxmeta_native)
  string(REPLACE "." ";" qx_python_parts "${QX_PYTHON_VERSION}")
  list(GET qx_python_parts 0 qx_python_major)
  list(GET qx_python_parts 1 qx_python_minor)
  math(EXPR qx_python_next "${qx_python_minor} + 1")
  set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
      "python3 (>= ${QX_PYTHON_VERSION}), python3 (<< ${qx_python_major}.${qx_python_next}), python3-gi, gir1.2-gstreamer-1.0, python3-numpy")
endif()

# The configuration is meant to be edited on site (domain id, peers): keep
# local changes across upgrades.
file(GLOB_RECURSE qx_config_files RELATIVE "${PROJECT_SOURCE_DIR}/common/data_model"
     "${PROJECT_SOURCE_DIR}/common/data_model/config/*")
set(qx_conffiles "")
foreach(file IN LISTS qx_config_files)
  string(APPEND qx_conffiles "${QX_CONFIG_ROOT}/${file}\n")
endforeach()
file(WRITE "${CMAKE_BINARY_DIR}/debian/conffiles" "${qx_conffiles}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${CMAKE_BINARY_DIR}/debian/conffiles")

include(CPack)
