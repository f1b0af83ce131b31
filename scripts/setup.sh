#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the tests and the tools need. Installs only what is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  qtbase5-dev libmodbus-dev
  # Modbus/TCP Security: OpenSSL 3 for the plugin and the simulator, stunnel for the interoperability tests
  libssl-dev stunnel4
  googletest libgtest-dev libgmock-dev
  # pymodbus imports its serial transport even for TCP, and apt only recommends the serial packages.
  mbpoll python3 python3-pymodbus python3-serial python3-serial-asyncio
  iproute2 procps clang-format
  # the packaging test inspects the built packages: lintian checks them, man finds their pages
  file lintian man-db
  # the manual pages are made from the tools' --help
  help2man
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then sudo=sudo; else sudo=; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
