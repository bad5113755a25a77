"""kelvara for Python: motion retargeting between characters, with numpy arrays.

Everything runs through the kelvara command's own code: characters are read and built, body
parts filled by the keyword presets, joints paired, rests matched, clips solved and files written
exactly as ``kelvara retarget`` does; this package turns arrays into clips and back.

    import kelvara
    source = kelvara.load_character("walk.bvh")
    target = kelvara.load_character("hero.glb")
    clip = kelvara.load_clip("walk.bvh")
    out, report = kelvara.retarget(clip, source, target, plant_feet=False)
    out.rotations            # (frames, joints, 4) quaternions w, x, y, z, read-only, no copy
    out.save("hero_walk.glb", character=target)

Quaternions are (w, x, y, z), each joint's whole local rotation (not a change from its rest).
Matrices are 4x4 for column vectors: translation in the last column.

Errors are kelvara.Error; wrong inputs (files, options, maps) kelvara.InputError, wrong arrays
kelvara.ArrayError (both also ValueError). Their ``file`` and ``line`` say where, when known.
The solver runs without the GIL, so Python threads retarget in parallel.
"""

from __future__ import annotations

import json
import os
from typing import Any, Mapping, Optional, Tuple, Union

from . import _kelvara
from ._kelvara import ArrayError, Character, Clip, Error, InputError, RoadOptions

__all__ = [
    "ArrayError",
    "Character",
    "Clip",
    "Error",
    "InputError",
    "RoadOptions",
    "default_options",
    "load_character",
    "load_clip",
    "option_names",
    "presets",
    "retarget",
    "retarget_file",
    "road_options",
]

PathLike = Union[str, "os.PathLike[str]"]

# Options that name the characters and how their files are read: retarget() takes them from its
# Character arguments, never as keywords.
CHARACTER_OPTIONS = frozenset(
    {"target", "skeleton_root", "source_character", "source_skeleton_root", "animation", "source_preset",
     "target_preset", "map", "map_text"})


def option_names() -> list:
    """Every option of a retarget, by the command's names in snake case (``--root-scale`` is
    ``root_scale``, ``--no-root-motion`` is ``root_motion=False``, ``--keep-rest`` is
    ``match_rest=False``)."""
    return sorted(name for name in dir(RoadOptions) if not name.startswith("_"))


def default_options() -> dict:
    """The command's defaults for every option, from the same place the command takes them."""
    defaults = RoadOptions()
    return {name: getattr(defaults, name) for name in option_names()}


def road_options(**options: Any) -> RoadOptions:
    """RoadOptions with the given options set over the command's defaults. An unknown name is a
    TypeError; a wrong value an InputError (or TypeError for a wrong type)."""
    known = set(option_names())
    result = RoadOptions()
    for name, value in options.items():
        if name not in known:
            raise TypeError(f"unknown option {name!r}; options are {', '.join(sorted(known))}")
        if isinstance(value, os.PathLike):
            value = os.fspath(value)
        setattr(result, name, value)
    return result


def presets() -> list:
    """Names of the keyword presets, in the order that breaks ties."""
    return _kelvara.presets()


def load_character(path: PathLike, preset: Optional[str] = None, skeleton_root: Optional[str] = None) -> Character:
    """Reads a character from any format the command reads (BVH, glTF/GLB, FBX, Collada, X, ...,
    or a saved character .json) and builds it as the command builds a target: its skeleton (from
    the skins' joints, or the subtree of the node ``skeleton_root``), its rest pose, and its body
    parts filled by ``preset`` (None: the preset that fills the most).

    The result has ``joint_names``, ``parents`` (int32, -1 for a root), ``rest`` (J x 4 x 4 local
    rest transforms), ``scene_transform``, ``body_parts`` ({body part: joint}), ``preset`` and
    ``preset_reason``. Raises InputError for a file that cannot be read."""
    return _kelvara.load_character(os.fspath(path), preset or "", skeleton_root or "")


def load_clip(path: PathLike, animation: Union[str, int, None] = None, skeleton_root: Optional[str] = None) -> Clip:
    """Reads the motion of a file: ``animation`` by name or index for formats that hold several
    (None: the first). The clip's joints are those of ``load_character(path, skeleton_root=...)``.
    Raises InputError for a file that cannot be read or holds no animation."""
    return _kelvara.load_clip(os.fspath(path), "" if animation is None else str(animation), skeleton_root or "")


