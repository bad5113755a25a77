# Every kind of bad input ends in an exception of the kelvara.Error family, with the file and
# line where there is one, and leaves nothing written.
import os

import numpy as np
import pytest

from conftest import JUMP, WALK, run_command, short_bvh


@pytest.fixture
def out_dir(tmp_path):
    folder = tmp_path / "out"
    folder.mkdir()
    yield folder
    assert os.listdir(folder) == []  # nothing written, not even a temporary


def test_a_missing_file(kelvara, out_dir):
    missing = str(out_dir.parent / "missing.bvh")
    with pytest.raises(kelvara.InputError) as caught:
        kelvara.load_character(missing)
    assert caught.value.file == missing and missing in str(caught.value)
    with pytest.raises(kelvara.InputError):
        kelvara.retarget_file(missing, out_dir / "x.bvh", JUMP)


def test_a_malformed_file_names_its_line(kelvara, tmp_path, out_dir):
    bad = tmp_path / "bad.bvh"
    text = open(WALK).read().splitlines()
    text[11] = "\t\t\tOFFSET 2.44811 oops 0.00000"
    bad.write_text("\n".join(text) + "\n")
    for call in (lambda: kelvara.load_clip(bad), lambda: kelvara.retarget_file(bad, out_dir / "x.bvh", JUMP)):
        with pytest.raises(kelvara.InputError) as caught:
            call()
        assert caught.value.file == str(bad) and caught.value.line == 12, str(caught.value)
        assert isinstance(caught.value, ValueError) and isinstance(caught.value, kelvara.Error)


def test_a_file_without_an_animation(kelvara, tmp_path, out_dir):
    saved = tmp_path / "walk.json"  # a saved character: a skeleton, no motion
    run_command("character", WALK, "-o", saved)
    with pytest.raises(kelvara.InputError, match="animation"):
        kelvara.load_clip(saved)
    with pytest.raises(kelvara.InputError, match="animation"):
        kelvara.retarget_file(saved, out_dir / "x.bvh", JUMP)


def test_bad_options(kelvara, walk, walk_character, out_dir):
    target = kelvara.load_character(JUMP)
    with pytest.raises(kelvara.InputError, match="root_scale"):
        kelvara.retarget(walk, walk_character, target, root_scale=-1)
    for bad in ("big", "0.5x", True, None, float("nan")):
        with pytest.raises(kelvara.InputError, match="root_scale"):
            kelvara.retarget(walk, walk_character, target, root_scale=bad)
    with pytest.raises(TypeError, match="unknown option"):
        kelvara.retarget(walk, walk_character, target, match_rests=True)
    with pytest.raises(TypeError, match="from its characters"):
        kelvara.retarget(walk, walk_character, target, source_preset="game")
    with pytest.raises(kelvara.InputError, match="preset"):
        kelvara.load_character(JUMP, preset="nonesuch")
    with pytest.raises(kelvara.InputError, match="preset"):
        kelvara.retarget_file(WALK, out_dir / "x.bvh", JUMP, preset="nonesuch")
    with pytest.raises(kelvara.InputError, match="formats|extension|expected"):
        kelvara.retarget_file(WALK, out_dir / "x.txt", JUMP)


def test_a_bad_joint_map(kelvara, tmp_path, walk_character, out_dir):
    clip = kelvara.load_clip(short_bvh(tmp_path / "w.bvh", 5))
    target = kelvara.load_character(JUMP)
    with pytest.raises(kelvara.InputError, match="Nowhere"):
        kelvara.retarget(clip, walk_character, target, joint_map={"LeftArm": "Nowhere"})
    path = tmp_path / "map.json"
    path.write_text('{\n  "LeftArm": "RightArm",\n  "RightArm": 3\n}\n')
    with pytest.raises(kelvara.InputError) as caught:
        kelvara.retarget_file(WALK, out_dir / "x.bvh", JUMP, joint_map=path)
    assert caught.value.file == str(path) and caught.value.line == 3, str(caught.value)


@pytest.mark.parametrize("change,message", [
    (lambda q, t: (q[..., :3], t), "shape"),
    (lambda q, t: (q, t[:-1]), "root_translation"),
    (lambda q, t: (np.where(np.arange(q.size).reshape(q.shape) == 37, np.nan, q), t), "finite"),
    (lambda q, t: (q * 1.01, t), "unit quaternion"),
    (lambda q, t: (q, np.full_like(t, np.inf)), "finite"),
])
def test_bad_arrays_are_refused_before_any_work(kelvara, walk, change, message):
    rotations, root = change(walk.rotations[:10].copy(), walk.root_translation[:10].copy())
    with pytest.raises(kelvara.ArrayError, match=message):
        kelvara.Clip(rotations, root, walk.frame_time)


def test_a_bad_frame_time_and_an_empty_clip(kelvara, walk):
    with pytest.raises(kelvara.ArrayError, match="frame_time"):
        kelvara.Clip(walk.rotations[:2], walk.root_translation[:2], 0.0)
    with pytest.raises(kelvara.ArrayError, match="frames"):
        kelvara.Clip(walk.rotations[:0], walk.root_translation[:0], 0.1)


def test_a_clip_of_another_skeleton(kelvara, walk, walk_character, humanoid, out_dir):
    with pytest.raises(kelvara.ArrayError):
        kelvara.retarget(walk, humanoid, walk_character)
    with pytest.raises(kelvara.ArrayError):
        walk.save(out_dir / "x.glb", character=humanoid)


def test_an_unwritable_place(kelvara, walk, walk_character, out_dir):
    with pytest.raises(kelvara.Error) as caught:
        walk.save(out_dir / "no" / "such" / "x.bvh", character=walk_character)
    assert not isinstance(caught.value, kelvara.ArrayError)
