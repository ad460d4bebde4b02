#!/bin/sh
# Assembles the AAR for Android's Gradle plug-in, a prefab package, from builds of the library.
#
#   make_aar.sh [--api N] [--ndk N] OUT.aar ABI=LIBRARY...
#   make_aar.sh kesaudio.aar arm64-v8a=build-arm64/libkesaudio.so x86_64=build-x86_64/libkesaudio.so
#
#   --api N   the API level that the libraries were built for (ANDROID_PLATFORM); default 26
#   --ndk N   the major version of the NDK that built them; default 25, the oldest whose compiler is known to do
#   ABI       arm64-v8a or x86_64
#
# A library that Android would refuse is refused here. The same libraries give the same bytes. READELF names another
# readelf, as the NDK's llvm-readelf; zip is needed too.
set -eu
export LC_ALL=C
root=$(cd "$(dirname "$0")/.." && pwd)
usage='usage: make_aar.sh [--api N] [--ndk N] OUT.aar ABI=LIBRARY...'

die() { printf 'make_aar.sh: %s\n' "$*" >&2; exit 1; }

api=26 ndk=25
while :; do
  case ${1-} in
    --api | --ndk)
      case ${2-} in '' | 0* | *[!0-9]*) die "$1 wants a number, not '${2-}'" ;; esac
      [ "$1" = --api ] && api=$2 || ndk=$2
      shift 2 ;;
    -*) die "no such option: $1; $usage" ;;
    *) break ;;
  esac
done
[ $# -ge 2 ] || die "$usage"
out=$1 && shift
command -v zip >/dev/null || die 'zip is needed: please install it'
readelf=${READELF:-readelf}
command -v "$readelf" >/dev/null || die "$readelf is needed: install binutils, or name another in READELF"
[ ! -d "$out" ] || die "$out is a folder"
folder=$(dirname "$out")
[ -d "$folder" ] || die "$folder: no such folder"

part() { sed -n "s/^#define KESAUDIO_VERSION_$1 //p" "$root/include/kesaudio/version.h"; }
version=$(part MAJOR).$(part MINOR).$(part PATCH)
code=$(($(part MAJOR) * 10000 + $(part MINOR) * 100 + $(part PATCH)))

# Refuses a library that is not for the ABI, or that Android could not load.
check() {
  abi=$1 library=$2
  case $abi in
    arm64-v8a) machine=AArch64 ;;
    x86_64) machine='Advanced Micro Devices X86-64' ;;
    *) die "the library is for arm64-v8a and x86_64, not for '$abi'" ;;
  esac
  [ -f "$library" ] || die "$library: no such file"
  header=$("$readelf" -hW "$library" 2>/dev/null) || die "$library is no ELF file"
  printf '%s\n' "$header" | grep -q "Machine: *$machine\$" || die "$library is not for $abi"
  dynamic=$("$readelf" -dW "$library")
  name=$(printf '%s\n' "$dynamic" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
  [ "$name" = libkesaudio.so ] || die "$library has the SONAME '$name', and must have libkesaudio.so"
  for needed in $(printf '%s\n' "$dynamic" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p'); do
    case $needed in
      libc.so.*) die "$library needs $needed: it was linked for Linux, not for Android" ;;
      libc++* | libstdc++* | libgnustl*) die "$library needs $needed: the package promises no C++ runtime" ;;
    esac
  done
  for align in $("$readelf" -lW "$library" | awk '$1 == "LOAD" {print $NF}'); do
    [ "$align" = 0x4000 ] || die "$library has a LOAD segment aligned to $align, and must have 0x4000 for 16 KiB pages"
  done
}

tree=$(mktemp -d) beside=
trap 'rm -rf "$tree" ${beside:+"$beside"}' EXIT
trap 'exit 1' HUP INT TERM

fill() {
  mkdir -p "$(dirname "$tree/$2")"
  sed "s/@VERSION@/$version/; s/@VERSION_CODE@/$code/; s/@ABI@/${abi-}/; s/@API@/$api/; s/@NDK@/$ndk/" \
    "$root/android/prefab/$1" >"$tree/$2"
}

module=prefab/modules/kesaudio
fill AndroidManifest.xml AndroidManifest.xml
fill prefab.json prefab/prefab.json
fill module.json $module/module.json
mkdir -p "$tree/META-INF" "$tree/$module/include/kesaudio"
cp "$root/LICENSE" "$tree/META-INF/LICENSE"
cp "$root"/include/kesaudio/*.h "$tree/$module/include/kesaudio"
for pair in "$@"; do
  case $pair in ?*=?*) ;; *) die "'$pair' is not ABI=LIBRARY" ;; esac
  check "${pair%%=*}" "${pair#*=}"
  place=$module/libs/android.$abi
  [ ! -e "$tree/$place" ] || die "$abi is given twice"
  fill abi.json "$place/abi.json"
  cp "$library" "$tree/$place/libkesaudio.so"
done

# The same bytes each time: modes, times (zip's first day) and order are fixed.
find "$tree" -type f -exec chmod 644 {} + -exec touch -t 198001010000 {} +
beside=$(mktemp -d "$(cd "$folder" && pwd)/.make_aar.XXXXXX" 2>/dev/null) || die "can't write beside $out"
(cd "$tree" && find AndroidManifest.xml META-INF prefab -type f | sort | zip -q -X -D "$beside/kesaudio.zip" -@) ||
  die "can't write $out"
mv -f "$beside/kesaudio.zip" "$out" || die "can't write $out"
