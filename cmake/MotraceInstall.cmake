# What `cmake --install` puts where, and the Debian packages that `cpack` makes of it.
# Components: tool (package motrace), python (python3-camm), dev (libqvxmedia-dev), image_dev (libqvxmedia-image-dev).
include(CMakePackageConfigHelpers)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qvxmedia)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# --- tool
install(TARGETS motrace RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
if(TARGET camm)
  install(TARGETS camm RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endif()
file(GLOB man_pages CONFIGURE_DEPENDS docs/*.1)
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
# Below each other as here: their links lead from one to the other.
file(GLOB documents CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md CHANGELOG.md CONTRIBUTING.md
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/motrace COMPONENT tool)
file(GLOB pictures CONFIGURE_DEPENDS docs/*.png)
install(FILES ${documents} ${pictures}
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/motrace/docs COMPONENT tool)
install(PROGRAMS scripts/extract_array.sbatch scripts/extract_one.sh
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/motrace/examples COMPONENT tool)

# --- library
install(TARGETS qvxmedia EXPORT qvxmedia)
install(EXPORT qvxmedia NAMESPACE qvxmedia:: FILE qvxmediaTargets.cmake DESTINATION ${config_dir}
        COMPONENT dev)
configure_package_config_file(cmake/qvxmediaConfig.cmake.in qvxmediaConfig.cmake
                              INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(qvxmediaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvxmediaConfig.cmake
              ${PROJECT_BINARY_DIR}/qvxmediaConfigVersion.cmake
        DESTINATION ${config_dir} COMPONENT dev)

# The path from the .pc file to the prefix, so that the tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
           BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}/${pkgconfig_dir}
           OUTPUT_VARIABLE QVXMEDIA_PC_TO_PREFIX)
configure_file(cmake/qvxmedia.pc.in qvxmedia.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvxmedia.pc DESTINATION ${pkgconfig_dir} COMPONENT dev)
install(FILES docs/library.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libqvxmedia-dev
        COMPONENT dev)
install(FILES examples/counting_consumer.h examples/custom_byte_source.cpp
              examples/custom_consumer.cpp examples/motion_samples.cpp examples/pacing.cpp
              examples/ranges.cpp examples/run_source.h examples/silent_audio.cpp
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libqvxmedia-dev/examples COMPONENT dev)

# --- image libraries, those that were built: a package of their own, without the pipeline's needs
get_property(image_exports GLOBAL PROPERTY MOTRACE_IMAGE_EXPORTS)
get_property(image_dependencies GLOBAL PROPERTY MOTRACE_IMAGE_DEPENDENCIES)
if(image_exports)
  set(image_config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qvxmedia-image)
  configure_package_config_file(cmake/qvxmedia-imageConfig.cmake.in qvxmedia-imageConfig.cmake
                                INSTALL_DESTINATION ${image_config_dir})
  write_basic_package_version_file(qvxmedia-imageConfigVersion.cmake
                                   COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/qvxmedia-imageConfig.cmake
                ${PROJECT_BINARY_DIR}/qvxmedia-imageConfigVersion.cmake
                cmake/FindOpenCVCore.cmake
          DESTINATION ${image_config_dir} COMPONENT image_dev)
  foreach(image_export IN LISTS image_exports)
    get_property(values GLOBAL PROPERTY MOTRACE_IMAGE_PC_${image_export})
    list(POP_FRONT values image_target image_libs)
    configure_file(cmake/image.pc.in qvxmedia-${image_export}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/qvxmedia-${image_export}.pc DESTINATION ${pkgconfig_dir}
            COMPONENT image_dev)
  endforeach()
  install(FILES docs/raw_bayer.md docs/optical_flow.md docs/frames_between.png
                raw_bayer/raw_bayer.cl
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libqvxmedia-image-dev COMPONENT image_dev)
  install(FILES raw_bayer/examples/raw_planes.cpp examples/frames_between.cpp
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libqvxmedia-image-dev/examples
          COMPONENT image_dev)
endif()

# --- Python module: packaged only, since elsewhere `pip install .` knows the right folder
if(TARGET camm_python)
  set(python_dir lib/python3/dist-packages/camm)
  install(TARGETS camm_python LIBRARY DESTINATION ${python_dir} COMPONENT python EXCLUDE_FROM_ALL)
  install(FILES camm/python/camm/__init__.py camm/python/camm/__init__.pyi camm/python/camm/py.typed
          DESTINATION ${python_dir} COMPONENT python EXCLUDE_FROM_ALL)
  install(FILES docs/python.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-camm
          COMPONENT python EXCLUDE_FROM_ALL)
endif()

# --- packages
find_program(MOTRACE_DPKG_QUERY dpkg-query)
if(NOT MOTRACE_DPKG_QUERY)
  return()
endif()

# motrace_debian_dev_dependency(<variable> <module> [SAME_MAJOR])
# Appends the -dev package that holds a pkg-config module, not older than the one built with.
# SAME_MAJOR: nor of a later major version, for libraries that change their ABI with it.
function(motrace_debian_dev_dependency variable module)
  cmake_parse_arguments(PARSE_ARGV 2 arg "SAME_MAJOR" "" "")
  pkg_get_variable(folder ${module} pcfiledir)
  execute_process(COMMAND ${MOTRACE_DPKG_QUERY} --search ${folder}/${module}.pc
                  OUTPUT_VARIABLE owner ERROR_QUIET)
  if(NOT owner MATCHES "^([^:]+)[^ ]*: ")
    return()  # not from a package
  endif()
  set(package ${CMAKE_MATCH_1})
  execute_process(COMMAND ${MOTRACE_DPKG_QUERY} --show --showformat=\${Version} ${package}
                  OUTPUT_VARIABLE version)
  if(NOT version MATCHES "^([0-9]+:)?([0-9]+)(\\.[0-9]+)?")
    return()
  endif()
  set(dependencies ${${variable}} "${package} (>= ${CMAKE_MATCH_0})")
  if(arg_SAME_MAJOR)
    math(EXPR next "${CMAKE_MATCH_2} + 1")
    list(APPEND dependencies "${package} (<< ${CMAKE_MATCH_1}${next}~)")
  endif()
  set(${variable} ${dependencies} PARENT_SCOPE)
endfunction()

foreach(module libavformat libavcodec libavutil)
  motrace_debian_dev_dependency(dev_dependencies ${module} SAME_MAJOR)
endforeach()
motrace_debian_dev_dependency(dev_dependencies libevent_core)
motrace_debian_dev_dependency(dev_dependencies libcurl)
list(JOIN dev_dependencies ", " dev_dependencies)

set(MOTRACE_MAINTAINER "motrace maintainers <maintainers@motrace.invalid>"
    CACHE STRING "Name and address that the packages carry")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME motrace)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has its own, below
set(CPACK_PACKAGE_CONTACT ${MOTRACE_MAINTAINER})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL tool dev)
if(TARGET camm_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(image_exports)
  list(APPEND CPACK_COMPONENTS_ALL image_dev)
endif()
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/finish_debian_tree.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME motrace)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_DESCRIPTION
    "extract camera motion metadata (CAMM) from video files
motrace reads the camera motion metadata track of a video file and writes its
gyroscope, accelerometer, exposure and GPS samples as plain data files.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libqvxmedia-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${dev_dependencies}, pkg-config")
set(CPACK_DEBIAN_DEV_DESCRIPTION
    "media pipeline library (development files)
qvxmedia demultiplexes media files on threads of its own and hands each
stream's packets to the consumer attached to it.

This package holds the static libraries, the headers, and the files for CMake
and pkg-config.")
set(CPACK_DEBIAN_IMAGE_DEV_PACKAGE_NAME libqvxmedia-image-dev)
set(CPACK_DEBIAN_IMAGE_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_IMAGE_DEV_PACKAGE_DEPENDS
    "libopencv-core-dev, libopencv-imgproc-dev")
set(CPACK_DEBIAN_IMAGE_DEV_DESCRIPTION
    "dense optical flow and raw Bayer kernels (development files)
Image libraries on OpenCV's core that stand beside the media pipeline: dense
inverse search optical flow, and repair, splitting and merging of raw Bayer
mosaics.")

if(TARGET camm_python)
  execute_process(
    COMMAND ${CAMM_PYTHON} -c "import sys; v = sys.version_info; print(f'python3 (>= 3.{v[1]}~), python3 (<< 3.{v[1] + 1}~)', end='')"
    OUTPUT_VARIABLE python_versions)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-camm)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${python_versions}, python3-numpy")
  set(CPACK_DEBIAN_PYTHON_DESCRIPTION
      "camera motion metadata (CAMM) of video files as NumPy arrays
The module camm reads every kind of sample of a video's motion track, merges
gyroscope and accelerometer, and writes tracks into copies of videos.")
endif()

# Documents that Debian expects in every package.
string(TIMESTAMP MOTRACE_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
set(packages tool:motrace dev:libqvxmedia-dev)
if(TARGET camm_python)
  list(APPEND packages python:python3-camm)
endif()
if(image_exports)
  list(APPEND packages image_dev:libqvxmedia-image-dev)
endif()
foreach(pair IN LISTS packages)
  string(REGEX MATCH "^([^:]+):(.+)$" _ ${pair})
  set(component ${CMAKE_MATCH_1})
  set(package ${CMAKE_MATCH_2})
  set(documents ${PROJECT_BINARY_DIR}/packaging/${package})
  configure_file(packaging/changelog.Debian.in ${documents}/changelog.Debian @ONLY)
  install(FILES ${documents}/changelog.Debian packaging/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component}
          EXCLUDE_FROM_ALL)
  install(FILES CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
          COMPONENT ${component} RENAME changelog)
endforeach()

include(CPack)
