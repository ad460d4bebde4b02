#!/bin/sh
# Builds and runs projects outside the tree, by CMake and by pkg-config: against an installation that was moved,
# against one with an absolute folder of libraries, against the sources, and against the unpacked Debian packages.
# Usage: install_test.sh BUILD_DIR SOURCE_DIR VERSION platform|bundled|static
set -eu
build=$1 source=$2 version=$3 kind=$4
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
  flags="$(PKG_CONFIG_PATH=$pc pkg-config --cflags --libs --static kesaudio) -Wl,-rpath,$(
    PKG_CONFIG_PATH=$pc pkg-config --variable=libdir kesaudio)"
  quietly cc -std=c99 "$source/tests/c_user.c" $flags -o c_user
  quietly ./c_user
  quietly c++ -x c++ "$source/tests/c_user.c" $flags -o cxx_user
  quietly ./cxx_user
  needed=$(readelf -dW c_user | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p' | xargs)
  case $kind in
    static) [ "$needed" = libc.so.6 ] || die "$1: the program needs $needed" ;;
    *) [ "$needed" = 'libkesaudio.so.0 libc.so.6' ] || die "$1: the program needs $needed" ;;
  esac
  loaded() { readlink -f "$(ldd ./c_user | sed -n "s/.*$1 => \(.*\) (.*/\1/p")"; }
  [ $kind != platform ] || [ "$(loaded liblog.so)" = "$libraries/kesaudio/liblog.so" ] ||
    die "$1: the host's log is not in a folder of ours"
  for library in $(ldd ./c_user | grep -oE 'lib(kesaudio|palix32_vendor|kesshifter_vendor)\.so[.0]*' | sort -u); do
    case $(grep -c ' avx2 ' /proc/cpuinfo):$(loaded $library) in
      0:* | *glibc-hwcaps*) ;;
      *) [ ! -e "$libraries/glibc-hwcaps" ] || die "$1: $library is not the one for this processor" ;;
    esac
  done
  quietly cmake -G Ninja -S "$source/tests/consumer" -B "$1-user" -DCMAKE_PREFIX_PATH="$PWD/$1"
  quietly cmake --build "$1-user"
  quietly "$1-user/c_user"
  quietly "$1-user/static_user"
  readelf -dW "$1-user/static_user" | grep NEEDED | grep -v 'libc\.so\.6' && die "$1: the static library needs more than C"
  [ $kind != platform ] || quietly "$1-user/host_user"
  [ ! -e "$1/bin/kesconvert" ] || [ "$("$1/bin/kesconvert" --version)" = "kesconvert $version" ] ||
    die "$1: kesconvert does not run"
}

quietly cmake --install "$build" --prefix "$scratch/installed"
mv installed moved
use moved
find moved -name '*.so*' | grep -vE '/(kesaudio|glibc-hwcaps|libkesaudio\.so)' && die 'a library lies where others look'
if [ $kind = bundled ]; then # the file alone
  mkdir alone && cp "$libraries/libkesaudio.so.0" alone/
  quietly python3 -c "import ctypes; ctypes.CDLL('alone/libkesaudio.so.0').InitKesAudioSrcInC"
fi

# The README's commands, for a prefix of one's own; packages come later.
ln -s "$build" build && cp "$source/tests/c_user.c" yours.c
commands=$(sed -n '/^cmake --install build/,/^```/p' "$source/README.md" | sed "/^apt install/d; /^\`/d; s# * \# .*##
  s#/opt/kesaudio#$scratch/own#g; s#/lib/pkgconfig#${pc#"$PWD/moved"}#; s#^cc .*#&; ./a.out#")
[ "$(echo "$commands" | grep -c '^cc ')" = 2 ] || die 'the README does not link both libraries'
[ $kind != static ] || commands=$(echo "$commands" | grep -v rpath)
quietly sh -ec "$commands"
{
  printf 'cmake_minimum_required(VERSION 3.21)\nproject(yours LANGUAGES C)\nadd_executable(yours yours.c)\n'
  sed -n '/^find_package(kesaudio/,/^`/{/^`/!p}' "$source/README.md"
} >CMakeLists.txt
quietly cmake -G Ninja -S . -B yours -DCMAKE_PREFIX_PATH="$scratch/own"
quietly cmake --build yours
quietly yours/yours

# As a part of another project: in its program, or beside it. Installed, the program is all that is needed.
case $kind in platform) shared= ;; bundled) shared=-DBUILD_SHARED_LIBS=ON ;; static) exit 0 ;; esac
quietly cmake -G Ninja -S "$source/tests/consumer" -B inside -DKESAUDIO_SOURCE="$source" -DCMAKE_BUILD_TYPE=Debug $shared
quietly cmake --build inside
quietly cmake --install inside --prefix theirs
rm -r inside
quietly theirs/bin/c_user
[ $kind = platform ] || exit 0

# An absolute folder of libraries is kept as given. It is that of the other installation.
plain=$(sed -n 's/^cmake -B build \(-DKESAUDIO_BUILD_TESTS=OFF\)/\1/p' "$source/README.md")
quietly cmake -G Ninja -S "$source" -B configured $plain -DCMAKE_INSTALL_PREFIX=/opt/kesaudio \
  -DCMAKE_INSTALL_LIBDIR="$libraries" -DCMAKE_INSTALL_INCLUDEDIR="$scratch/moved/include"
quietly cc "$source/tests/c_user.c" $(pkg-config --cflags --libs configured/kesaudio.pc) -o c_user
quietly env LD_LIBRARY_PATH="$libraries" ./c_user

quietly cpack --config "$build/CPackConfig.cmake" -B "$scratch/packages"
for package in libkesaudio0 libkesaudio-dev kesaudio-tools; do
  quietly dpkg-deb -x packages/${package}_"$version"_*.deb root
  depends=$(dpkg-deb -f packages/${package}_"$version"_*.deb Depends)
  case $package in
    libkesaudio0) echo "$depends" | grep -q libstdc++ && die "$package needs $depends" ;;
    kesaudio-tools) echo "$depends" | grep libkesaudio && die "$package is not one program" ;;
    *) echo "$depends" | grep -q "libkesaudio0 (= $version" || die "$package needs no library but $depends" ;;
  esac
done
mv root/usr packed
use packed
man -l --warnings packed/share/man/man1/kesconvert.1* 2>&1 >man.txt | grep . && die 'the manual page has errors'
for option in $(packed/bin/kesconvert --help | grep -oE '^ +(-h,)?--[a-z]+' | sed 's/.*--/--/'); do
  grep -q -- "$option" man.txt || die "the manual page lacks $option"
done
