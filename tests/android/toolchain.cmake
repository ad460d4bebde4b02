# The settings of the NDK's toolchain file for Debian's clang and lld, on a machine without an NDK: the compiler's
# target, the system, and the flags that can make a build fail. CMake then behaves as with an NDK: ANDROID is set,
# libraries have no version in their names, nothing of the host is searched.
#
# Android's C library and headers are not here: the headers are those of Debian's cross compiler (libc6-dev-arm64-cross,
# libstdc++-12-dev-arm64-cross), the libraries are stubs (stubs.sh) in KESAUDIO_ANDROID_SYSTEM.
set(CMAKE_SYSTEM_NAME Android)
set(CMAKE_SYSTEM_VERSION 1) # the toolchain file is in charge: CMake looks for no NDK
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ANDROID TRUE)
set(ANDROID_ABI arm64-v8a)
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET aarch64-linux-android26)
set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-android26)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY) # a program needs the C library's start files
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(mode LIBRARY INCLUDE PACKAGE)
  set(CMAKE_FIND_ROOT_PATH_MODE_${mode} ONLY)
endforeach()

set(cross /usr/aarch64-linux-gnu/include)
file(GLOB cxx ${cross}/c++/*)
list(GET cxx -1 cxx)
string(JOIN " " flags -DANDROID -fdata-sections -ffunction-sections -funwind-tables -fstack-protector-strong
  -Wformat -Werror=format-security -nostdlibinc)
set(CMAKE_C_FLAGS_INIT "${flags} -isystem ${cross}")
set(CMAKE_CXX_FLAGS_INIT "${flags} -isystem ${cxx} -isystem ${cxx}/aarch64-linux-gnu -isystem ${cross}")
# No start files: Android's aren't here, and those of Linux lack the note of branch protection.
string(JOIN " " CMAKE_SHARED_LINKER_FLAGS_INIT -Qunused-arguments -fuse-ld=lld -nostdlib -Wl,--build-id=sha1
  -Wl,--no-undefined -Wl,--no-undefined-version -Wl,--fatal-warnings -L${KESAUDIO_ANDROID_SYSTEM})
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-lm -lc -ldl")
