# Shared fixtures of the Python tests: the real files of Debian's assimp-testmodels, the built
# kelvara command (to compare bytes with), and a way to run it.
import os
import subprocess

import pytest

MODELS = "/usr/share/assimp/models"
WALK = f"{MODELS}/BVH/01_01.bvh"        # CMU, 31 joints, 2752 frames
JUMP = f"{MODELS}/BVH/01_03.bvh"
HUMANOID_X = f"{MODELS}/X/BCN_Epileptic.X"  # a skinned DirectX humanoid


def command_path():
    path = os.environ.get("KELVARA_COMMAND")
    if not path:
        here = os.path.dirname(os.path.abspath(__file__))
        path = os.path.join(here, "..", "..", "build", "bin", "kelvara")
    return path


def run_command(*args, check=True):
    """Runs the kelvara command; returns the completed process."""
    result = subprocess.run([command_path(), *map(str, args)], capture_output=True, text=True)
    if check and result.returncode != 0:
        raise AssertionError(f"kelvara {' '.join(map(str, args))} exited {result.returncode}: {result.stderr}")
    return result


def read_bytes(path):
    with open(path, "rb") as f:
        return f.read()


def short_bvh(path, frames):
    """A copy of the walk cut to its first frames (a real file, made small for quick tests)."""
    with open(WALK) as f:
        lines = f.read().splitlines()
    motion = next(i for i, line in enumerate(lines) if line.strip() == "MOTION")
    head = lines[: motion + 1] + [f"Frames: {frames}", lines[motion + 2]]
    body = lines[motion + 3: motion + 3 + frames]
    with open(path, "w") as f:
        f.write("\n".join(head + body) + "\n")
    return str(path)


@pytest.fixture(scope="session")
def kelvara():
    import kelvara as module

    return module


@pytest.fixture(scope="session")
def walk_character(kelvara):
    return kelvara.load_character(WALK)


@pytest.fixture(scope="session")
def humanoid(kelvara):
    return kelvara.load_character(HUMANOID_X)


@pytest.fixture(scope="session")
def walk(kelvara):
    return kelvara.load_clip(WALK)


@pytest.fixture(scope="session")
def short_clips(tmp_path_factory):
    """Four short walks of different names, for quick batches."""
    folder = tmp_path_factory.mktemp("clips")
    return [short_bvh(folder / f"walk_{n}.bvh", 40 + 10 * n) for n in range(4)]
