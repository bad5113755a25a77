# Batches on Dask: a local cluster of two worker processes on 127.0.0.1, a clip that fails among
# good ones, a worker killed in the middle, and the shell entry point against a scheduler started
# from the shell. Every test is bounded in time and shuts its cluster down.
import faulthandler
import json
import os
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest

from conftest import JUMP, WALK, read_bytes, run_command, short_bvh

distributed = pytest.importorskip("distributed")


@pytest.fixture
def deadline():
    faulthandler.dump_traceback_later(240, exit=True)  # a hung cluster fails the run, not CI
    yield
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture
def cluster(deadline):
    from dask.distributed import Client, LocalCluster

    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
                      dashboard_address=None) as local:
        with Client(local) as client:
            yield client


def expected_output(tmp_path, source, extension=".bvh", flags=()):
    path = tmp_path / "expected" / (os.path.splitext(os.path.basename(source))[0] + extension)
    path.parent.mkdir(exist_ok=True)
    run_command("retarget", source, "--target", JUMP, "-o", path, "-q", *flags)
    return read_bytes(path)


def test_a_batch_writes_the_good_clips_and_reports_the_broken_one(kelvara, tmp_path, cluster, short_clips):
    from kelvara.distributed import retarget_many

    broken = tmp_path / "broken.bvh"
    broken.write_text("HIERARCHY\nROOT Hips\n{\n  OFFSET 0 0 zero\n")
    sources = short_clips[:3] + [str(broken)]
    out = tmp_path / "out"
    report = tmp_path / "report.json"
    result = retarget_many(sources, JUMP, out, cluster, match_rest=True, report=report)

    assert [c["status"] for c in result.clips] == ["ok", "ok", "ok", "failed"]
    assert "broken.bvh:4" in result.clips[3]["error"] and result.status == 2
    assert sorted(os.listdir(out)) == ["walk_0.bvh", "walk_1.bvh", "walk_2.bvh"]
    for source in short_clips[:3]:
        name = os.path.splitext(os.path.basename(source))[0] + ".bvh"
        assert read_bytes(out / name) == expected_output(tmp_path, source, flags=["--match-rest"])
    written = json.loads(report.read_text())
    assert written["summary"]["clips"] == 4 and written["summary"]["failed"] == 1
    assert written["clips"][0]["pairs"] and "bones" in written["clips"][0]
    assert "failed  " + str(broken) in result.table()


def test_options_and_names_are_checked_before_any_task(kelvara, tmp_path, short_clips):
    from kelvara.distributed import retarget_many

    client = object()  # never used: every refusal comes first
    with pytest.raises(TypeError):
        retarget_many(short_clips, JUMP, tmp_path / "out", client, no_such_option=1)
    with pytest.raises(kelvara.InputError, match="output-format"):
        retarget_many(short_clips, JUMP, tmp_path / "out", client, output_format="fbx")
    twin = tmp_path / "twin"
    twin.mkdir()
    shutil.copy(short_clips[0], twin / "walk_0.bvh")
    with pytest.raises(kelvara.InputError, match="distinct names"):
        retarget_many([short_clips[0], twin / "walk_0.bvh"], JUMP, tmp_path / "out", client)
    assert not (tmp_path / "out").exists()


def test_a_worker_killed_in_the_middle(kelvara, tmp_path, cluster):
    from kelvara.distributed import retarget_many

    clips = tmp_path / "clips"
    clips.mkdir()
    sources = []
    for n in range(10):
        os.symlink(WALK, clips / f"walk_{n}.bvh")
        sources.append(str(clips / f"walk_{n}.bvh"))
    out = tmp_path / "out"
    pids = list(cluster.run(os.getpid).values())
    assert len(pids) == 2
    done = {}
    batch = threading.Thread(target=lambda: done.update(result=retarget_many(sources, JUMP, out, cluster,
                                                                             measure=False)))
    batch.start()
    while not (out.exists() and any(name.endswith(".bvh") for name in os.listdir(out))):
        assert batch.is_alive(), "the batch ended before a worker could be killed"
        time.sleep(0.05)
    os.kill(pids[0], signal.SIGKILL)
    assert batch.is_alive() and len(os.listdir(out)) < 10  # killed with clips still to go
    batch.join()

    result = done["result"]
    assert pids[0] not in cluster.run(os.getpid).values()  # the worker really went
    assert [c["status"] for c in result.clips] == ["ok"] * 10, result.table()
    expected = expected_output(tmp_path, WALK)
    assert sorted(os.listdir(out)) == sorted(f"walk_{n}.bvh" for n in range(10))  # no temporaries left
    for n in range(10):
        assert read_bytes(out / f"walk_{n}.bvh") == expected, n


def start(args, **kwargs):
    return subprocess.Popen(args, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **kwargs)


def dask_command(name):
    dask = shutil.which("dask", path="/usr/bin:" + os.environ.get("PATH", ""))
    return [dask, name] if dask else [sys.executable, "-m", f"distributed.cli.dask_{name}"]


def test_the_shell_entry_point_against_a_scheduler_from_the_shell(kelvara, tmp_path, deadline, short_clips):
    scheduler_file = tmp_path / "scheduler.json"
    processes = [start(dask_command("scheduler") + ["--host", "127.0.0.1", "--port", "0", "--no-dashboard",
                                                    "--scheduler-file", str(scheduler_file)])]
    try:
        while not scheduler_file.exists():
            time.sleep(0.1)
        time.sleep(0.2)
        address = json.loads(scheduler_file.read_text())["address"]
        processes.append(start(dask_command("worker") + [address, "--nworkers", "2", "--nthreads", "1",
                                                          "--no-dashboard", "--host", "127.0.0.1"]))
        out = tmp_path / "out"
        entry = subprocess.run([sys.executable, "-m", "kelvara.distributed", "--scheduler", address, *short_clips,
                                "--target", JUMP, "-o", str(out), "--no-root-motion", "--output-format", "glb"],
                               capture_output=True, text=True, timeout=200)
        assert entry.returncode == 0, entry.stderr
        assert "summary: 4 clips, 4 written, 0 failed" in entry.stdout
        for source in short_clips:
            name = os.path.splitext(os.path.basename(source))[0] + ".glb"
            assert read_bytes(out / name) == expected_output(tmp_path, source, ".glb", ["--no-root-motion"])

        refused = subprocess.run([sys.executable, "-m", "kelvara.distributed", "--scheduler", address,
                                  short_clips[0], "--target", JUMP, "-o", str(out), "--root-scale", "-2"],
                                 capture_output=True, text=True, timeout=60)
        assert refused.returncode == 2 and "root_scale" in refused.stderr
    finally:
        for p in reversed(processes):
            p.terminate()
        for p in processes:
            try:
                p.wait(timeout=20)
            except subprocess.TimeoutExpired:
                p.kill()
                p.wait()
