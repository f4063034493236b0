# Install rules: the headers (the whole include/ tree, C and C++), the module
# and the host as shared libraries with a versioned SONAME and as static
# archives, the table layer as a static archive, a relocatable CMake package (find_package(velseq)) and velseq.pc.
include(CMakePackageConfigHelpers)

set(VELSEQ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/velseq)

install(TARGETS velseq velseq_static velhost velhost_static velseqpp veltable
  EXPORT velseqTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT Runtime NAMELINK_COMPONENT Development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development
  FILES_MATCHING PATTERN "*.h" PATTERN "*.hpp")

install(EXPORT velseqTargets NAMESPACE velseq::
  DESTINATION ${VELSEQ_CMAKE_DIR} COMPONENT Development)

# The config file first finds what the exported link interfaces name (see
# velseq_package_dependency in the top-level CMakeLists.txt).
get_property(_deps GLOBAL PROPERTY VELSEQ_CONFIG_CODE)
list(JOIN _deps "\n" VELSEQ_CONFIG_DEPENDENCIES)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/velseqConfig.cmake.in
  ${PROJECT_BINARY_DIR}/velseqConfig.cmake INSTALL_DESTINATION ${VELSEQ_CMAKE_DIR})
# Before 1.0 a minor version may break the ABI (it is in the SONAME too).
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(_compat SameMinorVersion)
else()
  set(_compat SameMajorVersion)
endif()
write_basic_package_version_file(${PROJECT_BINARY_DIR}/velseqConfigVersion.cmake
  COMPATIBILITY ${_compat})
install(FILES ${PROJECT_BINARY_DIR}/velseqConfig.cmake
              ${PROJECT_BINARY_DIR}/velseqConfigVersion.cmake
  DESTINATION ${VELSEQ_CMAKE_DIR} COMPONENT Development)

# pkg-config: paths relative to the .pc file, so the prefix can move.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR "velseq.pc needs CMAKE_INSTALL_LIBDIR and _INCLUDEDIR relative to the prefix")
endif()
file(RELATIVE_PATH VELSEQ_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VELSEQ_PC_PREFIX "${VELSEQ_PC_PREFIX}")
get_property(_pc_requires GLOBAL PROPERTY VELSEQ_PC_REQUIRES_PRIVATE)
list(JOIN _pc_requires ", " VELSEQ_PC_REQUIRES_PRIVATE)
configure_file(${PROJECT_SOURCE_DIR}/velseq.pc.in ${PROJECT_BINARY_DIR}/velseq.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velseq.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
