# Chooses where the resampler, the limiter, the shifter and the log come from, and refuses what can't be built.
#
#   platform   shared libraries of the platform's names: the device's, off Android those of host/
#   bundled    those of host/, compiled into the library itself under hidden names: one file that needs the C library
#              alone (on Android also liblog.so), for an app or a program
if((CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 12) OR
   (CMAKE_CXX_COMPILER_ID STREQUAL Clang AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 14))
  message(FATAL_ERROR "kesaudio needs g++ 12 or clang 14, or later, not ${CMAKE_CXX_COMPILER_ID} ${CMAKE_CXX_COMPILER_VERSION}: choose one with -DCMAKE_CXX_COMPILER=...")
endif()
if(NOT CMAKE_SIZEOF_VOID_P EQUAL 8 OR NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|aarch64|arm64)$")
  math(EXPR bits "8 * ${CMAKE_SIZEOF_VOID_P}")
  message(FATAL_ERROR "kesaudio and its engines are for 64-bit Arm and x86-64, not for ${CMAKE_SYSTEM_PROCESSOR} with ${bits} bits")
endif()

set(KESAUDIO_ENGINES "" CACHE STRING "platform, bundled, or nothing for the default")
set_property(CACHE KESAUDIO_ENGINES PROPERTY STRINGS "" platform bundled)
if(ANDROID)
  set(KESAUDIO_ANDROID_LIBRARIES "" CACHE PATH "Folder of the device's libpalix32_vendor.so and so on, to link with")
endif()

# By default an app, a static library and a part of another project have the engines inside.
if(NOT KESAUDIO_ENGINES)
  set(KESAUDIO_ENGINES bundled)
  if(KESAUDIO_ANDROID_LIBRARIES OR
     (PROJECT_IS_TOP_LEVEL AND NOT ANDROID AND (NOT DEFINED BUILD_SHARED_LIBS OR BUILD_SHARED_LIBS)))
    set(KESAUDIO_ENGINES platform)
  endif()
elseif(NOT KESAUDIO_ENGINES MATCHES "^(platform|bundled)$")
  message(FATAL_ERROR "KESAUDIO_ENGINES is platform or bundled, not '${KESAUDIO_ENGINES}'")
endif()
set(KESAUDIO_PLATFORM FALSE)
if(KESAUDIO_ENGINES STREQUAL platform)
  set(KESAUDIO_PLATFORM TRUE)
endif()

# Inside another project the library goes into the programs that link it, unless the project wants shared ones.
if(NOT DEFINED BUILD_SHARED_LIBS)
  set(BUILD_SHARED_LIBS OFF)
  if(PROJECT_IS_TOP_LEVEL OR KESAUDIO_PLATFORM)
    set(BUILD_SHARED_LIBS ON)
  endif()
elseif(KESAUDIO_PLATFORM AND NOT BUILD_SHARED_LIBS)
  message(FATAL_ERROR "A static library has its engines inside: take -DKESAUDIO_ENGINES=bundled with -DBUILD_SHARED_LIBS=OFF")
endif()

if(KESAUDIO_PLATFORM AND ANDROID)
  foreach(name palix32_vendor keslimiter_vendor kesshifter_vendor)
    if(NOT EXISTS ${KESAUDIO_ANDROID_LIBRARIES}/lib${name}.so)
      message(FATAL_ERROR "lib${name}.so of the device is not in KESAUDIO_ANDROID_LIBRARIES ('${KESAUDIO_ANDROID_LIBRARIES}'); an app, which can't load it anyway, takes -DKESAUDIO_ENGINES=bundled")
    endif()
  endforeach()
endif()
