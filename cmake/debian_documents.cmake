# Run by CPack on what it is about to pack: each component's folder gets the licence and the changes, in a folder named
# like the package, and the manual page is compressed.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} name)
  set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}${CPACK_PACKAGING_INSTALL_PREFIX}/share)
  set(documents ${share}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  file(WRITE ${documents}/copyright "Copyright 2026 the kesaudio authors
License: Apache-2.0

On Debian systems the text of the licence is in /usr/share/common-licenses/Apache-2.0.
")
  file(COPY_FILE ${CPACK_KESAUDIO_CHANGELOG} ${documents}/changelog)
  file(GLOB pages ${share}/man/man1/*.1)
  execute_process(COMMAND gzip -9n ${documents}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
