#!/bin/sh
# Installs the packages on a fresh Debian in a temporary folder, uses and removes them; nothing may be left.
# Usage: clean_debian_test.sh FOLDER, with the .deb files
set -eu
packages=$(cd "$1" && pwd)
tests=$(cd "$(dirname "$0")" && pwd)
. /etc/os-release
cat >"$packages/try.sh" <<'END'
set -eu
list() { find / -xdev \( -path /var -o -path /etc/ld.so.cache -o -path /try -o -path /proc -o -path /sys \) -prune -o -print | sort; }
export DEBIAN_FRONTEND=noninteractive DEBCONF_NOWARNINGS=yes
apt-get install -qq --no-install-recommends gcc libc6-dev pkg-config >/dev/null
list >/try/before
apt-get install -qq --no-install-recommends /try/kesaudio-tools_*.deb >/dev/null
kesconvert --version
apt-get install -qq --no-install-recommends /try/*.deb >/dev/null
cc /try/c_user.c $(pkg-config --cflags --libs kesaudio) -o /try/c_user
/try/c_user && echo 'a program in C, built by pkg-config, runs'
ldconfig -p | grep -E 'lib(log|palix32_vendor|keslimiter_vendor|kesshifter_vendor)\.so' && exit 1
dpkg --audit
apt-get purge -qq libkesaudio0 libkesaudio-dev kesaudio-tools >/dev/null
apt-get autoremove -qq --purge >/dev/null
list >/try/after
diff /try/before /try/after && echo 'removed, and nothing is left'
END
trap 'rm -f "$packages/try.sh"' EXIT
mmdebstrap --quiet --variant=apt --customize-hook='mkdir "$1/try"' \
  --customize-hook="cp '$packages'/*.deb '$packages/try.sh' '$tests/c_user.c' \"\$1/try\"" \
  --customize-hook='chroot "$1" sh /try/try.sh >&2' "$VERSION_CODENAME" /dev/null
