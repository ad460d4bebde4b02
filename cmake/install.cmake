# Installs three components, each of which CPack makes a Debian package of: the library (with the host libraries, in a
# folder where it alone finds them), the files to build with it, and kesconvert. All paths are relative, so the whole
# may be moved.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KesAudio)

install(TARGETS kesaudio EXPORT KesAudioTargets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(DIRECTORY include/kesaudio DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(EXPORT KesAudioTargets NAMESPACE KesAudio:: DESTINATION ${package_dir} COMPONENT development)
if(TARGET kesaudio_static)
  install(TARGETS kesaudio_static EXPORT KesAudioTargets INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()
foreach(level ${KESAUDIO_LEVELS})
  if(TARGET kesaudio_${level})
    install(TARGETS kesaudio_${level} COMPONENT library
      LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/glibc-hwcaps/${level} NAMELINK_SKIP)
  endif()
endforeach()
if(KESAUDIO_PLATFORM AND NOT ANDROID)
  foreach(target ${KESAUDIO_PLATFORM_LIBRARIES})
    string(REPLACE kesaudio_host_ "" name ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
  endforeach()
  install(TARGETS ${KESAUDIO_PLATFORM_LIBRARIES} EXPORT KesAudioHostTargets
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} LIBRARY DESTINATION ${KESAUDIO_HOST_DIR} COMPONENT library)
  install(FILES platform/log.h platform/resampler_lib.h platform/limiter_lib.h platform/shifter_lib.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kesaudio/platform COMPONENT development)
  install(EXPORT KesAudioHostTargets NAMESPACE KesAudio:: DESTINATION ${package_dir} COMPONENT development)
  foreach(level ${KESAUDIO_LEVELS})
    foreach(target ${KESAUDIO_PLATFORM_LIBRARIES})
      if(TARGET ${target}_${level})
        install(TARGETS ${target}_${level} COMPONENT library
          LIBRARY DESTINATION ${KESAUDIO_HOST_DIR}/glibc-hwcaps/${level})
      endif()
    endforeach()
  endforeach()
endif()

# Found as KesAudio and as kesaudio: a file with its name in small letters is looked for under both.
configure_package_config_file(cmake/kesaudio-config.cmake.in kesaudio-config.cmake INSTALL_DESTINATION ${package_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(kesaudio-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kesaudio-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kesaudio-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# For pkg-config: from the file's own place, unless a folder was given as an absolute path, which then stays.
set(pc_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  file(RELATIVE_PATH upwards /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" upwards ${upwards})
  set(pc_prefix "\${pcfiledir}/${upwards}")
endif()
foreach(folder LIBDIR INCLUDEDIR)
  set(pc_${folder} ${CMAKE_INSTALL_${folder}})
  if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_${folder}})
    set(pc_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
  endif()
endforeach()
if(ANDROID AND NOT BUILD_SHARED_LIBS)
  set(pc_static "Libs.private: -llog\n")
endif()
configure_file(cmake/kesaudio.pc.in kesaudio.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kesaudio.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

if(TARGET kesconvert)
  install(TARGETS kesconvert RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES tools/kesconvert.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

# An outer project makes packages of its own.
if(PROJECT_IS_TOP_LEVEL AND NOT ANDROID AND NOT CMAKE_CROSSCOMPILING)
  include(cmake/packages.cmake)
endif()
