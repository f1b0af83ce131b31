#!/usr/bin/env bash
# CI stage: builds the benchmarks and runs each once in a tiny configuration. It checks only that every benchmark
# runs to the end without crashing or reporting an error; the figures it prints are not judged (timing on a
# shared CI machine says nothing). Run after scripts/setup.sh, from a fresh clone.
# Usage: scripts/ci-bench-smoke.sh [BUILD_DIR]   (default build-bench)
# With ZELT_BENCH_RUNNER set (e.g. "qemu-arm -L <sysroot>" for the armhf build), the build directory is taken as
# built, every benchmark runs through that command, and the two that start native helpers are left out: cli_bench
# starts the (cross-built) zelt-modbus itself, discovery_bench builds network namespaces.
set -euo pipefail
cd "$(dirname "$0")/.."
build_dir=${1:-build-bench}
read -r -a runner <<<"${ZELT_BENCH_RUNNER:-}"

benchmarks=(overhead_bench scaling_bench memory_bench parallel_bench planning_bench tls_bench cli_bench discovery_bench soak field_bench)
if [ ${#runner[@]} -eq 0 ]; then
  launcher=()
  if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
  cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" >/dev/null
  cmake --build "$build_dir" -j"$(nproc)" --target "${benchmarks[@]}"
fi

# Each run is bounded; BENCH_LIMIT_S (seconds, default 300) tightens it for one run.
run() {
  echo "=== $*"
  local started=$SECONDS
  if ! timeout "${BENCH_LIMIT_S:-300}" "${runner[@]}" "$@"; then
    echo "FAILED: $*" >&2
    exit 1
  fi
  echo "=== $1 took $((SECONDS - started)) s"
}

bench="$build_dir/bench"
run "$bench/overhead_bench" --polls 3 --warmup 2
run "$bench/scaling_bench" --polls 3
run "$bench/memory_bench" --devices 8 --items 20 --idle-ms 100
run "$bench/parallel_bench" --rounds 3 --devices 4
# One timed poll per case through a 4 ms wire: a few seconds, every path of the relay and of the pipelined poll.
run "$bench/planning_bench" --polls 1 --rtt-ms 4
# Five reconnects of each kind (full handshake, resumed, plain): under a second.
run "$bench/tls_bench" --connects 5
if [ ${#runner[@]} -eq 0 ]; then run "$bench/cli_bench" --count 3 --runs 1; fi
# Two devices: one polled and written, one only written, so the write path's own reconnect runs too.
run "$bench/soak" --polls 400 --devices 2
# The plant-network scenarios, shortened (about 20 s); as root in a network namespace of their own, which the
# emulated armhf build cannot re-execute itself into, so there it stays on loopback.
if [ ${#runner[@]} -gt 0 ]; then
  BENCH_LIMIT_S=90 run "$bench/field_bench" --quick --loopback
else
  BENCH_LIMIT_S=90 run "$bench/field_bench" --quick
fi
# The discovery benchmark builds network namespaces, which needs root.
if [ ${#runner[@]} -gt 0 ]; then
  echo "=== discovery_bench and cli_bench skipped under ${runner[0]}"
elif [ "$(id -u)" -eq 0 ]; then
  run "$bench/discovery_bench" 1
else
  echo "=== discovery_bench skipped: needs root for its network namespaces"
fi
echo "=== all benchmarks ran"
