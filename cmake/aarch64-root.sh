#!/bin/sh
# Fills a folder with Debian's arm64 packages of the C library and of what tools and tests link, unpacked, for programs
# to be linked against and run under emulation. Nothing is installed, and apt's own lists stay as they are.
# Usage: cmake/aarch64-root.sh FOLDER
set -eu
mkdir -p "$1"
root=$(cd "$1" && pwd)
[ "$root/complete" -nt "$0" ] && exit 0
rm -rf "${root:?}"/*
mkdir -p "$root/apt/lists/partial" "$root/apt/archives/partial"
: >"$root/apt/status"
arm64_apt() {
  apt-get -q -y --no-install-recommends -o APT::Architecture=arm64 -o APT::Architectures::=arm64 \
    -o Dir::State::Lists="$root/apt/lists" -o Dir::State::status="$root/apt/status" -o Dir::Cache="$root/apt" \
    -o Debug::NoLocking=1 -o APT::Sandbox::User= "$@"
}
arm64_apt update
arm64_apt install --download-only libc6-dev libstdc++6 libsndfile1-dev libfmt-dev zlib1g-dev libgtest-dev
for package in "$root"/apt/archives/*.deb; do dpkg-deb -x "$package" "$root"; done
rm -rf "$root/apt"
touch "$root/complete"
