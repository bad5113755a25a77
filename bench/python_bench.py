#!/usr/bin/env python3
"""Python and Dask figures against the kelvara command, on the CMU walk (01_01, 2752 frames) and
the DirectX humanoid of Debian's assimp-testmodels.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py [--build build] [--clips 32] [--repeat 5]

1. Solve time of one clip: the command's "solving" figure (--timings) against kelvara.retarget
   from arrays in memory (the same road: pairing once, then the frames), medians of --repeat runs.
2. A batch of --clips clips (the walk and 01_03 by turns) on a local Dask cluster of 1 and of 2
   worker processes (one thread each), cluster start excluded; every output compared byte for
   byte with the command's batch of the same files, and the command's own batch with 1 and 2
   threads beside them (the parallelism the machine gives at that moment).
"""

import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

MODELS = "/usr/share/assimp/models"
WALK = f"{MODELS}/BVH/01_01.bvh"
JUMP = f"{MODELS}/BVH/01_03.bvh"
TARGET = f"{MODELS}/X/BCN_Epileptic.X"


def command_solve_ms(command, out):
    result = subprocess.run([command, "retarget", WALK, "--target", TARGET, "-o", out, "-q", "--timings"],
                            capture_output=True, text=True, check=True)
    return float(re.search(r"solving ([0-9.]+) ms", result.stderr).group(1))


def python_solve_ms(kelvara, clip, source, target):
    start = time.perf_counter()
    kelvara.retarget(clip, source, target)
    return (time.perf_counter() - start) * 1e3


def batch_seconds(sources, out, workers):
    from dask.distributed import Client, LocalCluster

    from kelvara.distributed import retarget_many

    with LocalCluster(n_workers=workers, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None) as cluster, Client(cluster) as client:
        client.wait_for_workers(workers)
        start = time.perf_counter()
        result = retarget_many(sources, TARGET, out, client, measure=False)
        seconds = time.perf_counter() - start
    assert result.status == 0, result.table()
    return seconds


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default=os.path.join(os.path.dirname(__file__), "..", "build"))
    parser.add_argument("--clips", type=int, default=32)
    parser.add_argument("--repeat", type=int, default=5)
    args = parser.parse_args()
    command = os.path.join(args.build, "bin", "kelvara")
    import kelvara

    with tempfile.TemporaryDirectory() as tmp:
        # 1. one clip
        commands = [command_solve_ms(command, os.path.join(tmp, "walk.glb")) for _ in range(args.repeat)]
        source = kelvara.load_character(WALK)
        target = kelvara.load_character(TARGET)
        clip = kelvara.load_clip(WALK)
        first = python_solve_ms(kelvara, clip, source, target)  # builds the road onto the target
        pythons = [python_solve_ms(kelvara, clip, source, target) for _ in range(args.repeat)]
        c, p = statistics.median(commands), statistics.median(pythons)
        print(f"solve 01_01 (2752 frames) onto the humanoid, median of {args.repeat} (fastest):")
        print(f"  command --timings solving: {c:.1f} ms ({min(commands):.1f})")
        print(f"  kelvara.retarget:          {p:.1f} ms ({min(pythons):.1f}); first call, the road set up: "
              f"{first:.1f} ms")
        print(f"  python / command: median {p / c:.3f}, fastest {min(pythons) / min(commands):.3f}")

        # 2. a batch on Dask
        clips = os.path.join(tmp, "clips")
        os.mkdir(clips)
        sources = []
        for n in range(args.clips):
            path = os.path.join(clips, f"clip_{n:02d}.bvh")
            os.symlink(WALK if n % 2 == 0 else JUMP, path)
            sources.append(path)
        # The command's own batch with 1 and 2 threads: what this machine gives two workers just now.
        command_batch = {}
        for jobs in (1, 2):
            expected = os.path.join(tmp, f"command{jobs}")
            start = time.perf_counter()
            subprocess.run([command, "retarget", *sources, "--target", TARGET, "-o", expected, "-q", "--jobs",
                            str(jobs)], check=True, capture_output=True)
            command_batch[jobs] = time.perf_counter() - start
        seconds = {}
        for workers in (1, 2):
            out = os.path.join(tmp, f"dask{workers}")
            seconds[workers] = batch_seconds(sources, out, workers)
            for name in sorted(os.listdir(expected)):
                with open(os.path.join(expected, name), "rb") as a, open(os.path.join(out, name), "rb") as b:
                    if a.read() != b.read():
                        sys.exit(f"{name}: the Dask output differs from the command's")
        print(f"batch of {args.clips} clips onto the humanoid (.glb), cluster start excluded:")
        print(f"  1 worker process:  {seconds[1]:.2f} s")
        print(f"  2 worker processes: {seconds[2]:.2f} s  (speed-up {seconds[1] / seconds[2]:.2f}x)")
        print(f"  the command's own batch (whole process): --jobs 1 {command_batch[1]:.2f} s, --jobs 2 "
              f"{command_batch[2]:.2f} s (speed-up {command_batch[1] / command_batch[2]:.2f}x); "
              f"load average {os.getloadavg()[0]:.1f} on {os.cpu_count()} cores")
        print(f"  all {args.clips} outputs of both runs byte-identical to the command's")


if __name__ == "__main__":
    main()
