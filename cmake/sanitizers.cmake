# Lets programs find the runtime of clang's address sanitizer.
if(CMAKE_CXX_FLAGS MATCHES "-shared-libasan")
  execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so
    OUTPUT_VARIABLE runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
  get_filename_component(CMAKE_BUILD_RPATH ${runtime} DIRECTORY)
endif()
