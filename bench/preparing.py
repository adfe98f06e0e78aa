"""Prepares pictures with quilmrun-inputs and, as the floor, with what its users would write: two
processes of Python that decode, scale and normalise with Pillow and numpy. Both leave the same
bytes."""

import multiprocessing
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable

import numpy
from PIL import Image, ImageOps

ROOT = Path(__file__).resolve().parent.parent
SIDE = 224
MEAN, STD = ((123.675, 116.28, 103.53), (58.395, 57.12, 57.375))
LOG = f"""[INFO]  Input index: 0, name: x
[INFO]  Shape: [1, 3, {SIDE}, {SIDE}, ]
[INFO]  DataType: 0, stride: {4 * SIDE}, format: 0, dataSizeWithStride: {12 * SIDE * SIDE}
[INFO]  Input index: 1, name: task_buffer
[INFO]  Shape: [1024, ]
[INFO]  DataType: 4, stride: 1024, format: 0, dataSizeWithStride: 1024
[INFO]  Input index: 2, name: work_buffer
[INFO]  Shape: [4096, ]
[INFO]  DataType: 4, stride: 4096, format: 0, dataSizeWithStride: 4096
"""


def make_pictures(folder: Path, count: int) -> None:
    """JPEG pictures of 500 x 375, enlarged from the example's photographs."""
    folder.mkdir()
    photographs = sorted((ROOT / "examples/report/photographs").glob("*.jpg"))
    for at in range(count):
        with Image.open(photographs[at % len(photographs)]) as image:
            noise = numpy.random.default_rng(at).integers(-8, 9, (375, 500, 3))
            pixels = numpy.asarray(image.convert("RGB").resize((500, 375))) + noise
        made = Image.fromarray(numpy.clip(pixels, 0, 255).astype(numpy.uint8))
        made.save(folder / f"{at:05}.jpg")


def prepare_one(paths: tuple[Path, Path]) -> None:
    """The floor's work on one picture."""
    source, target = paths
    with Image.open(source) as image:
        upright = ImageOps.exif_transpose(image).convert("RGB")
    sized = ImageOps.fit(upright, (SIDE, SIDE), Image.Resampling.BILINEAR)
    values = (numpy.asarray(sized, numpy.float64) - MEAN) / STD
    values.transpose(2, 0, 1).astype(numpy.float32).tofile(target)


def pool_seconds(pictures: Path, target: Path) -> float:
    """The floor's time."""
    target.mkdir()
    pairs = [(path, target / f"{path.stem}.bin") for path in sorted(pictures.iterdir())]
    start = time.perf_counter()
    with multiprocessing.Pool(2) as pool:
        pool.map(prepare_one, pairs)
    return time.perf_counter() - start


def companion(pictures: Path, target: Path, scratch: Path) -> tuple[float, int]:
    """(seconds, peak memory in bytes) of quilmrun-inputs."""
    log = scratch / "model.txt"
    log.write_text(LOG)
    start = time.perf_counter()
    taken = subprocess.run(
        [sys.executable, ROOT / "bench/measured_run.py", target,
         ROOT / "companions/quilmrun-inputs", "--model-log", log, "--mean", ",".join(map(str, MEAN)), "--std", ",".join(map(str, STD)),
         pictures, "-o"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return time.perf_counter() - start, int(taken.split()[2]) * 1024


def check_same(one: Path, other: Path) -> None:
    """Fails unless both made the same numbers, but for the last bit."""
    for path in one.iterdir():
        found, = other.glob(f"*_{path.stem}.bin")
        numpy.testing.assert_allclose(numpy.fromfile(path, numpy.float32),
                                      numpy.fromfile(found, numpy.float32), rtol=1e-6)


def measure(scratch: Path, add: Callable[..., None], brief: bool) -> None:
    """Adds the lines of the table; `add` takes what, floor, figure, unit and goal."""
    few, many = (20, 40) if brief else (500, 5000)
    for count in (few, many):
        make_pictures(scratch / f"jpeg{count}", count)
    floor = pool_seconds(scratch / f"jpeg{many}", scratch / "pool")
    for path in sorted((scratch / "pool").iterdir())[20:]:
        path.unlink()  # 3 GB in memory
    seconds, memory = companion(scratch / f"jpeg{many}", scratch / "prepared", scratch)
    check_same(scratch / "pool", scratch / "prepared")
    _, small = companion(scratch / f"jpeg{few}", scratch / "prepared-few", scratch)
    add(f"quilmrun-inputs, {many:,} JPEG pictures | two processes with Pillow", floor, seconds, "s",
        1)
    add(f"its memory at {many:,} pictures | at {few:,}", small / 2**20, memory / 2**20, "MiB", 1.1)
