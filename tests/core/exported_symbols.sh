#!/usr/bin/env bash
# The library exports exactly the names its public header declares.
set -euo pipefail
lib=$1 header=$2
exported=$(nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRV]$/ {print $3}' | sort -u)
declared=$(grep -oE '\b(vrix_[a-z0-9_]+|db_[a-z0-9_]+|g_[A-Za-z0-9_]+|sec_to_tm)[[:space:]]*[\[(;]' "$header" |
  sed -E 's/[[:space:]]*[\[(;]$//' | grep -v '^vrix_hdd_\|^vrix_thread_' | sort -u)
if [ "$exported" != "$declared" ]; then
  echo "exported and declared names differ:"
  diff <(echo "$declared") <(echo "$exported") || true
  exit 1
fi
if nm -D --defined-only "$lib" | grep -q '_Z'; then
  echo "internal C++ symbols are exported:"
  nm -D --defined-only "$lib" | grep '_Z' | head
  exit 1
fi
echo "$(echo "$exported" | wc -l) names exported, all declared"
