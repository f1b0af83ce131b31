#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks them as a gateway would get them: exactly the
# plugin package and the tools package, each with exactly its files and dependencies, no libzelt.so on the system
# library path (it would shadow the real host's), lintian finds no error and no warning, and the installed
# zelt-modbus reports its versions, has its manual pages and bash completion, and runs its demo with the installed
# plugin. For a cross build the packages are unpacked over a hard-linked copy of the target's sysroot and the
# programs run under the emulator.
#
# Usage: packages_test.sh BUILD_DIR DEBIAN_ARCH VERSION [SYSROOT EMULATOR]
set -euo pipefail

build_dir=$1
arch=$2
version=$3
sysroot=${4:-}
emulator=${5:-}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
expect_eq() {  # what actual expected
  if [ "$2" != "$3" ]; then
    fail "$1"
    echo "  expected: $3" >&2
    echo "  actual:   $2" >&2
  fi
}

cpack --config "$build_dir/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 || {
  cat "$work/cpack.log" >&2
  exit 1
}

plugin_deb=$work/out/zelt-modbus-tcp_${version}_$arch.deb
tools_deb=$work/out/zelt-modbus-tools_${version}_$arch.deb
expect_eq "packages built" "$(cd "$work/out" && ls -- *.deb | tr '\n' ' ')" \
  "zelt-modbus-tcp_${version}_$arch.deb zelt-modbus-tools_${version}_$arch.deb "
[ "$failures" -eq 0 ] || exit 1

# Regular files and symbolic links of a package, without the leading "."
contents() { dpkg-deb -c "$1" | awk '$1 !~ /^d/ { print $6 }' | sed 's/^\.//' | sort | tr '\n' ' '; }

expect_eq "plugin package files" "$(contents "$plugin_deb")" \
  "/usr/lib/zelt/plugins/libmodbus_tcp.so /usr/share/doc/zelt-modbus-tcp/changelog.gz /usr/share/doc/zelt-modbus-tcp/copyright "
expect_eq "tools package files" "$(contents "$tools_deb")" \
  "/usr/bin/modbus-harness /usr/bin/modbus-sim /usr/bin/zelt-modbus /usr/lib/zelt-modbus/libzelt.so /usr/share/bash-completion/completions/zelt-modbus /usr/share/doc/zelt-modbus-tools/changelog.gz /usr/share/doc/zelt-modbus-tools/copyright /usr/share/man/man1/modbus-harness.1.gz /usr/share/man/man1/modbus-sim.1.gz /usr/share/man/man1/zelt-modbus.1.gz "

# Debian's own checks of a package: nothing at error or warning level (lintian reads foreign-architecture
# packages as well). Root is fine here: lintian only reads the packages.
if ! command -v lintian >/dev/null; then
  fail "lintian is not installed (scripts/setup.sh installs it)"
elif ! lintian --allow-root --fail-on error,warning "$plugin_deb" "$tools_deb" >"$work/lintian.out" 2>&1; then
  fail "lintian reports errors or warnings"
  cat "$work/lintian.out" >&2
fi

for deb in "$work"/out/*.deb; do
  # The dynamic linker's own directories: /lib, /usr/lib, /usr/local/lib and their multiarch subdirectories.
  shadowing=$(dpkg-deb -c "$deb" | awk '{ print $6 }' | sed 's/^\.//' |
    grep -E '^/(usr/(local/)?)?lib(/[a-z0-9_]+-linux-gnu[a-z]*)?/libzelt\.so' || true)
  expect_eq "$(basename "$deb") puts no libzelt.so on the system library path" "$shadowing" ""
  expect_eq "$(basename "$deb") architecture" "$(dpkg-deb -f "$deb" Architecture)" "$arch"
done

runtime="libc6 (>= 2.34), libgcc-s1 (>= 3.5), libstdc++6 (>= 11), libqt5core5a (>= 5.15.1), libqt5network5 (>= 5.15.1), libmodbus5 (>= 3.1.6), libssl3 (>= 3.0.0)"
expect_eq "plugin package dependencies" "$(dpkg-deb -f "$plugin_deb" Depends)" "$runtime"
expect_eq "tools package dependencies" "$(dpkg-deb -f "$tools_deb" Depends)" \
  "zelt-modbus-tcp (= $version), $runtime"

root=$work/root
if [ -n "$sysroot" ]; then
  cp -al "$sysroot" "$root"
else
  mkdir -p "$root"
fi
dpkg-deb -x "$plugin_deb" "$root"
dpkg-deb -x "$tools_deb" "$root"

for binary in usr/lib/zelt/plugins/libmodbus_tcp.so usr/bin/zelt-modbus usr/lib/zelt-modbus/libzelt.so; do
  expect_eq "$binary is stripped" "$(file -b "$root/$binary" | grep -o ', stripped$')" ", stripped"
done
# Every installed program finds every library it needs (the dynamic linker lists them and stops), the stand-in
# host library in the tools' own directory.
for program in zelt-modbus modbus-sim modbus-harness; do
  if [ -n "$emulator" ]; then
    libraries=$("$emulator" -E LD_TRACE_LOADED_OBJECTS=1 -L "$root" "$root/usr/bin/$program" 2>&1 || true)
  else
    libraries=$(LD_TRACE_LOADED_OBJECTS=1 "$root/usr/bin/$program" 2>&1 || true)
  fi
  expect_eq "$program finds its libraries" "$(grep 'not found' <<<"$libraries" || true)" ""
  if [ "$program" != modbus-sim ]; then
    expect_eq "$program loads the stand-in host library" \
      "$(grep -o 'libzelt\.so => [^ ]*' <<<"$libraries" || true)" \
      "libzelt.so => $root/usr/bin/../lib/zelt-modbus/libzelt.so"
  fi
done
if [ "$arch" = armhf ]; then
  expect_eq "the plugin is a 32-bit Arm shared object" \
    "$(file -b "$root/usr/lib/zelt/plugins/libmodbus_tcp.so" | grep -o 'ELF 32-bit LSB shared object, ARM, EABI5')" \
    "ELF 32-bit LSB shared object, ARM, EABI5"
fi

# The installed tool names its own version, the plugin's, the host contract's and that of the libmodbus it runs
# with: the target's (the sysroot's for a cross build), whose development files carry the same version.
if [ -n "$sysroot" ]; then
  libmodbus_version=$(sed -n 's/^Version: //p' "$sysroot"/usr/lib/*/pkgconfig/libmodbus.pc)
