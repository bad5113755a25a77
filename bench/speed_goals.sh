#!/usr/bin/env bash
# Every speed figure of kelvara next to its goal, in one run:
#   1. whole process, CMU 01_01 and 01_03 onto the demo's 21-joint BVH target, beside three.js
#      (BVHLoader + SkeletonUtils.retargetClip under node, same files, nothing written);
#   2. per-frame solve cost against the source's and the target's joints (valgrind instruction
#      counts inside the frame loop: independent of the machine's load), and the set-up of one
#      chain of 501, 2,001 and 9,001 joints;
#   3. one clip's frames over every core against one thread (and the outputs compared);
#   4. a batch of 16 clips at --jobs 2 against --jobs 1, wall and CPU;
#   5. reading and writing rates (BVH, and glTF per keyframe), and fsync's share of writing;
#   6. allocations per frame (valgrind's heap count, 120 frames less 60);
#   7. peak memory against the input's bytes.
#
# Usage: bench/speed_goals.sh [BUILD_DIR]     (default: build)
#   RUNS=N   runs per whole-process figure, the median counts (default 7)
# Meant to be run by hand on a quiet machine (the figures are medians of whole processes, timed
# by GNU time); whatever is missing (valgrind, node, a clip) is said and skipped. Exits 0.
set -u

