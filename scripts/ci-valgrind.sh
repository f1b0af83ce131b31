#!/usr/bin/env bash
# Valgrind stage: the integration tests of the poll cycle, the write path, the identity probe and discovery under
# memcheck. Fails on any memory error, any definitely lost block and any descriptor the tests leave open.
# Usage: scripts/ci-valgrind.sh [BUILD_DIR]   (a normal, non-sanitizer build; built here when missing)
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build}
logs="$build_dir/valgrind"

# Suite binary and gtest filter per run.
runs=(
    "plugin_tests PollCycleTest.*:IdentitySyncTest.*:ConnectionCacheTest.*"
    "codec_tests WritePathTest.*"
    "identity_tests *"
    "connection_tests *"
    "discovery_tests DiscoveryRunTest.*:TransportTest.*"
)

missing=0
for run in "${runs[@]}"; do
    [[ -x "$build_dir/tests/${run%% *}" ]] || missing=1
done
if ((missing)); then
    scripts/build.sh "$build_dir"
fi

# PCRE2's JIT code is opaque to memcheck and reads whole words past a string on purpose; Qt runs its regular
# expressions interpreted instead, with the same results.
export QT_ENABLE_REGEXP_JIT=0
kErrorExit=97

mkdir -p "$logs"
failed=0
started=$SECONDS
for run in "${runs[@]}"; do
    binary=${run%% *}
    filter=${run#* }
    log="$logs/$binary.log"
    echo "== valgrind $binary --gtest_filter=$filter"
    status=0
    valgrind --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
        --track-fds=yes --error-exitcode=$kErrorExit --log-file="$log" --suppressions=scripts/valgrind.supp \
        "$build_dir/tests/$binary" --gtest_filter="$filter" --gtest_brief=1 || status=$?
    if ((status != 0)); then
        echo "FAILED: $binary exited with $status (memcheck errors or leaks when $kErrorExit); see $log"
        failed=1
    fi
    # Every descriptor still open at exit must be one the process was started with.
    leaked=$(awk '/Open (file descriptor|AF_INET socket|AF_UNIX socket|socket)/ { pending = $0; next }
                  pending != "" { if ($0 !~ /inherited from parent/) print pending; pending = "" }' "$log")
    if [[ -n "$leaked" ]]; then
        echo "FAILED: $binary left descriptors open:"
        echo "$leaked"
        failed=1
    fi
done
echo "valgrind stage took $((SECONDS - started)) s"
if ((failed)); then
    exit 1
fi
echo "valgrind stage passed"
