# Characters and clips as arrays: what the readers give, clips built from arrays, and round trips
# through every format written.
import numpy as np
import pytest

from conftest import HUMANOID_X, JUMP, WALK, run_command


def same_rotations(a, b, tolerance):
    """q and -q are one rotation: compare |dot| with 1."""
    dots = np.abs(np.sum(a * b, axis=-1))
    return float(np.max(1.0 - dots)) <= tolerance


def test_character_of_a_bvh_file(walk_character):
    c = walk_character
    assert c.joint_count == 31 and len(c.joint_names) == 31
    assert c.joint_names[0] == "Hips" and c.parents[0] == -1
    assert c.parents.dtype == np.int32
    assert all(0 <= c.parents[j] < j for j in range(1, 31))
    assert c.rest.shape == (31, 4, 4)
    # LeftUpLeg's rest offset as the file states it, in the last column of a pure translation.
    j = c.joint_names.index("LeftUpLeg")
    np.testing.assert_allclose(c.rest[j][:3, 3], [1.36306, -1.79463, 0.83929])
    np.testing.assert_allclose(c.rest[j][:3, :3], np.eye(3))
    assert c.preset == "cmu" and c.body_parts["Hips"] == "Hips"
    assert c.body_parts["Left foot"] == "LeftFoot"
    assert "cmu" in c.preset_reason or c.preset_reason


def test_character_from_assimp_and_a_named_preset(kelvara, humanoid):
    assert humanoid.format not in ("BVH", "glTF")
    assert humanoid.joint_count > 20 and len(humanoid.body_parts) >= 15
    # Rest transforms for column vectors, parents first: chained under the scene transform they put
    # every character in one Y-up world, so the hips stand above the feet.
    world = [None] * humanoid.joint_count
    for j, parent in enumerate(humanoid.parents):
        world[j] = (humanoid.scene_transform if parent < 0 else world[parent]) @ humanoid.rest[j]
    names = humanoid.joint_names
    hips = world[names.index(humanoid.body_parts["Hips"])][:3, 3]
    foot = world[names.index(humanoid.body_parts["Left foot"])][:3, 3]
    assert np.all(humanoid.rest[:, 3, :] == [0, 0, 0, 1])
    assert hips[1] - foot[1] > 0.5 * np.linalg.norm(hips - foot)
    generic = kelvara.load_character(HUMANOID_X, preset="generic")
    assert generic.preset == "generic" and generic.requested_preset == "generic"


def test_clip_of_a_file_is_viewed_without_copies(walk):
    assert (walk.frame_count, walk.joint_count) == (2752, 31)
    assert walk.frame_time == pytest.approx(0.0083333)
    r = walk.rotations
    assert r.shape == (2752, 31, 4) and r.dtype == np.float64
    np.testing.assert_allclose(np.linalg.norm(r, axis=-1), 1.0, atol=1e-9)
    assert np.shares_memory(r, walk.rotations)  # the clip's own memory, every time
    assert np.shares_memory(walk.root_translation, walk.root_translation)
    with pytest.raises(ValueError):
        r[0, 0, 0] = 2.0  # read-only: a clip stays valid once checked
    np.testing.assert_allclose(walk.root_translation[0], [9.3722, 17.8693, -17.3198])
    assert walk.translations is None


def test_second_animation_by_index_and_name(kelvara, tmp_path, walk_character, humanoid):
    # A glTF written with the walk holds the character's animations and the new one last.
    first = kelvara.load_clip(JUMP)
    out, _ = kelvara.retarget(first, walk_character, humanoid)
    path = tmp_path / "two.glb"
    out.save(path, character=humanoid, animation_name="jump")
    by_name = kelvara.load_clip(path, animation="jump")
    assert by_name.name == "jump" and by_name.frame_count == first.frame_count


def random_clip(kelvara, joints, frames=12, seed=1):
    rng = np.random.default_rng(seed)
    q = rng.normal(size=(frames, joints, 4))
    q /= np.linalg.norm(q, axis=-1, keepdims=True)
    q[q[..., 0] < 0] *= -1
    root = rng.normal(scale=3.0, size=(frames, 3))
    return kelvara.Clip(q, root, 1 / 30, name="made")


@pytest.mark.parametrize("extension", [".bvh", ".glb", ".gltf"])
def test_clip_from_arrays_round_trips_through_files(kelvara, tmp_path, walk_character, extension):
    clip = random_clip(kelvara, walk_character.joint_count)
    path = tmp_path / f"made{extension}"
    clip.save(path, character=walk_character)
    back = kelvara.load_clip(path, animation=None if extension == ".bvh" else "made")
    assert back.frame_count == clip.frame_count and back.joint_count == clip.joint_count
    assert back.frame_time == pytest.approx(clip.frame_time, rel=1e-5)
    # BVH keeps Euler angles in text (6 decimals); glTF keeps 32-bit floats.
    assert same_rotations(back.rotations, clip.rotations, 1e-8)
    np.testing.assert_allclose(back.root_translation, clip.root_translation, atol=1e-4)


def test_glb_of_an_assimp_character_round_trips(kelvara, tmp_path, humanoid):
    clip = random_clip(kelvara, humanoid.joint_count, seed=2)
    path = tmp_path / "humanoid.glb"
    clip.save(path, character=humanoid)
    again = kelvara.load_character(path)
    assert again.joint_names == humanoid.joint_names
    np.testing.assert_allclose(again.rest, humanoid.rest, atol=1e-5)
    back = kelvara.load_clip(path, animation="made")
    assert same_rotations(back.rotations, clip.rotations, 1e-8)


def test_arrays_of_other_types_and_layouts_are_taken(kelvara, walk_character):
    clip = random_clip(kelvara, walk_character.joint_count)
    strided = np.asfortranarray(clip.rotations.astype(np.float32))
    again = kelvara.Clip(strided, clip.root_translation.tolist(), clip.frame_time)
    np.testing.assert_allclose(again.rotations, clip.rotations, atol=1e-6)


def test_saved_character_is_the_one_saved(kelvara, tmp_path, walk_character, walk):
    saved = tmp_path / "walk.json"
    run_command("character", WALK, "-o", saved, "--preset", "game")
    again = kelvara.load_character(saved)
    assert again.joint_names == walk_character.joint_names
    np.testing.assert_array_equal(again.parents, walk_character.parents)
    np.testing.assert_allclose(again.rest, walk_character.rest, atol=1e-12)
    # Used as saved: the preset it was saved with, not the one that fills the most.
    assert again.preset == "game" and walk_character.preset == "cmu"
    # A saved source stands for clips of its skeleton.
    out, report = kelvara.retarget(walk, again, kelvara.load_character(JUMP))
    assert report["sourceCharacter"]["preset"] == "game" and out.frame_count == walk.frame_count
