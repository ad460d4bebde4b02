# Debian packages, one of each component: `cpack` in the build folder. Configure with -DCMAKE_INSTALL_PREFIX=/usr, so
# that libraries go where Debian has those of the machine.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "The kesaudio authors <kesaudio@example.org>" CACHE STRING "Maintainer of the packages")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Conversion of channels, sampling rate and sample format of PCM")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL library development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/host)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkesaudio${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_LIBRARY_DESCRIPTION "The library, and in a folder of its own what stands in for Android's libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkesaudio-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS library)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers, static library, CMake package and pkg-config file.")

if(TARGET kesconvert)
  list(APPEND CPACK_COMPONENTS_ALL tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kesaudio-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION sound)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION "kesconvert, which converts audio files through the library.")
endif()

# Adds the documents that Debian wants in a package.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian_documents.cmake)
set(CPACK_KESAUDIO_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
include(CPack)
