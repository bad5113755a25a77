"""Batch retargeting on a Dask cluster: one task per clip.

    from kelvara.distributed import retarget_many
    result = retarget_many(["01_01.bvh", "01_03.bvh"], "hero.glb", "out/")   # a local cluster
    print(result.table())

or from a shell, against a running scheduler (``dask scheduler``, ``dask worker HOST:PORT``):

    python3 -m kelvara.distributed --scheduler tcp://HOST:PORT a.bvh b.bvh --target hero.glb -o out/

Each task runs kelvara.retarget_file on a worker: the same code and bytes as ``kelvara retarget``.
A worker reads and builds the target once for all its clips. Every output is written atomically
(a temporary file renamed over it) and is the same bytes whichever worker writes it, so a task
that Dask runs again after losing a worker only writes the same file again. A clip that fails is
reported in the result and the others go on. Paths are made absolute before the tasks go out and must mean the same files on every worker
(a shared folder).
"""

from __future__ import annotations

import argparse
import json
import os
import re
import sys
import tempfile
import time
import uuid
from dataclasses import dataclass, field
from typing import Any, Iterable, List, Mapping, Optional, Union

import kelvara


@dataclass
class BatchResult:
    """Per-clip reports in the order of the sources (dicts like the command's ``--report``
    clips: "status" is "ok" or "failed", a failed one has "error"), and a summary."""

    clips: List[dict] = field(default_factory=list)
    seconds: float = 0.0

    @property
    def failed(self) -> List[dict]:
        return [c for c in self.clips if c.get("status") != "ok"]

    @property
    def status(self) -> int:
        """The command's exit status for the batch: 0 all written, 2 a clip had bad input, 1
        another failure."""
        if not self.failed:
            return 0
        return 2 if any(c.get("badInput") for c in self.failed) else 1

    def summary(self) -> dict:
        frames = sum(c.get("frames", 0) for c in self.clips if c.get("status") == "ok")
        return {"clips": len(self.clips), "failed": len(self.failed), "frames": frames, "seconds": self.seconds}

    def to_json(self) -> dict:
        """The command's report layout: {"clips": [...], "summary": {...}}."""
        return {"clips": self.clips, "summary": self.summary()}

    def table(self) -> str:
        """One line per clip (what was written, or why not) and the summary line."""
        lines = []
        for c in self.clips:
            if c.get("status") == "ok":
                lines.append(f"ok      {c['source']} -> {c['output']} ({c.get('frames', 0)} frames)")
            else:
                lines.append(f"failed  {c['source']}: {c.get('error', '')}")
        s = self.summary()
        lines.append(f"summary: {s['clips']} clips, {s['clips'] - s['failed']} written, {s['failed']} failed; "
                     f"{s['frames']} frames in {s['seconds']:.2f} s")
        return "\n".join(lines)


def _retarget_task(source: str, output: str, target: str, options: dict, replace_animations: bool,
                   measure: bool) -> dict:
    """Runs on a worker: one clip, its failure returned as a report rather than raised, so
    that Dask neither retries nor stops anything for a bad clip."""
    try:
        os.makedirs(os.path.dirname(os.path.abspath(output)), exist_ok=True)
        # One clip per worker thread: the workers already share out the cores.
        report = kelvara.retarget_file(source, output, target, replace_animations=replace_animations,
                                       measure=measure, threads=1, **options)
        report["status"] = "ok"
        return report
    except kelvara.Error as error:
        return {"source": source, "output": output, "status": "failed", "error": str(error),
                "badInput": isinstance(error, kelvara.InputError)}


def _make_client(client):
    if client is not None:
        return client, None
    from dask.distributed import Client, LocalCluster

    cluster = LocalCluster(n_workers=os.cpu_count() or 1, threads_per_worker=1, processes=True, host="127.0.0.1",
                           dashboard_address=None)
    return Client(cluster), cluster


def _write_atomically(path: str, text: str) -> None:
    folder = os.path.dirname(os.path.abspath(path))
    fd, temporary = tempfile.mkstemp(dir=folder, prefix=".kelvara-report-")
    try:
        with os.fdopen(fd, "w") as f:
            f.write(text)
        os.replace(temporary, path)
    except BaseException:
        if os.path.exists(temporary):
            os.unlink(temporary)
        raise


