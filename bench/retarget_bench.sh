#!/usr/bin/env bash
# Whole-process timing of `kelvara retarget`: the bundled CMU clips onto the built-in demo target.
#
# Usage: bench/retarget_bench.sh [BUILD_DIR]        (default: build, relative to the source tree)
#   KELVARA_CLIPS=DIR   folder holding the clips (default /usr/share/assimp/models/BVH)
#   RUNS=N              runs per clip, the best one counts (default 5)
#
# For each clip it prints the input size, the best wall-clock time of the whole process (with
# hyperfine when installed, else bash's `time`), and the best reading, solving and writing times
# that `--timings` reports from inside, with the reading and whole-run rates in MB/s.
#
# Meant to be run by hand: anything missing (binary, clip, option) is reported and skipped, and
# the script always exits 0 so that it can never break a build.
set -u

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build = /* ]] || build=$root/$build
kelvara=$build/bin/kelvara
clips=${KELVARA_CLIPS:-/usr/share/assimp/models/BVH}
runs=${RUNS:-5}

if [[ ! -x $kelvara ]]; then
  echo "retarget_bench: no $kelvara; build it first (scripts/build)"
  exit 0
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/retarget_bench.XXXXXX") || exit 0
trap 'rm -rf "$tmp"' EXIT

target=$tmp/demo_target.bvh
if ! "$kelvara" demo --write-target "$target" >/dev/null 2>"$tmp/err" || [[ ! -s $target ]]; then
  echo "retarget_bench: \`kelvara demo --write-target FILE\` failed or is not available:"
  sed 's/^/  /' "$tmp/err" | head -5
  exit 0
fi

have_hyperfine=0
command -v hyperfine >/dev/null 2>&1 && have_hyperfine=1

# Smallest of the numbers on stdin, or "-" when there are none.
min() { sort -g | head -1 | grep . || echo -; }

# MB per second for BYTES in MS milliseconds, or "-".
rate() { awk -v b="$1" -v ms="$2" 'BEGIN { if (ms + 0 > 0) printf "%.0f", b / 1e6 / (ms / 1e3); else print "-" }'; }

# Best of the runs for one figure of the --timings lines:
# "timings: reading R ms (...), solving S ms (...), writing W ms (...), total T ms"
field() { sed -n "s/.*$1 \([0-9.]*\) ms.*/\1/p" "$tmp/timings" | min; }

echo "kelvara:  $kelvara"
echo "target:   demo target ($(grep -c -E '^[[:space:]]*(ROOT|JOINT)' "$target") joints)"
echo "runs:     best of $runs; wall clock by $([[ $have_hyperfine = 1 ]] && echo hyperfine || echo 'bash time')"
echo
printf '%-10s %9s %10s %10s %10s %10s %10s %10s\n' clip "size MB" "wall ms" "read ms" "solve ms" "write ms" \
  "read MB/s" "wall MB/s"

for name in 01_01 01_03; do
  clip=$clips/$name.bvh
  if [[ ! -r $clip ]]; then
    printf '%-10s skipped: %s is not readable\n' "$name" "$clip"
    continue
  fi
  bytes=$(stat -c %s "$clip")
  out=$tmp/$name.out.bvh
  command=("$kelvara" retarget "$clip" --target "$target" -o "$out" -q --timings)

  # The figures --timings prints from inside the process, one line per run.
  : >"$tmp/timings"
  : >"$tmp/wall"
  failed=0
  for ((i = 0; i < runs; i++)); do
    TIMEFORMAT=%3R
    if ! { time "${command[@]}" >/dev/null 2>"$tmp/run_err"; } 2>>"$tmp/wall"; then
      failed=1
      break
    fi
    grep '^timings:' "$tmp/run_err" >>"$tmp/timings"
  done
  if [[ $failed = 1 ]]; then
    printf '%-10s skipped: retarget failed: %s\n' "$name" "$(grep -v '^timings:' "$tmp/run_err" | head -1)"
    continue
  fi

  read_ms=$(field reading)
  solve_ms=$(field solving)
  write_ms=$(field writing)

  if [[ $have_hyperfine = 1 ]]; then
    hyperfine --style none --warmup 1 --runs "$runs" --export-json "$tmp/hf.json" \
      "$(printf '%q ' "${command[@]}")" >/dev/null 2>&1
    wall_s=$(grep -o '"min": *[0-9.eE+-]*' "$tmp/hf.json" 2>/dev/null | head -1 | sed 's/.*: *//')
    wall_ms=$(awk -v s="${wall_s:-0}" 'BEGIN { if (s + 0 > 0) printf "%.2f", s * 1e3; else print "-" }')
  else
    wall_ms=$(awk '{ printf "%.0f\n", $1 * 1e3 }' "$tmp/wall" | min)
  fi

  printf '%-10s %9.2f %10s %10s %10s %10s %10s %10s\n' "$name" "$(awk -v b="$bytes" 'BEGIN { print b / 1e6 }')" \
    "$wall_ms" "$read_ms" "$solve_ms" "$write_ms" "$(rate "$bytes" "$read_ms")" "$(rate "$bytes" "$wall_ms")"
done
exit 0
