#!/usr/bin/env bash
# Fresh machine to a running demo: installs what is missing, builds, runs the plugin against a simulated meter.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build
exec build/tools/zelt-modbus demo
