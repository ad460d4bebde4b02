#!/bin/sh
# The library exports the functions that its public headers declare, needs the C library and the platform's alone,
# and takes the platform's functions from outside. Usage: exports_test.sh LIBRARY INCLUDE_DIR
set -eu
declared=$(grep -hoE '^KESAUDIO_API [a-z0-9_]+ [A-Za-z0-9_]+\(' "$2"/kesaudio/*.h | sed 's/.* //; s/(//' | sort)
exported=$(nm -D --defined-only "$1" | awk '{print $3}' | sort)
[ "$declared" = "$exported" ] || { printf 'declared:\n%s\nexported:\n%s\n' "$declared" "$exported"; exit 1; }

libraries=$(echo "$2"/../platform/*_lib.h)
for name in __android_log_print $(grep -ohE '(Palix|Limiter|Shifter)_[A-Za-z_]+\(' $libraries | tr -d '('); do
  nm -D --undefined-only "$1" | grep -qw "$name" || { echo "$name is not taken from outside"; exit 1; }
done
readelf -d "$1" | sed -n 's/.*NEEDED.*\[\(.*\)\]/\1/p' |
  grep -vE '^(libc\.so\.6|lib(log|(palix32|keslimiter|kesshifter)_vendor)\.so|ld-linux.*)$' && {
  echo 'needs more than the C library and the platform'; exit 1; }
exit 0
