# Builds for 64-bit Arm Linux on another machine, by Debian's cross g++ or, with KESAUDIO_CLANG, by clang and lld, the
# compiler of Android's NDK; programs run under qemu. The libraries of that machine are in build/aarch64-root
# (cmake/aarch64-root.sh).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(KESAUDIO_CLANG)
  set(CMAKE_C_COMPILER clang)
  set(CMAKE_CXX_COMPILER clang++)
  set(CMAKE_C_COMPILER_TARGET aarch64-linux-gnu)
  set(CMAKE_CXX_COMPILER_TARGET aarch64-linux-gnu)
  set(aarch64_linker "-fuse-ld=lld")
else()
  set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
  set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESAUDIO_CLANG)

set(aarch64_root ${CMAKE_CURRENT_LIST_DIR}/../build/aarch64-root)
set(aarch64_libraries ${aarch64_root}/usr/lib/aarch64-linux-gnu)
string(APPEND aarch64_linker " -Wl,-rpath-link,${aarch64_libraries}:${aarch64_root}/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT ${aarch64_linker})
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${aarch64_linker})

set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH ${aarch64_root})
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} ${aarch64_libraries}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${aarch64_root})

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L ${aarch64_root})
