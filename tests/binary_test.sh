#!/bin/sh
# Checks the built libraries as files: they export the functions that the public headers declare and no others, need
# the C library alone (with `platform` also the platform's libraries), have segments for pages of 16 KiB, and nothing
# that is writable and executable, or writable without need.
# Usage: binary_test.sh INCLUDE_DIR platform|bundled LIBRARY OTHER_LIBRARY...; LIBRARY is libkesaudio.so, the others are
# ours as well.
set -u
include=$1 engines=$2 library=$3
shift 2
failed=0
wrong() { echo "$1: $2"; failed=1; }

declared=$(grep -hoE '^KESAUDIO_API [a-z0-9_]+ [A-Za-z0-9_]+\(' "$include"/kesaudio/*.h | sed 's/.* //; s/(//' | sort)
exported=$(nm -D --defined-only "$library" | awk '{print $3}' | sort)
[ -n "$declared" ] && [ "$declared" = "$exported" ] ||
  wrong "$library" "exports: $(echo $exported), declared are: $(echo $declared)"

platform=$(grep -ohE '(Palix|Limiter|Shifter)_[A-Za-z_]+\(' "$include"/../platform/*_lib.h | tr -d '(')
for name in __android_log_print $platform; do
  nm -D --undefined-only "$library" | grep -qw "$name" && takes=platform || takes=bundled
  [ $takes = "$engines" ] || wrong "$library" "$engines, but it takes $name as if it were $takes"
done

dynamic=$(readelf -dW "$library")
major=$(sed -n 's/#define KESAUDIO_VERSION_MAJOR //p' "$include/kesaudio/version.h")
echo "$dynamic" | grep -q "(SONAME).*\[libkesaudio\.so\.$major\]" || wrong "$library" "is not libkesaudio.so.$major"

readelf -rW "$library" | grep -wF "$declared" && wrong "$library" 'calls itself through names that others may have taken'

# Vector code that is off by mistake changes no result, so look for its instructions.
case $(readelf -hW "$library") in
  *AArch64*) objdump=aarch64-linux-gnu-objdump vectors='sqdmulh sqxtn2 tbl ld3' ;;
  *) objdump=objdump vectors='pmulhw packssdw' ;;
esac
command -v $objdump >/dev/null || objdump=objdump
for file in "$@"; do
  case $file in
    "$library") expected=$vectors ;;
    *hwcaps/*/libkesaudio.so*) expected='vpmulhw vpackssdw vpshufb' ;;
    *) continue ;;
  esac
  code=$($objdump -d --no-show-raw-insn "$file")
  for instruction in $expected; do
    echo "$code" | grep -qw "$instruction" || wrong "$file" "has no $instruction: are the kernels' vectors off?"
  done
done

platform_libraries='lib(log|(palix32|keslimiter|kesshifter)_vendor)\.so'
[ "$engines" = platform ] || platform_libraries=none
for file in "$@"; do
  segments=$(readelf -lW "$file") dynamic=$(readelf -dW "$file")
  leaked=$(nm -D --defined-only "$file" | awk '{ print $3 }' |
    grep -vxF "$(printf '%s\n' __android_log_print $platform $declared)")
  [ -z "$leaked" ] || wrong "$file" "exports what no header declares: $(echo $leaked)"
  needed=$(echo "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' |
    grep -vxE "libc\.so\.6|$platform_libraries|ld-linux.*")
  [ -z "$needed" ] || wrong "$file" "needs more than the C library, and with 'platform' the platform's: $(echo $needed)"
  [ "$(echo "$segments" | awk '$1 == "LOAD" { print $NF }' | sort -u)" = 0x4000 ] || wrong "$file" 'is not for pages of 16 KiB'
  echo "$segments" | grep -q 'GNU_RELRO' && echo "$dynamic" | grep -q 'BIND_NOW' || wrong "$file" 'is not read-only once relocated'
  echo "$segments" | grep -qE 'GNU_STACK.* RW +0' || wrong "$file" 'has an executable stack'
  echo "$segments" | grep -qE 'LOAD.* RWE' && wrong "$file" 'has writable code'
  echo "$dynamic" | grep -q 'TEXTREL' && wrong "$file" 'has text relocations'
  echo "$dynamic" | grep -qE '\((INIT|INIT_ARRAY|FINI|FINI_ARRAY)\)' && wrong "$file" 'runs code when it is loaded'
  case $(readelf -hW "$file") in
    *AArch64*) readelf -nW "$file" | grep -q 'AArch64 feature: BTI, PAC' || wrong "$file" 'has no BTI and PAC' ;;
  esac
done
exit $failed
