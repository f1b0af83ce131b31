#!/usr/bin/env bash
# Fuzz stage: builds the libFuzzer targets with clang + ASan/UBSan and runs each for FUZZ_SECONDS (default 60),
# two at a time, starting from the checked-in seeds under fuzz/corpus. Then replays every corpus (seeds plus what
# the run found) through the plain ASan build of each target with leak detection on. Fails on any crash,
# sanitizer report, timeout, invariant failure or leak.
# Usage: scripts/ci-fuzz.sh [TARGET...]   env: FUZZ_SECONDS, FUZZ_BUILD_DIR (default build-fuzz), FUZZ_JOBS (2)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
started=$(date +%s)

seconds=${FUZZ_SECONDS:-60}
build_dir=${FUZZ_BUILD_DIR:-build-fuzz}
jobs=${FUZZ_JOBS:-2}
all_targets=(fuzz_frames fuzz_identification fuzz_options fuzz_addressing fuzz_decoding fuzz_exchange fuzz_rtu_answer)
if [ $# -gt 0 ]; then targets=("$@"); else targets=("${all_targets[@]}"); fi

# clang with its sanitizer and libFuzzer runtimes; a fresh machine has neither.
fuzz_packages=(clang libclang-rt-14-dev)
missing=()
for package in "${fuzz_packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then sudo=sudo; else sudo=; fi
    $sudo apt-get update -qq || true
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
    -DZELT_FUZZ=ON -DZELT_SANITIZE=address,undefined -DZELT_BUILD_TESTS=OFF "${launcher[@]}" >/dev/null
build_targets=()
for t in "${targets[@]}"; do build_targets+=(--target "$t" --target "${t}_replay"); done
nice cmake --build "$build_dir" -j2 "${build_targets[@]}"
built=$(date +%s)

out="$root/$build_dir/fuzz-run"
rm -rf "$out"
mkdir -p "$out"

# Leaks are checked by the replay below: under libFuzzer, Qt's JSON and string internals leave allocations that
# LeakSanitizer reports without any frame of this project, while a plain ASan program reports none. Both
# libFuzzer's check after each input and LSan's check at exit are off while fuzzing. ASan's quarantine of freed
# memory is kept smaller than its default: with Qt's many small allocations it alone grows the process by several
# hundred megabytes within minutes, which two targets side by side on a small runner cannot afford.
run_target() {
    local t=$1
    mkdir -p "$out/$t/corpus" "$out/$t/artifacts"
    if ASAN_OPTIONS=detect_leaks=0:quarantine_size_mb=64 "$root/$build_dir/fuzz/$t" \
        -max_total_time="$seconds" -detect_leaks=0 -timeout=10 -rss_limit_mb=2048 -max_len=1024 \
        -print_final_stats=1 -artifact_prefix="$out/$t/artifacts/" \
        "$out/$t/corpus" "$root/fuzz/corpus/$t" >"$out/$t/fuzz.log" 2>&1; then
        echo "$t: fuzzing passed ($(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$out/$t/fuzz.log" |
            grep -o '[0-9]*$') runs)"
    else
        echo "$t: FINDING, see $out/$t/fuzz.log and $out/$t/artifacts/"
        tail -n 40 "$out/$t/fuzz.log"
        return 1
    fi
    if ASAN_OPTIONS=detect_leaks=1 "$root/$build_dir/fuzz/${t}_replay" "$root/fuzz/corpus/$t" "$out/$t/corpus" \
        >"$out/$t/replay.log" 2>&1; then
        echo "$t: leak replay passed ($(tail -n 1 "$out/$t/replay.log"))"
    else
        echo "$t: LEAK or failure on replay, see $out/$t/replay.log"
        tail -n 40 "$out/$t/replay.log"
        return 1
    fi
}

failed=0
pids=()
names=()
for t in "${targets[@]}"; do
    run_target "$t" &
    pids+=($!)
    names+=("$t")
    if [ ${#pids[@]} -ge "$jobs" ]; then
        wait "${pids[0]}" || failed=1
        pids=("${pids[@]:1}")
        names=("${names[@]:1}")
    fi
done
for pid in "${pids[@]}"; do wait "$pid" || failed=1; done

finished=$(date +%s)
echo "fuzz build $((built - started)) s, fuzzing and replay $((finished - built)) s, total $((finished - started)) s"
echo "reproduce: FUZZ_SECONDS=$seconds scripts/ci-fuzz.sh ${targets[*]}"
exit $failed