def _with_map(options: dict, joint_map: Union[None, PathLike, Mapping[str, str]]) -> dict:
    if joint_map is None:
        return options
    if isinstance(joint_map, Mapping):
        return dict(options, map_text=json.dumps(dict(joint_map)))
    return dict(options, map=os.fspath(joint_map))


def retarget(clip: Clip, source: Character, target: Character, *,
             joint_map: Union[None, PathLike, Mapping[str, str]] = None, measure: bool = False,
             threads: int = 0, **options: Any) -> Tuple[Clip, dict]:
    """Carries clip, a motion of source's skeleton, onto target; returns the target's clip and a
    report.

    Options are the command's, with its defaults (see default_options()): ``match_rest``
    (False for --keep-rest), ``plant_feet`` (False for --no-plant-feet), ``root_scale`` ("auto" or
    a number), ``root_motion`` (False for --no-root-motion). ``joint_map`` is a file or a dict
    {"target joint": "source joint"} over the keyword pairing. Presets and skeleton roots are the
    characters' own (load_character).

    The report is a dict like one clip of the command's ``--report``: presets, joint pairs,
    unpaired joints, root scale; with ``measure=True`` also the bone angles with and without
    rest matching and the foot sliding (the clip is solved a second time for that).

    The clip may come from a file or from arrays (kelvara.Clip(rotations, root_translation,
    frame_time)); one that does not fit source's skeleton is an ArrayError. The GIL is released
    while the clip is solved; its frames are split over ``threads`` threads (0, as ``--threads``
    by default: every core), the result the same to the byte on any number."""
    named = CHARACTER_OPTIONS.intersection(options)
    if named:
        raise TypeError(f"retarget() takes {', '.join(sorted(named))} from its characters (load_character), "
                        "not as options")
    return _kelvara.retarget(clip, source, target, road_options(**_with_map(options, joint_map)), measure, threads)


def retarget_file(source: PathLike, output: PathLike, target: PathLike, *,
                  joint_map: Union[None, PathLike, Mapping[str, str]] = None, preset: Optional[str] = None,
                  replace_animations: bool = False, measure: bool = True, threads: int = 0,
                  **options: Any) -> dict:
    """``kelvara retarget SOURCE --target TARGET -o OUTPUT`` in this process: the same reading,
    options, defaults and bytes written (atomically: a temporary file renamed over output).
    Takes every option of the command (option_names()); ``preset`` stands for both presets as
    ``--preset`` does. The target is read and built once per set of options and kept for later
    calls in this process. ``threads`` is ``--threads`` (0: every core). Returns the clip's report
    as a dict; raises InputError or Error (and writes nothing) on failure."""
    if preset:
        options.setdefault("source_preset", preset)
        options.setdefault("target_preset", preset)
    settings = road_options(target=os.fspath(target), **_with_map(options, joint_map))
    return _kelvara.retarget_file(os.fspath(source), os.fspath(output), settings, replace_animations, measure,
                                  threads)


def _save(self: Clip, path: PathLike, character: Character, *, replace_animations: bool = False,
          animation_name: Optional[str] = None) -> None:
    """Writes the clip on character's skeleton to path, by its extension: .bvh, .glb or .gltf
    (a glTF holds the character's whole document with the clip as a new animation named
    animation_name or the clip's name; replace_animations drops the document's own). Atomic like
    the command: a reader never sees a partial file, and a failure leaves nothing."""
    self._save(os.fspath(path), character, replace_animations, animation_name or "")


Clip.save = _save


def _repr_clip(self: Clip) -> str:
    return f"<kelvara.Clip {self.name!r}: {self.frame_count} frames x {self.joint_count} joints, {self.frame_time:g} s>"


def _repr_character(self: Character) -> str:
    return f"<kelvara.Character {self.path!r}: {self.joint_count} joints, preset {self.preset}>"


Clip.__repr__ = _repr_clip
Character.__repr__ = _repr_character
Clip.__doc__ = """Local rotations of every joint per frame and the root's translation.

    Clip(rotations, root_translation, frame_time, name="clip", translations=None)

rotations: (frames, joints, 4) unit quaternions w, x, y, z (within 1e-3); root_translation:
(frames, 3); frame_time: seconds per frame; translations: optional (frames, joints, 3) local
translations of every joint. The arrays are copied once, checked (shape, finite numbers, unit
quaternions; ArrayError otherwise), and exposed again read-only without a copy."""
