#!/bin/sh
# Makes the HTML reference: reference.sh FOLDER puts it into FOLDER/html. Fails on any warning, and, since Doxygen
# itself does not look at them, on a constant without a word.
set -eu
folder=$(mkdir -p "$1" && cd "$1" && pwd)
cd "$(dirname "$0")/../.."
if grep -Hn '^  KES_[A-Z0-9_]* =' include/kesaudio/*.h | grep -v '/\*'; then
  echo 'these constants are not documented' >&2
  exit 1
fi
version=$(awk '/define KESAUDIO_VERSION_/ && NF == 3 { print $3 }' include/kesaudio/version.h | paste -sd .)
{ cat docs/doxygen/Doxyfile && printf 'PROJECT_NUMBER = %s\nOUTPUT_DIRECTORY = "%s"\n' "$version" "$folder"; } | doxygen -
