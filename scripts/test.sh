#!/usr/bin/env bash
# Fresh machine to a test report: installs what is missing, builds, runs the whole suite.
# Usage: scripts/test.sh [BUILD_DIR] [extra cmake arguments...]   (ctest arguments through CTEST_ARGS)
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
build_dir=${1:-build}
shift || true
scripts/build.sh "$build_dir" "$@"
cd "$build_dir"
# shellcheck disable=SC2086
ctest --output-on-failure --timeout 600 ${CTEST_ARGS:-}
