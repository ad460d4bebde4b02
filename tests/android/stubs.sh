#!/bin/sh
# Makes stubs of a device's libraries, to link with: they export the functions that ours calls, and do nothing. The
# closed libraries go to FOLDER, those of an NDK to FOLDER/system. Usage: stubs.sh FOLDER
set -eu
mkdir -p "$1/system"
folder=$(cd "$1" && pwd)
cd "$(dirname "$0")/../../platform"

stub() { # file, functions
  library=$1 && shift
  for function in "$@"; do printf 'void %s(void);\nvoid %s(void) {}\n' "$function" "$function"; done |
    clang --target=aarch64-linux-android26 -fuse-ld=lld -shared -fPIC -nostdlib -fno-builtin -w \
      -Wl,-soname,"${library##*/}" -o "$folder/$library" -x c -
}
declared() { grep -ohE "$1_[A-Za-z_]+\(" ./*_lib.h | tr -d '(' | sort -u; }
stub libpalix32_vendor.so $(declared Palix)
stub libkeslimiter_vendor.so $(declared Limiter)
stub libkesshifter_vendor.so $(declared Shifter)
stub system/liblog.so __android_log_print
stub system/libc.so malloc free memcpy memmove memset memcmp __stack_chk_fail
stub system/libm.so
stub system/libdl.so
