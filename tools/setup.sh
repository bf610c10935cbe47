#!/bin/sh
# Installs what building and testing need on Debian or Ubuntu and is not there already.
set -eu

missing=
# need <package> <command...>: the package is missing when the command fails.
need() {
  package=$1
  shift
  "$@" > /dev/null 2>&1 || missing="$missing $package"
}

find_missing() {
  missing=
  need cmake cmake --version
  need ninja-build ninja --version
  need openssl openssl version
  need osslsigncode osslsigncode --version
  need g++-mingw-w64-i686-posix i686-w64-mingw32-g++-posix --version
  need g++-mingw-w64-x86-64-posix x86_64-w64-mingw32-g++-posix --version
  need libcli11-dev test -f /usr/include/CLI/CLI.hpp
  need googletest test -f /usr/src/googletest/CMakeLists.txt
  need wine wine --version
  need wine32:i386 test -e /usr/lib/i386-linux-gnu/wine/i386-unix/ntdll.so
  need wine64:amd64 test -e /usr/lib/x86_64-linux-gnu/wine/x86_64-unix/ntdll.so
  # Wine looks for GnuTLS by itself at run time: without it RSA fails.
  need libgnutls30:i386 test -e /usr/lib/i386-linux-gnu/libgnutls.so.30
  need libgnutls30:amd64 test -e /usr/lib/x86_64-linux-gnu/libgnutls.so.30
  need xvfb command -v Xvfb
  need imagemagick command -v import
  need fonts-dejavu-core test -d /usr/share/fonts/truetype
  # The symbols on title bar buttons; without this font the picture of the status window shows digits there.
  need fonts-wine test -e /usr/share/wine/fonts/marlett.ttf
}

as_root() {
  if [ "$(id -u)" = 0 ]; then
    "$@"
  else
    sudo "$@"
  fi
}

install_missing() {
  if ! command -v apt-get > /dev/null; then
    echo "setup: this is neither Debian nor Ubuntu. Install by other means:$missing" >&2
    exit 1
  fi
  if [ "$(id -u)" != 0 ] && ! command -v sudo > /dev/null; then
    echo "setup: run as root, or install sudo, to get:$missing" >&2
    exit 1
  fi
  echo "setup: installing$missing"
  if [ "$(dpkg --print-architecture)" != i386 ] && ! dpkg --print-foreign-architectures | grep -qx i386; then
    as_root dpkg --add-architecture i386
  fi
  # The index of an unrelated source may fail; what counts is whether the packages install.
  as_root apt-get update || echo "setup: some package lists could not be fetched; going on" >&2
  if apt-cache show libgnutls30t64 2> /dev/null | grep -q .; then
    missing=$(echo "$missing" | sed 's/libgnutls30:/libgnutls30t64:/g')  # its name on newer systems
  fi
  # Both architectures must get the same version of each shared library. If the updates of one of them are
  # behind, only the release itself has matching versions.
  # shellcheck disable=SC1091
  . /etc/os-release
  for release in '' "${VERSION_CODENAME:-}"; do
    # shellcheck disable=SC2086 # the list is meant to be split
    if as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
        ${release:+-t "$release"} $missing; then
      return
    fi
  done
  echo "setup: apt-get could not install:$missing" >&2
  exit 1
}

find_missing
if [ -n "$missing" ]; then
  install_missing
  find_missing
  if [ -n "$missing" ]; then
    echo "setup: installed, but not found where it is expected:$missing" >&2
    exit 1
  fi
fi

version=$(cmake --version | sed -n 's/^cmake version //p')
if [ "$(printf '%s\n' 3.25 "$version" | sort -V | head -n 1)" != 3.25 ]; then
  echo "setup: CMake 3.25 or newer is needed, and this is $version. Debian 12 and Ubuntu 24.04 have it." >&2
  exit 1
fi