def retarget_many(sources: Iterable[Union[str, "os.PathLike[str]"]], target: Union[str, "os.PathLike[str]"],
                  out_dir: Union[str, "os.PathLike[str]"], client: Any = None, *,
                  output_format: Optional[str] = None, replace_animations: bool = False, measure: bool = True,
                  joint_map: Union[None, str, "os.PathLike[str]", Mapping[str, str]] = None,
                  preset: Optional[str] = None, report: Union[None, str, "os.PathLike[str]"] = None,
                  **options: Any) -> BatchResult:
    """Retargets every source onto target, one Dask task per clip, into
    ``out_dir/<source name>.<format>`` (format: output_format, else the target's own when it is
    bvh, glb or gltf, else glb; the command's batch rule).

    client: a dask.distributed Client; None starts a local cluster of one worker process per
    core for this call and shuts it down afterwards. Options are those of kelvara.retarget_file
    (the command's, with its defaults). Options and output names are checked before any task is
    submitted (InputError or TypeError). Returns a BatchResult; ``report`` also writes it as JSON.
    """
    # Absolute, since a worker's current folder is its own.
    sources = [os.path.abspath(os.fspath(s)) for s in sources]
    target = os.path.abspath(os.fspath(target))
    out_dir = os.path.abspath(os.fspath(out_dir))
    if preset:
        options.setdefault("source_preset", preset)
        options.setdefault("target_preset", preset)
    if isinstance(joint_map, Mapping):
        options["map_text"] = json.dumps(dict(joint_map))
    elif joint_map is not None:
        options["map"] = os.path.abspath(os.fspath(joint_map))
    for name in ("map", "source_character"):
        if options.get(name):
            options[name] = os.path.abspath(os.fspath(options[name]))
    kelvara.road_options(target=target, **options)  # unknown names and bad values fail here
    outputs = [kelvara._kelvara.batch_output_path(out_dir, s, output_format or "", target) for s in sources]
    seen = {}
    for s, o in zip(sources, outputs):
        if o in seen:
            raise kelvara.InputError(f"expected sources of distinct names, found {seen[o]} and {s} both writing {o}")
        seen[o] = s
    os.makedirs(out_dir, exist_ok=True)

    start = time.monotonic()
    client, cluster = _make_client(client)
    try:
        batch = uuid.uuid4().hex[:8]
        futures = [
            client.submit(_retarget_task, s, o, target, options, replace_animations, measure,
                          key=f"kelvara-retarget-{batch}-{i}", pure=False)
            for i, (s, o) in enumerate(zip(sources, outputs))
        ]
        clips = []
        for s, o, future in zip(sources, outputs, futures):
            try:
                clips.append(future.result())
            except Exception as error:  # the task itself was lost beyond Dask's retries
                clips.append({"source": s, "output": o, "status": "failed",
                              "error": f"{type(error).__name__}: {error}", "badInput": False})
    finally:
        if cluster is not None:
            client.close()
            cluster.close()
    result = BatchResult(clips=clips, seconds=time.monotonic() - start)
    if report is not None:
        _write_atomically(os.fspath(report), json.dumps(result.to_json(), indent=2) + "\n")
    return result


def _option_flag(name: str) -> str:
    return "--" + name.replace("_", "-")


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="python3 -m kelvara.distributed",
        description="Retarget SOURCES onto TARGET on a Dask cluster, one task per clip, into OUTDIR; the "
                    "options are kelvara retarget's.")
    parser.add_argument("sources", nargs="+", metavar="SOURCE")
    parser.add_argument("--scheduler", help="address of a running scheduler (tcp://HOST:PORT); default: a local "
                                            "cluster of one worker process per core")
    parser.add_argument("-o", "--output", required=True, metavar="OUTDIR")
    parser.add_argument("--output-format", choices=["bvh", "glb", "gltf"])
    parser.add_argument("--replace-animations", action="store_true")
    parser.add_argument("--preset", help="keyword preset for both characters")
    parser.add_argument("--report", metavar="REPORT.json", help="the per-clip reports as JSON")
    parser.add_argument("-q", "--quiet", action="store_true", help="print failures and the summary only")
    # Every option of the road with the command's flag, which its text starts with: a boolean's
    # flag turns it from its default, any other option takes a value.
    defaults = kelvara.default_options()
    for name in kelvara.option_names():
        if name == "map_text":
            continue
        value = defaults[name]
        doc = getattr(kelvara.RoadOptions, name).__doc__ or ""
        flag = re.match(r"^(--[\w-]+): ", doc)
        text = doc[flag.end():] if flag else doc
        text = text.replace("%", "%%")
        if isinstance(value, bool):
            parser.add_argument(flag.group(1) if flag else _option_flag(name), dest=name, default=None,
                                action="store_false" if value else "store_true", help=text)
        else:
            parser.add_argument(_option_flag(name), dest=name, default=None, required=name == "target",
                                help=text + (f" (default: {value})" if value != "" else ""))
    return parser


def main(argv: Optional[List[str]] = None) -> int:
    args = _parser().parse_args(argv)
    options = {name: getattr(args, name) for name in kelvara.option_names()
               if name != "map_text" and getattr(args, name) is not None}
    target = options.pop("target")
    client = None
    if args.scheduler:
        from dask.distributed import Client

        client = Client(args.scheduler)
    try:
        result = retarget_many(args.sources, target, args.output, client, output_format=args.output_format,
                               replace_animations=args.replace_animations, preset=args.preset,
                               report=args.report, **options)
    except kelvara.InputError as error:
        print(f"kelvara: {error}", file=sys.stderr)
        return 2
    except kelvara.Error as error:
        print(f"kelvara: {error}", file=sys.stderr)
        return 1
    finally:
        if client is not None:
            client.close()
    text = result.table()
    if args.quiet:
        text = "\n".join(line for line in text.splitlines() if not line.startswith("ok "))
    print(text)
    return result.status


if __name__ == "__main__":
    sys.exit(main())
