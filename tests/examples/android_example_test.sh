#!/bin/sh
# Builds the native part of examples/android for this machine, with the library as prefab offers it, and calls it from
# Java. Neither Gradle nor Kotlin nor Android take part.
# Usage: android_example_test.sh SOURCE_DIR BUILD_DIR JNI_INCLUDE...
set -eu
source=$1 build=$2 && shift 2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
quietly() { "$@" >log 2>&1 || { cat log; echo "failed: $*"; exit 1; }; }

mkdir prefab
cat >prefab/kesaudioConfig.cmake <<END
add_library(kesaudio::kesaudio SHARED IMPORTED)
set_target_properties(kesaudio::kesaudio PROPERTIES IMPORTED_LOCATION "$build/libkesaudio.so"
  INTERFACE_INCLUDE_DIRECTORIES "$source/include" INTERFACE_LINK_OPTIONS "-Wl,-rpath-link,$build/host")
END
module=$source/examples/android/src/main
quietly cmake -S "$module/cpp" -B native -Dkesaudio_DIR="$PWD/prefab" \
  -DCMAKE_C_FLAGS="-std=c99 -Wall -Wextra -Wpedantic -Werror $(printf ' -isystem %s' "$@")"
quietly cmake --build native

for kotlin in "$module"/kotlin/*/*/*.kt; do
  class=$(sed -n 's/^package //p' "$kotlin").$(basename "$kotlin" .kt)
  for name in $(sed -n 's/.*external fun \([A-Za-z]*\).*/\1/p' "$kotlin"); do
    nm -D native/libmixer.so | grep -qw "Java_$(echo "$class" | tr . _)_$name" || { echo "no $class.$name"; exit 1; }
  done
done
python3 -c 'import sys, xml.dom.minidom as dom; dom.parse(sys.argv[1])' "$module/AndroidManifest.xml"
said=$(java -Djava.library.path=native "$source/tests/examples/Mixer.java" 2>&1 | xargs)
[ "$said" = '1414 1414 refused refused' ] || { echo "Java says: $said"; exit 1; }
