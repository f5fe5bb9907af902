# Install rules, the CMake package (talmem::talmemorypool_zoeis), the
# pkg-config file and the Debian packages (CPack DEB).
#
# Components: "runtime" holds the shared library; "dev" holds the headers,
# the CMake and pkg-config files, the tools and the sample files.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TALMEM_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/talmemorypool_zoeis)
set(TALMEM_SHARE_DIR ${CMAKE_INSTALL_DATADIR}/talmemorypool_zoeis)

# --- library ---------------------------------------------------------------
set_target_properties(talmemorypool_zoeis PROPERTIES
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR}
  EXPORT_NAME talmemorypool_zoeis
  # The Android libraries live outside the loader's default path on Debian.
  INSTALL_RPATH "${TALMEM_ANDROID_LIBDIR}")
target_include_directories(talmemorypool_zoeis INTERFACE
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS talmemorypool_zoeis EXPORT talmemorypool_zoeisTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_SKIP)
install(TARGETS talmemorypool_zoeis
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev NAMELINK_ONLY)

# --- public headers ----------------------------------------------------------
# The camera-buffer service's declarations go beside the library's own headers:
# a caller of the shared-pointer Malloc needs ICameraBuffer.
file(GLOB TALMEM_PUBLIC_HEADERS CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/include/talmem/*.h)
install(FILES ${TALMEM_PUBLIC_HEADERS}
              ${CMAKE_CURRENT_SOURCE_DIR}/platform/include/CameraBufferInterface.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/talmem COMPONENT dev)

# --- CMake package -----------------------------------------------------------
install(EXPORT talmemorypool_zoeisTargets NAMESPACE talmem::
  DESTINATION ${TALMEM_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(cmake/talmemorypool_zoeisConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeisConfig.cmake
  INSTALL_DESTINATION ${TALMEM_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeisConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeisConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeisConfigVersion.cmake
  DESTINATION ${TALMEM_CMAKE_DIR} COMPONENT dev)

# --- pkg-config --------------------------------------------------------------
# The prefix is found from the .pc file's own place, so an install moved to
# another prefix (cmake --install --prefix, a package) still resolves.
file(RELATIVE_PATH TALMEM_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" TALMEM_PC_TO_PREFIX "${TALMEM_PC_TO_PREFIX}")
configure_file(cmake/talmemorypool_zoeis.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeis.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/talmemorypool_zoeis.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# --- tools and samples -------------------------------------------------------
# Every program built under tools/, whatever subfolder defines it.
function(talmem_install_programs dir)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(t ${targets})
    get_target_property(type ${t} TYPE)
    if(type STREQUAL "EXECUTABLE")
      set_target_properties(${t} PROPERTIES
        INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR};${TALMEM_ANDROID_LIBDIR}")
      install(TARGETS ${t} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT dev)
    endif()
  endforeach()
  get_property(subdirs DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(sub ${subdirs})
    talmem_install_programs(${sub})
  endforeach()
endfunction()
if(TALMEM_BUILD_TOOLS)
  talmem_install_programs(${CMAKE_CURRENT_SOURCE_DIR}/tools)
endif()
install(DIRECTORY samples/ DESTINATION ${TALMEM_SHARE_DIR}/samples COMPONENT dev
  PATTERN ".git*" EXCLUDE)

# --- Debian packages ---------------------------------------------------------
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libtalmemorypool-zoeis)
set(CPACK_PACKAGE_VENDOR "libtalmemorypool_zoeis team")
set(CPACK_PACKAGE_CONTACT "libtalmemorypool_zoeis team <talmem@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "memory pool for the large image buffers of camera nodes")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtalmemorypool-zoeis${PROJECT_VERSION_MAJOR})
# The ldconfig trigger, as for any Debian shared library.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_SOURCE_DIR}/cmake/deb/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
  "android-libutils (>= 1:29), android-liblog (>= 1:29), libtinyxml2-9, libstdc++6 (>= 12), libc6 (>= 2.36)")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtalmemorypool-zoeis-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
  "libtalmemorypool-zoeis${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), android-libutils-dev (>= 1:29), android-liblog-dev (>= 1:29)")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Shared library that camera nodes link for their large image buffers.")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Headers, CMake package, pkg-config file, tools and sample device tree.")
include(CPack)
