# Where everything goes on `cmake --install`, and the Debian package of it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(LORUN_GENTL_DIR ${CMAKE_INSTALL_LIBDIR}/gentl)
# 32-bit consumers look for producers on their own variable.
if(CMAKE_SIZEOF_VOID_P EQUAL 8)
  set(LORUN_GENTL_VARIABLE GENICAM_GENTL64_PATH)
else()
  set(LORUN_GENTL_VARIABLE GENICAM_GENTL32_PATH)
endif()

# The producer in a GenTL folder; GENICAM_GENTL64_PATH names it.
install(TARGETS lorun_csi2 LIBRARY DESTINATION ${LORUN_GENTL_DIR} COMPONENT runtime)

# libcsi: the shared library with its SONAME, its public headers, pkg-config and CMake package files.
target_include_directories(csi INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS csi EXPORT libcsiTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/libcsi/include/libcsi DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
# Relocatable: the prefix is found from where the file lies.
file(RELATIVE_PATH LIBCSI_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" LIBCSI_PC_TO_PREFIX "${LIBCSI_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/libcsi.pc.in ${PROJECT_BINARY_DIR}/packaging/libcsi.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/packaging/libcsi.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)
install(EXPORT libcsiTargets NAMESPACE libcsi:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libcsi
  COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/libcsiConfig.cmake.in
  ${PROJECT_BINARY_DIR}/packaging/libcsiConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libcsi)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/libcsiConfigVersion.cmake
  VERSION ${LIBCSI_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/packaging/libcsiConfig.cmake ${PROJECT_BINARY_DIR}/packaging/libcsiConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libcsi COMPONENT development)

# The GStreamer plugin, in the system's plugin folder.
if(TARGET gstlorun)
  install(TARGETS gstlorun LIBRARY DESTINATION ${LORUN_GST_PLUGIN_DIR} COMPONENT runtime)
endif()

# The consumer tool, an example description of the virtual camera, and the profile script.
install(TARGETS lorun-gentl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/sim/examples/two-cameras.ini DESTINATION ${CMAKE_INSTALL_DATADIR}/lorun
  COMPONENT runtime)
# The profile script names the GenTL folder of the prefix installed to, which
# is known only when installing (cmake --install --prefix, or the package's /usr).
install(CODE "
  set(gentl_dir \"\${CMAKE_INSTALL_PREFIX}/${LORUN_GENTL_DIR}\")
  if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
    set(profile_dir \"/etc/profile.d\")
  else()
    set(profile_dir \"\${CMAKE_INSTALL_PREFIX}/etc/profile.d\")
  endif()
  set(LORUN_GENTL_FULL_DIR \"\${gentl_dir}\")
  set(LORUN_GENTL_VARIABLE \"${LORUN_GENTL_VARIABLE}\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/lorun-gentl.sh.in\" \"\$ENV{DESTDIR}\${profile_dir}/lorun-gentl.sh\" @ONLY)
  message(STATUS \"Installing: \$ENV{DESTDIR}\${profile_dir}/lorun-gentl.sh\")
" COMPONENT runtime)

set(CPACK_PACKAGE_NAME lorun-csi2)
set(CPACK_PACKAGE_VENDOR "Tesmar Lumetric Industries")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "GenTL producer for MIPI CSI-2 cameras, with libcsi and the lorun-gentl tool")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Lorun developers <lorun@example.invalid>")
set(CPACK_GENERATOR DEB)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps reads the host's package database, which holds no target
  # libraries: scripts/cross.sh computes the dependencies from the sysroot's.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${LORUN_DEBIAN_ARCH})
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${LORUN_PACKAGE_DEPENDS}")
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON) # the runtime dependencies, from the libraries the binaries link
endif()
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON) # libcsi's shlibs entry and the ldconfig trigger
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL OFF)
include(CPack)
