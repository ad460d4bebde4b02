#!/bin/sh
# Builds and runs projects outside the tree, by CMake and by pkg-config: against an installation that was moved,
# against one with an absolute folder of libraries, against the sources, and against the unpacked Debian packages.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR VERSION
set -eu
build=$1 source=$2 version=$3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"
quietly() { "$@" >log 2>&1 || { cat log; echo "failed: $*"; exit 1; }; }
die() { echo "$*"; exit 1; }

# Tries the installation in a folder: C and C++ by pkg-config and by CMake, and the tool.
use() {
  pc=$(dirname "$(find "$PWD/$1" -name kesaudio.pc)")
  libraries=$(dirname "$pc")
  [ "$(PKG_CONFIG_PATH=$pc pkg-config --modversion kesaudio)" = "$version" ] || die "$1: kesaudio.pc is not of $version"
  quietly cc -std=c99 "$source/tests/c_user.c" $(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs kesaudio) -o c_user
  quietly env LD_LIBRARY_PATH="$libraries" ./c_user
  loaded() { readlink -f "$(LD_LIBRARY_PATH="$libraries" ldd ./c_user | sed -n "s/.*$1 => \(.*\) (.*/\1/p")"; }
  [ "$(loaded liblog.so)" = "$libraries/kesaudio/liblog.so" ] || die "$1: the host's log is not in a folder of ours"
  for library in libkesaudio.so.0 libpalix32_vendor.so libkesshifter_vendor.so; do
    case $(grep -c ' avx2 ' /proc/cpuinfo):$(loaded $library) in
      0:* | *glibc-hwcaps*) ;;
      *) [ ! -e "$libraries/glibc-hwcaps" ] || die "$1: $library is not the one for this processor" ;;
    esac
  done
  quietly c++ -x c++ "$source/tests/c_user.c" $(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs kesaudio) -o cxx_user
  quietly env LD_LIBRARY_PATH="$libraries" ./cxx_user
  quietly cmake -G Ninja -S "$source/tests/consumer" -B "$1-user" -DKesAudio_ROOT="$PWD/$1"
  quietly cmake --build "$1-user"
  quietly "$1-user/c_user"
  quietly "$1-user/host_user"
  [ ! -e "$1/bin/kesconvert" ] || [ "$("$1/bin/kesconvert" --version)" = "kesconvert $version" ] ||
    die "$1: kesconvert does not run"
}

quietly cmake --install "$build" --prefix "$scratch/installed"
mv installed moved
use moved
find moved -name '*.so*' | grep -vE '/(kesaudio|glibc-hwcaps|libkesaudio\.so)' && die 'a library lies where others look'

# An absolute folder of libraries is kept as given. It is that of the other installation.
plain="-DKESAUDIO_BUILD_TESTS=OFF -DKESAUDIO_BUILD_TOOLS=OFF -DKESAUDIO_BUILD_BENCH=OFF"
quietly cmake -G Ninja -S "$source" -B configured $plain -DCMAKE_INSTALL_PREFIX=/opt/kesaudio \
  -DCMAKE_INSTALL_LIBDIR="$libraries" -DCMAKE_INSTALL_INCLUDEDIR="$scratch/moved/include"
quietly cc "$source/tests/c_user.c" $(pkg-config --cflags --libs configured/kesaudio.pc) -o c_user
quietly env LD_LIBRARY_PATH="$libraries" ./c_user

quietly cmake -G Ninja -S "$source/tests/consumer" -B inside -DKESAUDIO_SOURCE="$source" -DCMAKE_BUILD_TYPE=Debug \
  -DKESAUDIO_LEVELS=
quietly cmake --build inside
quietly inside/c_user

quietly cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages"
for package in libkesaudio0 libkesaudio-dev kesaudio-tools; do
  quietly dpkg-deb -x packages/${package}_"$version"_*.deb root
  depends=$(dpkg-deb -f packages/${package}_"$version"_*.deb Depends)
  case $package in
    libkesaudio0) echo "$depends" | grep -q libstdc++ && die "$package needs $depends" ;;
    *) echo "$depends" | grep -q "libkesaudio0 (= $version" || die "$package needs no library but $depends" ;;
  esac
done
mv root/usr packed
use packed
man -l --warnings packed/share/man/man1/kesconvert.1* 2>&1 >man.txt | grep . && die 'the manual page has errors'
for option in $(packed/bin/kesconvert --help | grep -oE '^ +(-h,)?--[a-z]+' | sed 's/.*--/--/'); do
  grep -q -- "$option" man.txt || die "the manual page lacks $option"
done
