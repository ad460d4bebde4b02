#!/bin/sh
# Builds the library for Android, with stubs in place of a device's libraries, and checks it; packs it into an AAR and
# checks that; compiles the C code in docs/android.md. Usage: android_test.sh FOLDER, which keeps the build
set -eu
export LC_ALL=C
root=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "$1" && cd "$1"

die() { printf '%s\n' "$*"; exit 1; }
same() { [ "$2" = "$3" ] || die "$1 is" "$2" "and must be" "$3"; }

for tool in clang:clang lld:lld zip:zip unzip:unzip jq:jq /usr/aarch64-linux-gnu/include/c++:g++-aarch64-linux-gnu; do
  [ -e "${tool%%:*}" ] || command -v "${tool%%:*}" >/dev/null || die "please run: sudo apt-get install ${tool#*:}"
done

rm -f ./*.aar ./*.so ./*.so.6 ./*.c

# ---- the library

"$root/tests/android/stubs.sh" stubs
configure() { # folder, options
  cmake -S "$root" -B "$@" -G Ninja --toolchain "$root/tests/android/toolchain.cmake" \
    -DKESAUDIO_ANDROID_SYSTEM="$PWD/stubs/system" -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_FLAGS_RELEASE=-O0 \
    -DKESAUDIO_WERROR=ON -DKESAUDIO_BUILD_TESTS=OFF -DKESAUDIO_BUILD_TOOLS=OFF -DKESAUDIO_BUILD_BENCH=OFF
}
build() { { configure "$@" && cmake --build "$1"; } >build.log 2>&1 || { cat build.log; die 'the build for Android failed'; }; }
build app
build build -DKESAUDIO_ANDROID_LIBRARIES="$PWD/stubs"
rm -rf refused
if configure refused -DKESAUDIO_ENGINES=platform >build.log 2>&1; then die "it took no device's libraries"; fi
grep -q 'DKESAUDIO_ENGINES=bundled' build.log || die 'instead of the way out:' "$(cat build.log)"

library=$PWD/app/libkesaudio.so
dynamic() { readelf -dW "$library" | sed -n "s/.*($1).*\[\(.*\)\]/\1/p" | sort | xargs; }
same 'what an app needs' "$(dynamic NEEDED)" 'libc.so liblog.so'
library=$PWD/build/libkesaudio.so
same 'its SONAME' "$(dynamic SONAME)" libkesaudio.so
same 'what it needs' "$(dynamic NEEDED)" \
  'libc.so libkeslimiter_vendor.so libkesshifter_vendor.so liblog.so libpalix32_vendor.so'
same "its segments' alignment" "$(readelf -lW "$library" | awk '$1 == "LOAD" {print $NF}' | sort -u)" 0x4000
readelf -nW "$library" | grep -q 'AArch64 feature: BTI, PAC' || die 'it has no note of branch protection'
readelf -dW "$library" | grep -q 'Flags: NOW' && readelf -lW "$library" | grep -q GNU_RELRO || die 'no full RELRO'

# ---- the AAR: its files, their contents, and the same bytes when made again

make_aar() { "$root/android/make_aar.sh" "$@"; }
link() { # file, machine, soname, options
  file=$1 machine=$2 soname=$3 && shift 3
  clang --target="$machine-linux-android26" -fuse-ld=lld -shared -nostdlib -Wl,-z,max-page-size=16384 \
    -Wl,--no-as-needed -Wl,-soname,"$soname" -o "$file" -x c /dev/null -x none "$@"
}
link x86_64.so x86_64 libkesaudio.so
make_aar --api 29 --ndk 27 out.aar arm64-v8a="$library" x86_64=x86_64.so
(umask 077 && TZ=UTC-9 make_aar --api 29 --ndk 27 again.aar arm64-v8a="$library" x86_64=x86_64.so)
cmp out.aar again.aar
same 'each mode and time' "$(unzip -Z out.aar | awk '/^-/ {print $1, $7, $8}' | sort -u)" '-rw-r--r-- 80-Jan-01 00:00'

module=prefab/modules/kesaudio
same 'what the AAR holds' "$(unzip -Z1 out.aar)" "$({
  echo AndroidManifest.xml META-INF/LICENSE prefab/prefab.json $module/module.json
  for abi in arm64-v8a x86_64; do echo $module/libs/android.$abi/abi.json $module/libs/android.$abi/libkesaudio.so; done
  cd "$root/include" && for header in kesaudio/*.h; do echo $module/include/"$header"; done
} | tr ' ' '\n' | sort)"
says() { same "$1" "$(unzip -p out.aar "$1" | jq -cS .)" "$(echo "$2" | jq -cS .)"; }
version=$(grep -oE 'VERSION_(MAJOR|MINOR|PATCH) [0-9]+' "$root/include/kesaudio/version.h" | sed 's/.* //' | paste -sd.)
says prefab/prefab.json '{"schema_version": 2, "name": "kesaudio", "version": "'"$version"'", "dependencies": []}'
says $module/module.json '{"library_name": "libkesaudio", "export_libraries": []}'
for abi in arm64-v8a x86_64; do
  says $module/libs/android.$abi/abi.json \
    '{"abi": "'$abi'", "api": 29, "ndk": 27, "stl": "none", "static": false}'
done
unzip -p out.aar AndroidManifest.xml >manifest.xml
for wanted in "versionName=\"$version\"" 'minSdkVersion="29"' 'package="[a-z]+\.[a-z]+"' 'versionCode="[1-9][0-9]*"'; do
  grep -qE "$wanted" manifest.xml || die "the manifest lacks $wanted"
done
unzip -p out.aar $module/libs/android.arm64-v8a/libkesaudio.so | cmp - "$library"
unzip -p out.aar $module/include/kesaudio/types.h | cmp - "$root/include/kesaudio/types.h"

# ---- refusals: one line each, and the old file is kept

refuses() { # what it must say, arguments
  wanted=$1 && shift
  echo before >kept.aar
  if make_aar "$@" 2>error; then die "it took $*"; fi
  grep -q "$wanted" error && [ "$(wc -l <error)" = 1 ] || die "on $*, instead of '$wanted':" "$(cat error)"
  same kept.aar "$(cat kept.aar)" before
}
for needed in libc.so.6 libc++_shared.so libstdc++.so.6; do
  link $needed aarch64 $needed
  link needs-$needed aarch64 libkesaudio.so $needed
  refuses "needs $needed" kept.aar arm64-v8a=needs-$needed
done
link soname.so aarch64 libkesaudio.so.0
link pages.so aarch64 libkesaudio.so -Wl,-z,max-page-size=4096
echo text >text.so
refuses "SONAME 'libkesaudio.so.0'" kept.aar arm64-v8a=soname.so
refuses 'aligned to 0x1000' kept.aar x86_64=x86_64.so arm64-v8a=pages.so
refuses 'text.so is no ELF file' kept.aar arm64-v8a=text.so
refuses 'none.so: no such file' kept.aar arm64-v8a=none.so
refuses 'is not for arm64-v8a' kept.aar arm64-v8a=x86_64.so
refuses "not for 'armeabi-v7a'" kept.aar armeabi-v7a="$library"
refuses 'given twice' kept.aar arm64-v8a="$library" arm64-v8a="$library"
refuses 'not ABI=LIBRARY' kept.aar "$library"
refuses "wants a number, not 'r27'" --ndk r27 kept.aar arm64-v8a="$library"
refuses usage kept.aar
refuses 'nowhere: no such folder' nowhere/kept.aar arm64-v8a="$library"

# ---- the C code in the document, as C99 and as C++

awk '/^```c$/ {file = "snippet" ++n ".c"; next} /^```/ {file = ""} file {print > file}' "$root/docs/android.md"
[ -e snippet1.c ] || die 'docs/android.md shows no C'
for snippet in snippet*.c; do
  for language in 'c -std=c99' 'c++ -std=c++17'; do
    clang -x $language -Wall -Wextra -Wpedantic -Werror -fsyntax-only -I"$root/include" "$snippet"
  done
done
