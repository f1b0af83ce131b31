#!/usr/bin/env bash
# Prepares the armhf sysroot that cmake/armhf-toolchain.cmake builds against and qemu-arm runs in: Debian 12's
# armhf packages for Qt 5 Core/Network, libmodbus and GoogleTest/GoogleMock with their whole dependency closure,
# unpacked with dpkg-deb -x (armhf dev packages cannot be installed beside the native ones, and the machine's own
# apt and dpkg state stay untouched: a private apt configuration resolves and downloads).
#
# Usage: scripts/armhf-sysroot.sh [--refresh]
# The cache directory is $ZELT_ARMHF_CACHE (default ~/.cache/zelt-armhf, or $XDG_CACHE_HOME/zelt-armhf); the
# sysroot is its sysroot/ folder, whose path is the one line the script prints on standard output (progress goes
# to standard error). A second run reuses the sysroot as long as the package set asked for is the same;
# --refresh resolves again against the current archive (downloaded .debs are kept and reused).
set -euo pipefail

cache_home=${XDG_CACHE_HOME:-${HOME:+$HOME/.cache}}
cache=${ZELT_ARMHF_CACHE:-${cache_home:-/var/cache}/zelt-armhf}
sysroot=$cache/sysroot
refresh=0
[ "${1:-}" = "--refresh" ] && refresh=1

# What the build links and the tests load; apt adds every dependency.
packages=(
  libc6 libstdc++6 libgcc-s1
  libqt5core5a libqt5network5 qtbase5-dev qtbase5-dev-tools
  libmodbus5 libmodbus-dev
  libssl-dev libssl3
  libgtest-dev libgmock-dev
)
mirror=${ZELT_ARMHF_MIRROR:-http://deb.debian.org/debian}
suites=(bookworm bookworm-updates)

request="${packages[*]} | $mirror ${suites[*]}"
if [ $refresh -eq 0 ] && [ -f "$sysroot/.zelt-sysroot" ] && [ "$(head -n1 "$sysroot/.zelt-sysroot")" = "$request" ]; then
  echo "armhf sysroot up to date: $sysroot" >&2
  echo "$sysroot"
  exit 0
fi

apt_root=$cache/apt
debs=$cache/debs
mkdir -p "$apt_root/lists/partial" "$apt_root/cache" "$apt_root/sources.list.d" "$apt_root/preferences.d" \
  "$debs"
: >"$apt_root/status"
: >"$apt_root/sources.list"
for suite in "${suites[@]}"; do
  echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror $suite main" \
    >>"$apt_root/sources.list"
done

# armhf is the only architecture of this private apt, with no package installed: a simulated install of the
# package set lists the whole closure.
apt_options=(
  -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
  -o "Dir::State=$apt_root" -o "Dir::State::lists=$apt_root/lists" -o "Dir::State::status=$apt_root/status"
  -o "Dir::Cache=$apt_root/cache" -o "Dir::Cache::archives=$debs"
  -o "Dir::Cache::pkgcache=$apt_root/cache/pkgcache.bin" -o "Dir::Cache::srcpkgcache=$apt_root/cache/srcpkgcache.bin"
  -o "Dir::Etc::sourcelist=$apt_root/sources.list" -o "Dir::Etc::sourceparts=$apt_root/sources.list.d"
  -o "Dir::Etc::preferences=$apt_root/preferences" -o "Dir::Etc::preferencesparts=$apt_root/preferences.d"
  -o "APT::Sandbox::User=root" -o "Debug::NoLocking=1" -o "APT::Install-Recommends=false"
)

echo "armhf sysroot: reading the package index" >&2
# An index that fails to download (another suite, a mirror hiccup) is reported but does not stop the run: the
# resolution below fails clearly if what it needs is missing.
if ! apt-get "${apt_options[@]}" -qq update; then
  echo "armhf sysroot: apt-get update reported errors; going on with the indexes it got" >&2
fi

echo "armhf sysroot: resolving dependencies of ${packages[*]}" >&2
# "Inst NAME (VERSION SUITE [ARCH])" -> NAME VERSION ARCH
closure=$(apt-get "${apt_options[@]}" -s install "${packages[@]}" |
  awk '$1 == "Inst" && match($0, /\[[a-z0-9]+\]\)/) { print $2, substr($3, 2), substr($0, RSTART + 1, RLENGTH - 3) }')
count=$(wc -l <<<"$closure")
if [ "$count" -lt ${#packages[@]} ]; then
  echo "armhf sysroot: dependency resolution gave only $count packages" >&2
  exit 1
fi

echo "armhf sysroot: downloading what is not cached ($count packages)" >&2
missing=()
declare -A wanted_files=()
while read -r name version arch; do
  # Debian file names spell the epoch's colon as %3a.
  file="${name}_${version//:/%3a}_$arch.deb"
  wanted_files[$file]=1
  [ -f "$debs/$file" ] || missing+=("$name=$version")
done <<<"$closure"
if [ ${#missing[@]} -gt 0 ]; then
  (cd "$debs" && apt-get "${apt_options[@]}" -qq download "${missing[@]}")
fi

echo "armhf sysroot: unpacking into $sysroot" >&2
rm -rf "$sysroot.new"
mkdir -p "$sysroot.new"
for file in "${!wanted_files[@]}"; do
  if [ ! -f "$debs/$file" ]; then
    echo "armhf sysroot: $file was not downloaded" >&2
    exit 1
  fi
  dpkg-deb -x "$debs/$file" "$sysroot.new"
done

# Absolute symbolic links (libfoo.so -> /lib/...) would point into the build machine; make them relative.
find "$sysroot.new" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot.new$target")" "$link"
done

{
  echo "$request"
  echo "$closure"
} >"$sysroot.new/.zelt-sysroot"
rm -rf "$sysroot"
mv "$sysroot.new" "$sysroot"
# Downloads the current closure no longer names are dropped, so the cache does not grow with each refresh.
for deb in "$debs"/*.deb; do
  [ -n "${wanted_files[$(basename "$deb")]:-}" ] || rm -f "$deb"
done
echo "armhf sysroot ready ($count packages): $sysroot" >&2
echo "$sysroot"
