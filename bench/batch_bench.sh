#!/usr/bin/env bash
# Batch throughput of `kelvara retarget`: 8 copies of CMU 01_01 onto the built-in demo target, at
# --jobs 1 and --jobs 2, in clips and frames per second (best of RUNS runs each).
#
# Usage: bench/batch_bench.sh [BUILD_DIR]        (default: build, relative to the source tree)
#   KELVARA_CLIPS=DIR   folder holding the clip (default /usr/share/assimp/models/BVH)
#   COPIES=N            copies of the clip in the batch (default 8)
#   RUNS=N              runs per thread count, the best one counts (default 3)
#
# Meant to be run by hand: anything missing is reported and skipped, and the script always exits
# 0 so that it can never break a build.
set -u

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build = /* ]] || build=$root/$build
kelvara=$build/bin/kelvara
clip=${KELVARA_CLIPS:-/usr/share/assimp/models/BVH}/01_01.bvh
copies=${COPIES:-8}
runs=${RUNS:-3}

if [[ ! -x $kelvara ]]; then
  echo "batch_bench: no $kelvara; build it first (scripts/build)"
  exit 0
fi
if [[ ! -r $clip ]]; then
  echo "batch_bench: $clip is not readable"
  exit 0
fi

tmp=$(mktemp -d "${TMPDIR:-/tmp}/batch_bench.XXXXXX") || exit 0
trap 'rm -rf "$tmp"' EXIT

# The demo target: written directly when the demo can, else taken from a one-frame demo run, whose
# output has the target's hierarchy (a target's motion is ignored).
target=$tmp/demo_target.bvh
if "$kelvara" demo --help 2>/dev/null | grep -q -- --write-target; then
  "$kelvara" demo --write-target "$target" >/dev/null 2>&1
else
  "$kelvara" demo -o "$target" --frames 1 >/dev/null 2>&1
fi
if [[ ! -s $target ]]; then
  echo "batch_bench: cannot write the demo target"
  exit 0
fi

sources=()
for ((i = 1; i <= copies; i++)); do
  cp "$clip" "$tmp/clip_$i.bvh"
  sources+=("$tmp/clip_$i.bvh")
done
frames=$(sed -n 's/^Frames:[[:space:]]*//p' "$clip" | head -1)

echo "kelvara:  $kelvara"
echo "batch:    $copies copies of $(basename "$clip") ($frames frames each) onto the demo target"
echo "runs:     best of $runs; cores: $(nproc)"
echo
printf '%-8s %10s %10s %12s\n' jobs "wall s" "clips/s" "frames/s"
for jobs in 1 2; do
  best=
  for ((r = 0; r < runs; r++)); do
    rm -rf "$tmp/out"
    start=$(date +%s.%N)
    if ! "$kelvara" retarget "${sources[@]}" --target "$target" -o "$tmp/out" --jobs "$jobs" -q \
      >"$tmp/stdout" 2>"$tmp/stderr"; then
      echo "batch_bench: the batch failed at --jobs $jobs: $(head -1 "$tmp/stderr")"
      exit 0
    fi
    end=$(date +%s.%N)
    wall=$(awk -v a="$start" -v b="$end" 'BEGIN { printf "%.3f", b - a }')
    if [[ -z $best ]] || awk -v w="$wall" -v b="$best" 'BEGIN { exit !(w < b) }'; then
      best=$wall
    fi
  done
  awk -v j="$jobs" -v w="$best" -v c="$copies" -v f="$frames" \
    'BEGIN { printf "%-8s %10.3f %10.2f %12.0f\n", j, w, c / w, c * f / w }'
done
exit 0
