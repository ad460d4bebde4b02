# Settings of all our libraries.
#
#   kesaudio_compiled(target level)                        how a target's sources are compiled, for a level of x86-64
#                                                          or for any ("")
#   kesaudio_shared_library(target name level source...)   the file lib<name>.so
#
# Exceptions, run-time types and the C++ runtime stay out: the libraries then need the C library alone, and a caller may
# bring any C++ runtime or none. They run nothing when they are loaded, so off Android the C runtime's start files stay
# out, too: on 64-bit Arm these may lack the BTI note, and a library has it only if all of its objects do.
#
# Pages of 16 KiB are what newer devices have, and a segment that is aligned to them can be mapped on any.
function(kesaudio_compiled target level)
  target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:kesaudio_flags>)
  set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON
    CXX_EXTENSIONS OFF CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    target_compile_options(${target} PRIVATE -mbranch-protection=standard)
  endif()
  get_target_property(type ${target} TYPE)
  if(NOT type STREQUAL SHARED_LIBRARY)  # a linker that is asked to leaves out what a program does not call
    target_compile_options(${target} PRIVATE -ffunction-sections -fdata-sections)
  endif()
  if(level)
    target_compile_options(${target} PRIVATE -march=${level})
  endif()
endfunction()

function(kesaudio_shared_library target name level)
  add_library(${target} SHARED ${ARGN})
  kesaudio_compiled(${target} "${level}")
  target_link_options(${target} PRIVATE -Wl,-z,max-page-size=16384 -Wl,-z,relro -Wl,-z,now -Wl,-z,text
    -Wl,-z,noexecstack $<$<NOT:$<BOOL:${ANDROID}>>:-nostartfiles>)
  set(folder ${CMAKE_CURRENT_BINARY_DIR})
  if(level)
    string(APPEND folder /glibc-hwcaps/${level})
  endif()
  set_target_properties(${target} PROPERTIES OUTPUT_NAME ${name} LINKER_LANGUAGE C LIBRARY_OUTPUT_DIRECTORY ${folder})
endfunction()