root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-build}
[[ $build = /* ]] || build=$root/$build
kelvara=$build/bin/kelvara
clips=${KELVARA_CLIPS:-/usr/share/assimp/models/BVH}
runs=${RUNS:-7}
[[ -x $kelvara ]] || { echo "speed_goals: no $kelvara; build it first (scripts/build)"; exit 0; }
[[ -r $clips/01_01.bvh && -r $clips/01_03.bvh ]] || { echo "speed_goals: no CMU clips in $clips"; exit 0; }
[[ -x /usr/bin/time ]] || { echo "speed_goals: GNU time (/usr/bin/time) is needed"; exit 0; }
have() { command -v "$1" >/dev/null 2>&1; }

tmp=$(mktemp -d "${TMPDIR:-/tmp}/speed_goals.XXXXXX") || exit 0
trap 'rm -rf "$tmp"' EXIT
cd "$tmp" || exit 0
"$kelvara" demo --write-target tgt.bvh >/dev/null 2>&1 || { echo "speed_goals: kelvara demo --write-target failed"; exit 0; }
cp "$clips/01_01.bvh" "$clips/01_03.bvh" .

median() { sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "-"; else print (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2) }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a + 0 > 0 && b + 0 > 0) printf "%.2f", a / b; else print "-" }'; }
# "name  measured  goal  met|gap"
row() { printf '  %-52s %14s   goal %-14s %s\n' "$1" "$2" "$3" "$4"; }
verdict() { awk -v m="$1" -v g="$2" -v dir="$3" 'BEGIN { if (m == "-") print "not measured"; else if ((dir == "<=" && m + 0 <= g + 0) || (dir == ">=" && m + 0 >= g + 0)) print "met"; else printf "gap %.2fx\n", (dir == "<=" ? m / g : g / m) }'; }

# timed NAME CMD...: runs CMD $runs times (one warm-up first); leaves NAME.wall, NAME.cpu (ms per
# run) and NAME.rss (KiB per run).
timed() {
  local name=$1
  shift
  "$@" >/dev/null 2>&1
  : >"$name.wall"
  : >"$name.cpu"
  : >"$name.rss"
  for ((i = 0; i < runs; i++)); do
    # Wall time from the clock in nanoseconds (GNU time's is in hundredths of a second); the
    # wrapper's own start, under a millisecond, is counted in.
    local t0 t1
    t0=$(date +%s%N)
    /usr/bin/time -f '%e %U %S %M' -o "$name.time" "$@" >/dev/null 2>"$name.err"
    t1=$(date +%s%N)
    read -r e u s m <"$name.time"
    awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.1f\n", (b - a) / 1e6 }' >>"$name.wall"
    awk -v u="$u" -v s="$s" 'BEGIN { print (u + s) * 1000 }' >>"$name.cpu"
    echo "$m" >>"$name.rss"
  done
}
med() { median <"$1"; }

echo "kelvara speed goals: $kelvara; $(nproc) cores; medians of $runs whole-process runs"
echo

# 1. Whole process, beside three.js.
echo "1. whole process onto the demo's 21-joint target (wall ms, median)"
"$kelvara" retarget 01_01.bvh --target tgt.bvh -o pairs.bvh -q --report pairs.json >/dev/null 2>&1
for clip in 01_01 01_03; do
  frames=$(sed -n 's/^Frames:[[:space:]]*//p' "$clip.bvh")
  goal=$(awk -v f="$frames" 'BEGIN { printf "%.0f", 25 * f / 2752 }')
  timed "k$clip" "$kelvara" retarget "$clip.bvh" --target tgt.bvh -o "$clip.out.bvh" -q
  wall=$(med "k$clip.wall")
  row "kelvara $clip ($frames frames)" "$wall ms" "<= $goal ms" "$(verdict "$wall" "$goal" "<=")"
  if have node && [[ -r $root/node_modules/three/build/three.module.js ]]; then
    : >"t$clip.ms"
    for ((i = 0; i < runs; i++)); do
      node "$root/bench/three_retarget.mjs" "$clip.bvh" tgt.bvh pairs.json | awk '{ print $2 + $4 }' >>"t$clip.ms"
    done
    three=$(med "t$clip.ms")
    row "three.js $clip parse + retargetClip" "$three ms" "" ""
    x=$(ratio "$three" "$wall")
    row "three.js / kelvara" "${x}x" ">= 20x" "$(verdict "$x" 20 ">=")"
  else
    row "three.js $clip" "-" "" "skipped: node or node_modules/three missing (npm ci)"
  fi
done
echo

# 2. Linear in joints.
echo "2. cost against joints"
have node || echo "  (node is needed to make the skeletons: skipped)"
if have node; then
  make() { node "$root/bench/make_skeletons.mjs" "$@"; }
  for n in 0 300 969; do make faces 01_01.bvh "$n" "f$((n + 31)).bvh" 60; done
  make faces 01_01.bvh 0 walk60.bvh 60
  for n in 501 2001 9001; do make chain "$n" 1 "chain$n.bvh"; done
  if have valgrind; then
    # Instructions inside the frame loop per frame: the set-up and the files are left out.
    loop_ir() {
      valgrind --tool=callgrind --callgrind-out-file=cg.out --collect-atstart=no \
        --toggle-collect='kelvara::ClipRetarget::RunFrames*' "$kelvara" retarget "$1" --target "$2" -o cg.bvh -q \
        --threads 1 >/dev/null 2>&1
      awk '/^(summary|totals):/ { print $2 / 60; exit }' cg.out
    }
    # side SIDE N: the per-frame instructions with the N-joint skeleton on that side; the other
    # side is the 31-joint walk onto the demo target.
    side() { if [[ $1 = source ]]; then loop_ir "f$2.bvh" tgt.bvh; else loop_ir walk60.bvh "f$2.bvh"; fi; }
    for which in source target; do
      base=$(side "$which" 31)
      row "$which 31 joints: instructions per frame" "$base" "" ""
      for n in 331 1000; do
        goal=$([[ $n = 331 ]] && echo 12 || echo 35)
        x=$(ratio "$(side "$which" "$n")" "$base")
        row "$which $n joints / 31 joints, per frame" "${x}x" "<= ${goal}x" "$(verdict "$x" "$goal" "<=")"
      done
    done
  else
    row "per-frame instructions" "-" "" "skipped: valgrind missing"
  fi
  for n in 501 2001 9001; do
    timed "chain$n" "$kelvara" retarget "chain$n.bvh" --target tgt.bvh -o chain.bvh -q
    wall=$(med "chain$n.wall")
    if [[ $n = 9001 ]]; then
      row "one chain of $n joints, one frame (whole process)" "$wall ms" "<= 1000 ms" "$(verdict "$wall" 1000 "<=")"
    else
      row "one chain of $n joints, one frame (whole process)" "$wall ms" "" ""
    fi
  done
fi
echo

# 3. Frames over the cores.
echo "3. one clip's frames over the cores (01_01)"
timed one "$kelvara" retarget 01_01.bvh --target tgt.bvh -o one.bvh -q --threads 1
"$kelvara" retarget 01_01.bvh --target tgt.bvh -o all.bvh -q >/dev/null 2>&1
row "--threads 1" "$(med one.wall) ms" "" ""
row "--threads $(nproc) (default)" "$(med k01_01.wall) ms" "" ""
row "speed-up" "$(ratio "$(med one.wall)" "$(med k01_01.wall)")x" "" ""
row "outputs byte-identical" "$(cmp -s one.bvh all.bvh && echo yes || echo NO)" "yes" ""
echo

# 4. Batch of 16.
echo "4. a batch of 16 clips (01_01 and 01_03 in turn)"
mkdir -p batch
for i in $(seq -w 1 16); do
  if ((10#$i % 2)); then ln -sf ../01_01.bvh "batch/c$i.bvh"; else ln -sf ../01_03.bvh "batch/c$i.bvh"; fi
done
timed jobs1 "$kelvara" retarget batch/c*.bvh --target tgt.bvh -o out1 -q --jobs 1 --threads 1
timed jobs2 "$kelvara" retarget batch/c*.bvh --target tgt.bvh -o out2 -q --jobs 2 --threads 1
x=$(ratio "$(med jobs1.wall)" "$(med jobs2.wall)")
row "--jobs 1: wall / cpu" "$(med jobs1.wall) / $(med jobs1.cpu) ms" "" ""
row "--jobs 2: wall / cpu" "$(med jobs2.wall) / $(med jobs2.cpu) ms" "" ""
row "--jobs 2 speed-up" "${x}x" ">= 1.8x" "$(verdict "$x" 1.8 ">=")"
c=$(ratio "$(med jobs2.cpu)" "$(med jobs1.cpu)")
row "--jobs 2 cpu / --jobs 1 cpu" "${c}x" "<= 1.10x" "$(verdict "$c" 1.10 "<=")"
same=yes
for f in out1/*.bvh; do cmp -s "$f" "out2/$(basename "$f")" || same=NO; done
row "outputs byte-identical" "$same" "yes" ""
echo

# 5. Reading and writing.
echo "5. reading and writing (--timings, median of $runs; 01_01 onto the demo target)"
: >rates
for ((i = 0; i < runs; i++)); do
  "$kelvara" retarget 01_01.bvh --target tgt.bvh -o rate.bvh -q --timings 2>&1 >/dev/null | grep '^timings:' >>rates
  "$kelvara" retarget 01_01.bvh --target tgt.bvh -o rate.glb -q --timings 2>&1 >/dev/null | grep '^timings:' |
    sed 's/^timings:/glb:/' >>rates
done
field() { grep "^$1" rates | sed -n "s/.*$2 \([0-9.]*\) ms.*/\1/p" | median; }
in_bytes=$(($(stat -c %s 01_01.bvh) + $(stat -c %s tgt.bvh)))
read_ms=$(field timings reading)
write_ms=$(field timings writing)
glb_ms=$(field glb writing)
read_rate=$(awk -v b="$in_bytes" -v ms="$read_ms" 'BEGIN { printf "%.0f", b / 1e6 / (ms / 1e3) }')
write_rate=$(awk -v b="$(stat -c %s rate.bvh)" -v ms="$write_ms" 'BEGIN { printf "%.0f", b / 1e6 / (ms / 1e3) }')
keys=$((2752 * 21))
row "BVH reading ($read_ms ms)" "$read_rate MB/s" ">= 600 MB/s" "$(verdict "$read_rate" 600 ">=")"
row "BVH writing ($write_ms ms)" "$write_rate MB/s" ">= 400 MB/s" "$(verdict "$write_rate" 400 ">=")"
row "BVH writing per keyframe" "$(awk -v ms="$write_ms" -v k="$keys" 'BEGIN { printf "%.0f ns", ms * 1e6 / k }')" "" ""
row "glTF (.glb) writing per keyframe ($glb_ms ms)" "$(awk -v ms="$glb_ms" -v k="$keys" 'BEGIN { printf "%.0f ns", ms * 1e6 / k }')" \
  "as BVH" ""
if [[ -x $build/bin/kelvara_bench ]]; then
  "$build/bin/kelvara_bench" --benchmark_filter='BM_ShortestFixed|BM_LibraryToCharsFixed' --benchmark_format=csv \
    2>/dev/null >formatter.csv
  per() { awk -F, -v n="\"$1\"" '$1 == n { printf "%.1f ns", 1e9 / $7 }' formatter.csv; }
  row "shortest text of a computed number: ours" "$(per BM_ShortestFixed)" "" "library's to_chars: $(per BM_LibraryToCharsFixed)"
fi
if have strace; then
  # Only the traced calls stop the process (seccomp filter), so the others keep their speed.
  strace --seccomp-bpf -f -T -e trace=fsync,fdatasync,linkat,rename -o strace.txt "$kelvara" retarget 01_01.bvh \
    --target tgt.bvh -o sync.bvh -q >/dev/null 2>&1
  sync_ms=$(sed -n 's/.*<\([0-9.]*\)>$/\1/p' strace.txt | awk '{ s += $1 } END { printf "%.2f", s * 1000 }')
  row "durability (fsync, link, rename) in BVH writing" "$sync_ms ms of $write_ms" "" "(kept)"
fi
echo

# 6. Allocations per frame.
echo "6. allocations per frame in the loop (01_01, 120 frames less 60, one thread)"
if have valgrind && have node; then
  node "$root/bench/make_skeletons.mjs" faces 01_01.bvh 0 walk120.bvh 120
  allocs() {
    valgrind --tool=memcheck "$kelvara" retarget "$1" --target tgt.bvh -o a.bvh -q --threads 1 2>&1 >/dev/null |
      sed -n 's/.*total heap usage: \([0-9,]*\) allocs.*/\1/p' | tr -d ,
  }
  a60=$(allocs walk60.bvh)
  a120=$(allocs walk120.bvh)
  per=$(awk -v a="$a60" -v b="$a120" 'BEGIN { printf "%.1f", (b - a) / 60 }')
  # What the module's operations make by their definition, per frame: two new poses, their two
  # arrays and the two arrays they are filled from; a copy of each of the 31 source joints'
  # transforms (the deltas), and of each of the 21 paired ones (the renamed deltas) with the
  # private id SetUuid takes before it shares the new one.
  own=$((6 + 31 + 2 * 21))
  row "allocations per frame (whole process)" "$per" "<= $own" "$(verdict "$per" "$own" "<=") (the module's own: 6 + 31 + 2x21)"
else
  row "allocations per frame" "-" "" "skipped: valgrind or node missing"
fi
echo

# 7. Peak memory.
echo "7. peak memory"
for clip in 01_01 01_03; do
  bytes=$(($(stat -c %s "$clip.bvh") + $(stat -c %s tgt.bvh)))
  peak=$(awk '{ print $1 / 1024 }' "k$clip.rss" | median)
  x=$(awk -v p="$peak" -v b="$bytes" 'BEGIN { printf "%.1f", p * 1048576 / b }')
  row "$clip: peak MiB (x input bytes)" "$peak (${x}x)" "<= 3x" "$(verdict "$x" 3 "<=")"
done
row "batch of 16 at --jobs 2: peak MiB" "$(awk '{ print $1 / 1024 }' jobs2.rss | median)" "" ""
exit 0
