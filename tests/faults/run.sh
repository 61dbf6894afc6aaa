#!/usr/bin/env bash
# Applies each deliberate fault in tests/faults/*.patch, rebuilds, runs the suite and reverts.
# usage: tests/faults/run.sh [--only REGEX] [--record FILE] [--compare FILE] [--build-dir DIR] [--first]
# --first stops the suite at the first failing test (the count is then a lower bound).
set -u
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/../.." && pwd)
only=. record= compare= build="$root/build-faults" stop=
while [ $# -gt 0 ]; do
  case $1 in
    --only) only=$2; shift 2 ;;
    --record) record=$(realpath -m "$2"); shift 2 ;;
    --compare) compare=$(realpath -m "$2"); shift 2 ;;
    --build-dir) build=$(realpath -m "$2"); shift 2 ;;
    --first) stop=--stop-on-failure; shift ;;
    *) echo "usage: $0 [--only REGEX] [--record FILE] [--compare FILE] [--build-dir DIR] [--first]" >&2; exit 2 ;;
  esac
done
cd "$root"
if [ -n "$(git status --porcelain -- src include python/src)" ]; then
  echo "library sources have local changes; commit or stash them first" >&2; exit 2
fi
applied=
revert() { [ -n "$applied" ] && git apply -R "$applied" && applied=; }
trap revert EXIT
trap 'exit 130' INT TERM
CMAKE_CXX_COMPILER_LAUNCHER=ccache CMAKE_C_COMPILER_LAUNCHER=ccache \
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DQUARRYGEOM_BUILD_PYTHON=ON >/dev/null || exit 2
declare -A before
if [ -n "$compare" ]; then
  while IFS=$'\t' read -r f n _; do before[$f]=$n; done <"$compare"
fi
[ -n "$record" ] && : >"$record"
rows=()
for p in "$here"/*.patch; do
  f=$(basename "$p" .patch)
  [[ $f =~ $only ]] || continue
  names=
  if ! git apply "$p"; then
    n=not-applied
  else
    applied=$p
    if ! cmake --build "$build" -j2 >"$build/fault-build.log" 2>&1; then
      n=not-compiled
    else
      rm -f "$build/Testing/Temporary/LastTestsFailed.log"
      (cd "$build" && ctest -j2 --timeout 120 $stop >"$build/fault-ctest.log" 2>&1)
      failed="$build/Testing/Temporary/LastTestsFailed.log"
      names=$(cut -d: -f2- "$failed" 2>/dev/null | cut -d' ' -f1 | sort | paste -sd' ')
      n=$(cat "$failed" 2>/dev/null | grep -c .)
    fi
    revert
  fi
  echo "$f: $n $names" >&2
  [ -n "$record" ] && printf '%s\t%s\t%s\n' "$f" "$n" "$names" >>"$record"
  rows+=("$f|${before[$f]:--}|$n")
done
caught() { awk -F'|' -v c="$1" '$c ~ /^[0-9]+$/ && $c > 0 { k++ } END { print k + 0 }'; }
printf '%-40s | %-14s | %s\n' fault "caught before" "caught after"
for r in "${rows[@]}"; do IFS='|' read -r f b a <<<"$r"; printf '%-40s | %-14s | %s\n' "$f" "$b" "$a"; done
printf 'total %d faults: caught before %d, caught after %d\n' "${#rows[@]}" \
  "$(printf '%s\n' "${rows[@]}" | caught 2)" "$(printf '%s\n' "${rows[@]}" | caught 3)"
