# What `cmake --install` puts under a prefix, in three components:
#   library  libkelocam_aov_plat.so, the headers the system layer and a driver
#            author include, and the CMake package (find_package(kelocam_aov_plat))
#   tools    the desk tools and the recorder's preload library
#   docs     README.md, docs/*.md and a man page per tool
# CPack packs all three into one .deb of the desk tools (aov-sim needs the
# library at run time).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(aov_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelocam_aov_plat)
set(aov_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/kelocam_aov_plat)

# The library's headers: the exported interfaces and what they include, and
# the kernel-interface header; all in one folder, included by their bare names.
set(aov_public_headers
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/AOVExport.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/EventObserver.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/IAOVDevice.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/IAOVSensor.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/aov_event.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/sys/user_param.h
  ${PROJECT_SOURCE_DIR}/hw/aov/inc/uapi/kelo_aov.h
)
install(FILES ${aov_public_headers} DESTINATION ${aov_include_dir} COMPONENT library)
# On the host the library links the host platform (on a device, the real
# platform's libraries): installed and exported beside it, found through the
# library's folder at run time.
set_target_properties(kelocam_aov_plat PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS kelocam_aov_plat aov_host_platform EXPORT kelocam_aov_plat_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
  INCLUDES DESTINATION ${aov_include_dir})
install(EXPORT kelocam_aov_plat_targets NAMESPACE kelocam_aov_plat::
  FILE kelocam_aov_platTargets.cmake DESTINATION ${aov_package_dir} COMPONENT library)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/kelocam_aov_platConfig.cmake.in
  ${CMAKE_BINARY_DIR}/kelocam_aov_platConfig.cmake INSTALL_DESTINATION ${aov_package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kelocam_aov_platConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kelocam_aov_platConfig.cmake
  ${CMAKE_BINARY_DIR}/kelocam_aov_platConfigVersion.cmake
  DESTINATION ${aov_package_dir} COMPONENT library)

install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT docs)
file(GLOB aov_docs CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${aov_docs} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT docs)

# The preload library sits in a folder of its own under lib/; aov-rec finds it
# there through the path from its own folder (AOV_REC_PRELOAD_RELDIR).
install(TARGETS aov_rec_preload LIBRARY DESTINATION ${AOV_REC_PRELOAD_INSTALL_DIR} COMPONENT tools)

set(aov_tools)
if(AOV_BUILD_COMPLIANCE)
  list(APPEND aov_tools aov-compliance)
endif()
if(AOV_BUILD_TOOLS)
  list(APPEND aov_tools aov-sim aov-kdev aov-rec)
endif()
if(aov_tools)
  install(TARGETS ${aov_tools} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
endif()
if(TARGET aov-sim)
  # aov-sim links the library; installed, it finds it through its own folder.
  file(RELATIVE_PATH aov_bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(aov-sim PROPERTIES INSTALL_RPATH "$ORIGIN/${aov_bin_to_lib}")
endif()

# Man pages, from each tool's --help through help2man; a cross build cannot
# run its tools and goes without them.
find_program(AOV_HELP2MAN help2man)
set(aov_man_summary_aov-sim "the AOV platform layer on a desk, against a simulated platform or a node")
set(aov_man_summary_aov-kdev "the emulated AOV driver served as a FUSE file")
set(aov_man_summary_aov-compliance "checks an AOV driver node against what the platform layer relies on")
set(aov_man_summary_aov-rec "records, prints and retraces the AOV node's traffic of a process")
if(aov_tools AND NOT CMAKE_CROSSCOMPILING AND AOV_HELP2MAN)
  set(aov_man_pages)
  foreach(tool IN LISTS aov_tools)
    set(page ${CMAKE_BINARY_DIR}/man/${tool}.1.gz)
    add_custom_command(OUTPUT ${page}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
      COMMAND ${AOV_HELP2MAN} --no-info --no-discard-stderr --section=1
              --version-string=${PROJECT_VERSION} "--name=${aov_man_summary_${tool}}"
              --output=${CMAKE_BINARY_DIR}/man/${tool}.1 $<TARGET_FILE:${tool}>
      COMMAND gzip -9nf ${CMAKE_BINARY_DIR}/man/${tool}.1
      DEPENDS ${tool}
      COMMENT "Man page of ${tool}"
      VERBATIM)
    list(APPEND aov_man_pages ${page})
  endforeach()
  add_custom_target(aov_man_pages ALL DEPENDS ${aov_man_pages})
  install(FILES ${aov_man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT docs)
elseif(aov_tools AND NOT CMAKE_CROSSCOMPILING)
  message(STATUS "help2man not found: no man pages (scripts/install-deps.sh help2man)")
endif()

# The .deb: `cpack -G DEB` in the build folder.
set(CPACK_PACKAGE_NAME kelocam-aov-tools)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "AOV platform team <aov-platform@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "AOV platform layer and its desk tools")
set(CPACK_PACKAGE_DESCRIPTION
  "The AOV platform library, and the desk tools that bring up and debug its kernel driver:\
 aov-sim, aov-kdev, aov-compliance and aov-rec.")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL library tools docs)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
# The tools' shared libraries (libc, libstdc++, libfuse3, libzstd) as Debian's
# dpkg-shlibdeps finds them; the package's own library is found in the package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# aov-kdev mounts through fusermount3.
set(CPACK_DEBIAN_PACKAGE_DEPENDS fuse3)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/package)
include(CPack)
