#!/bin/sh
# Checks that the Android.bp files are formatted, name existing files, and have every source, flag and test of the CMake build.
set -eu
export LC_ALL=C
cd "$(dirname "$0")/../.."
command -v bpfmt >/dev/null || { echo 'please run: sudo apt-get install blueprint-tools'; exit 1; }

# bpfmt exits with 0 whatever it finds.
files='Android.bp tests/Android.bp tools/Android.bp'
difference=$(bpfmt -d $files)
[ -z "$difference" ] || { printf '%s\n' "$difference"; exit 1; }

failed=0
complain() { echo "Android.bp $*"; failed=1; }

# Every string of the files; those that name a file, with its folder.
named=$(for file in $files; do
  folder=${file%Android.bp}
  grep -v '^ *//' $file | grep -oE '"[^"]+"' | tr -d '"' |
    sed -E "s#^([A-Za-z_]+/)*[A-Za-z_]+\\.(c|cpp|map|txt)\$|^LICENSE\$|^include\$#$folder&#"
done)
names() { printf '%s\n' "$named" | grep -qxF -e "$1"; }
for file in $(printf '%s\n' "$named" | grep -E '^[a-z]+/[^ :]*\.|^LICENSE|^include'); do
  [ -e "$file" ] || complain "names $file, which is not there"
done
for source in bitconvert/*.cpp channel/*.cpp host/[!l]*.cpp host/l[!o]*.cpp host/*/*.cpp resampler/*.cpp tools/*.cpp \
  tests/*.c tests/*_test.cpp; do
  case $source in tests/golden_test.cpp | tests/palix_test.cpp) continue ;; esac
  [ -e "host/$(basename "$source" _test.cpp).cpp" ] || names "$source" || complain "lacks $source"
done
for flag in $(cat CMakeLists.txt cmake/shared_library.cmake host/CMakeLists.txt | grep -v '^ *#' |
  grep -oE -- '-(Wl,|[fmWO])[A-Za-z0-9_=,-]+'); do
  case $flag in -Werror | -f*-sections | -Wl,--version-script* | -march=*) ;; *) names "$flag" || complain "lacks $flag" ;; esac
done
exit $failed
