#!/usr/bin/env bash
# Long fuzzing by hand: the CI stage with a longer budget (FUZZ_SECONDS, default 1800 per target). The corpora it
# grows stay in $FUZZ_BUILD_DIR/fuzz-run/<target>/corpus; to keep the new coverage, merge them into the seeds:
#   build-fuzz/fuzz/<target> -merge=1 fuzz/corpus/<target> build-fuzz/fuzz-run/<target>/corpus
# Usage: scripts/fuzz-long.sh [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_SECONDS=${FUZZ_SECONDS:-1800} exec scripts/ci-fuzz.sh "$@"
