#!/usr/bin/env bash
# run_fuzz.sh FUZZER CORPUS
# A few seconds (VRIX_FUZZ_SECONDS, default 5), or with VRIX_LONG=1 a million
# executions (VRIX_FUZZ_RUNS).  New inputs go to a scratch copy of the corpus;
# an input that crashes is kept in the working directory as crash-<hash>.
set -uo pipefail
fuzzer=$1
corpus=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$corpus"/* "$work"/
if [ "${VRIX_LONG:-0}" != 0 ]; then
  limit="-runs=${VRIX_FUZZ_RUNS:-1000000}"
else
  limit="-max_total_time=${VRIX_FUZZ_SECONDS:-5}"
fi
# The library's own lines and libFuzzer's progress would flood the log.
"$fuzzer" "$limit" -timeout=30 -rss_limit_mb=2048 -print_final_stats=1 -close_fd_mask=1 \
  -artifact_prefix=./ "$work" 2>&1 | grep -v -E '^#[0-9]+	(NEW|REDUCE|pulse)'