else
  libmodbus_version=$(pkg-config --modversion libmodbus)
fi
for arguments in "--version" "poll --version"; do
  command=("$root/usr/bin/zelt-modbus")
  [ -z "$emulator" ] || command=("$emulator" -L "$root" "${command[@]}")
  status=0
  # shellcheck disable=SC2086  # the arguments are words
  output=$("${command[@]}" $arguments 2>&1) || status=$?
  expect_eq "installed zelt-modbus $arguments exit code" "$status" 0
  expect_eq "installed zelt-modbus $arguments" "$output" "zelt-modbus $version
plugin modbus_tcp $version
host contract 1.0.7
libmodbus $libmodbus_version"
done

# man finds the installed pages where Debian puts them, and they render without a warning.
for page in zelt-modbus modbus-sim modbus-harness; do
  expect_eq "man -w $page" "$(MANPATH=$root/usr/share/man man -w "$page" 2>&1)" \
    "$root/usr/share/man/man1/$page.1.gz"
  expect_eq "man $page renders without warnings" \
    "$(MANPATH=$root/usr/share/man MANWIDTH=80 man --warnings "$page" 2>&1 >/dev/null)" ""
done
# zelt-modbus(1) describes every command with its options.
rendered=$(MANPATH=$root/usr/share/man MANWIDTH=80 man zelt-modbus 2>/dev/null)
for heading in COMMANDS "EXIT STATUS" FILES EXAMPLES "SEE ALSO" "   poll" "   columns"; do
  grep -qxF -- "$heading" <<<"$rendered" || fail "zelt-modbus(1) has the heading \"$heading\""
done
grep -qxF -- "       --transport NAME" <<<"$rendered" || fail "zelt-modbus(1) lists --transport"

# The bash completion is where bash-completion loads it from, and completes with the installed tool (a
# foreign-architecture tool cannot run outside the emulator).
completion=$root/usr/share/bash-completion/completions/zelt-modbus
if [ ! -f "$completion" ]; then
  fail "the bash completion of zelt-modbus is installed"
elif [ -z "$emulator" ]; then
  completed=$(PATH=$root/usr/bin:$PATH bash --norc --noprofile -c '
    source "$1"
    COMP_WORDS=(zelt-modbus inspect --tran)
    COMP_CWORD=2
    _zelt_modbus
    printf "%s\n" "${COMPREPLY[@]}"' bash "$completion" 2>&1)
  expect_eq "installed completion of zelt-modbus inspect --tran" "$completed" "--transport"
fi

command=("$root/usr/bin/zelt-modbus" demo --count 1 --interval 10)
[ -z "$emulator" ] || command=("$emulator" -L "$root" "${command[@]}")
status=0
"${command[@]}" >"$work/demo.out" 2>"$work/demo.err" || status=$?
expect_eq "installed demo exit code" "$status" 0
for line in \
  "Write setpoint [C] = 21.5 to device 1 meter (127.0.0.1): ok" \
  "Poll 1, device 1 meter (127.0.0.1): ok" \
  "Poll 1, device 4 meter-cdab (127.0.0.1): ok" \
  "  Vendor                __identity.vendor            STRING  Zelt Demo Instruments"; do
  grep -qxF -- "$line" "$work/demo.out" || fail "installed demo prints: $line"
done
grep -qE '^  voltage L1 \[V\] +40001 +FLOAT +230\.5$' "$work/demo.out" || fail "installed demo reads the voltage"
if [ "$failures" -ne 0 ]; then
  echo "--- demo output" >&2
  cat "$work/demo.out" "$work/demo.err" >&2
  exit 1
fi
echo "packages ok: $(basename "$plugin_deb") $(basename "$tools_deb")"
