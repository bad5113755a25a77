# Retargeting from Python against the kelvara command: the same inputs and options give the same
# bytes, and the report carries the command's figures.
import json
import threading
import time

import numpy as np
import pytest

from conftest import HUMANOID_X, JUMP, WALK, read_bytes, run_command, short_bvh


@pytest.mark.parametrize("extension,options,flags", [
    (".glb", {}, []),
    (".glb", {"threads": 1}, ["--threads", "3"]),
    (".gltf", {"match_rest": False, "root_scale": 0.5}, ["--keep-rest", "--root-scale", "0.5"]),
    (".bvh", {"root_motion": False, "plant_feet": False}, ["--no-root-motion", "--no-plant-feet"]),
])
def test_python_result_is_the_commands_output(kelvara, tmp_path, extension, options, flags):
    source = kelvara.load_character(JUMP)
    target = kelvara.load_character(HUMANOID_X)
    clip = kelvara.load_clip(JUMP)
    out, report = kelvara.retarget(clip, source, target, **options)
    options.pop("threads", None)
    mine = tmp_path / f"python{extension}"
    out.save(mine, character=target)
    theirs = tmp_path / f"command{extension}"
    run_command("retarget", JUMP, "--target", HUMANOID_X, "-o", theirs, "-q", *flags)
    assert read_bytes(mine) == read_bytes(theirs)
    assert report["status"] == "ok" and report["frames"] == clip.frame_count
    assert report["rootMotion"] == options.get("root_motion", True)


def test_retarget_file_writes_the_commands_bytes_and_report(kelvara, tmp_path):
    walk = short_bvh(tmp_path / "walk.bvh", 60)
    theirs = tmp_path / "command.bvh"
    command_report = tmp_path / "command.json"
    run_command("retarget", walk, "--target", JUMP, "-o", theirs, "--report", command_report, "--match-rest", "-q")
    mine = tmp_path / "python.bvh"
    report = kelvara.retarget_file(walk, mine, JUMP, match_rest=True)
    assert read_bytes(mine) == read_bytes(theirs)
    expected = json.loads(read_bytes(command_report))["clips"][0]
    for key in ("pairs", "unpairedTargetJoints", "rootScale", "matchRest", "meanBoneAngleDegrees"):
        assert report[key] == expected[key], key
    assert [b["meanAngleDegrees"] for b in report["bones"]] == [b["meanAngleDegrees"] for b in expected["bones"]]


def test_a_map_as_a_dict_or_a_file_pairs_the_same(kelvara, tmp_path, walk_character):
    walk = short_bvh(tmp_path / "walk.bvh", 20)
    clip = kelvara.load_clip(walk)
    target = kelvara.load_character(JUMP)
    joint_map = {"LeftArm": "RightArm", "RightArm": "LeftArm"}
    path = tmp_path / "map.json"
    path.write_text(json.dumps(joint_map))
    by_dict, report = kelvara.retarget(clip, walk_character, target, joint_map=joint_map)
    by_file, _ = kelvara.retarget(clip, walk_character, target, joint_map=path)
    np.testing.assert_array_equal(by_dict.rotations, by_file.rotations)
    pairs = {p["target"]: (p["source"], p["origin"]) for p in report["pairs"]}
    assert pairs["LeftArm"] == ("RightArm", "map")


def test_defaults_are_the_commands(kelvara):
    defaults = kelvara.default_options()
    assert defaults["root_scale"] == "auto" and defaults["root_motion"] is True
    assert kelvara.road_options(root_scale="0.5").root_scale == 0.5  # as a command line gives it
    assert kelvara.road_options(root_scale=2).root_scale == 2.0
    # Each boolean names the command's flag that turns it from its default.
    help_text = run_command("retarget", "--help").stdout
    booleans = [name for name, value in defaults.items() if isinstance(value, bool)]
    assert {"match_rest", "root_motion", "plant_feet"} <= set(booleans)
    for name in booleans:
        flag = getattr(kelvara.RoadOptions, name).__doc__.split(":")[0]
        assert flag.startswith("--") and flag in help_text, (name, flag)


def test_measure_gives_the_quality_figures(kelvara, tmp_path, walk_character, humanoid):
    clip = kelvara.load_clip(short_bvh(tmp_path / "walk.bvh", 30))
    _, plain = kelvara.retarget(clip, walk_character, humanoid)
    assert "bones" not in plain or plain["bones"] == []
    _, measured = kelvara.retarget(clip, walk_character, humanoid, measure=True)
    assert len(measured["bones"]) > 10
    both = measured["meanBoneAngleDegrees"]
    assert set(both) == {"withoutMatchRest", "withMatchRest"}
    assert all(np.isfinite(b["maxAngleDegrees"]) for b in measured["bones"])


def test_clip_made_from_arrays_is_retargeted_like_the_file(kelvara, tmp_path, walk, walk_character, humanoid):
    head = kelvara.Clip(walk.rotations[:50].copy(), walk.root_translation[:50].copy(), walk.frame_time,
                        name=walk.name)
    same_file = kelvara.load_clip(short_bvh(tmp_path / "01_01.bvh", 50))
    from_arrays, _ = kelvara.retarget(head, walk_character, humanoid)
    from_file, _ = kelvara.retarget(same_file, walk_character, humanoid)
    np.testing.assert_array_equal(from_arrays.rotations, from_file.rotations)
    np.testing.assert_array_equal(from_arrays.root_translation, from_file.root_translation)
    assert from_arrays.driven is not None and from_arrays.driven.sum() > 15
    # Without planting each frame stands alone: the head of the whole walk is the walk's head.
    whole, _ = kelvara.retarget(walk, walk_character, humanoid, plant_feet=False)
    alone, _ = kelvara.retarget(head, walk_character, humanoid, plant_feet=False)
    np.testing.assert_array_equal(alone.rotations, whole.rotations[:50])


def test_the_solve_lets_other_python_threads_run(kelvara, walk, walk_character, humanoid):
    ticks = []
    done = threading.Event()

    def solve():
        for _ in range(3):
            kelvara.retarget(walk, walk_character, humanoid)
        done.set()

    worker = threading.Thread(target=solve)
    worker.start()
    while not done.is_set():
        ticks.append(time.monotonic())
        time.sleep(0.001)
    worker.join()
    # Holding the GIL through each solve would leave this thread a tick between solves at most.
    assert len(ticks) >= 10, len(ticks)


def test_threads_retarget_at_once_with_equal_results(kelvara, walk, walk_character, humanoid):
    results = [None] * 3

    def solve(i):
        results[i] = kelvara.retarget(walk, walk_character, humanoid, match_rest=True)[0].rotations

    threads = [threading.Thread(target=solve, args=(i,)) for i in range(3)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for r in results[1:]:
        np.testing.assert_array_equal(r, results[0])
