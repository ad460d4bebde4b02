#!/bin/sh
# Checks that Android.bp is formatted, names existing files, and has every source, flag and test of the CMake build.
set -eu
export LC_ALL=C
cd "$(dirname "$0")/../.."
command -v bpfmt >/dev/null || { echo 'please run: sudo apt-get install blueprint-tools'; exit 1; }

# bpfmt exits with 0 whatever it finds.
difference=$(bpfmt -d Android.bp)
[ -z "$difference" ] || { printf '%s\n' "$difference"; exit 1; }

failed=0
complain() { echo "Android.bp $*"; failed=1; }

named=$(grep -v '^ *//' Android.bp | grep -oE '"[^"]+"' | tr -d '"')
names() { printf '%s\n' "$named" | grep -qxF -e "$1"; }
for file in $(printf '%s\n' "$named" | grep -E '^[a-z]+/.*\.|^LICENSE|^include'); do
  [ -e "$file" ] || complain "names $file, which is not there"
done
for source in bitconvert/*.cpp channel/*.cpp resampler/*.cpp tools/*.cpp tests/*.c tests/*_test.cpp; do
  [ "$source" = tests/golden_test.cpp ] || [ -e "host/$(basename "$source" _test.cpp).cpp" ] ||
    [ "$source" = tests/palix_test.cpp ] || names "$source" || complain "lacks $source"
done
for flag in $(cat CMakeLists.txt cmake/shared_library.cmake | grep -v '^ *#' | grep -oE -- '-(Wl,|[fmW])[A-Za-z0-9_=,-]+'); do
  case $flag in -Werror | -f*-sections | -Wl,--version-script* | -march=*) ;; *) names "$flag" || complain "lacks $flag" ;; esac
done
exit $failed
