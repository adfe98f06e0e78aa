"""What a page of a long recorded run costs, against its goals."""

import os
import shutil
import subprocess
import time
from pathlib import Path
from typing import Callable

ROOT = Path(__file__).resolve().parent.parent
MIB = 2**20
Add = Callable[..., None]


def measure(build: Path, scratch: Path, add: Add, brief: bool) -> None:
    """Records the digits, and makes their page: time, memory and size."""
    inferences = 100 if brief else 100_000
    run = record_digits(build, scratch / "long", inferences)
    command = [str(build / "bench/peak"), "/usr/bin/python3", str(ROOT / "companions/quilmrun-report"),
               str(run)]
    start = time.perf_counter()
    result = subprocess.run(command, capture_output=True, check=True)
    what = f"quilmrun-report of {inferences:,} inferences"
    add(f"{what} | 15 s", 15_000, (time.perf_counter() - start) * 1000, "ms", 1)
    add(f"{what}, peak memory | 300 MiB", 300, int(result.stderr.split()[-1]) / MIB, "MiB", 1)
    add(f"{what}, the page | 1 MiB", 1, (run / "report.html").stat().st_size / MIB, "MiB", 1)
    add(f"record.json of {inferences:,} digits, each | 2,000 bytes", 2000,
        (run / "record.json").stat().st_size / inferences, "B", 1)
    shutil.rmtree(run)


def record_digits(build: Path, folder: Path, inferences: int) -> Path:
    """The folder of a recorded run: record, log and memory report, without its outputs."""
    digits = ROOT / "examples/digits"
    shutil.copytree(digits / "images", folder / "images")
    shutil.copy(digits / "quilm.json", folder)
    names = (digits / "list.txt").read_text().splitlines()
    (folder / "list.txt").write_text("".join(names[at % len(names)] + "\n"
                                             for at in range(inferences)))
    outputs = folder.parent / "long outputs"
    outputs.mkdir()
    with open(folder / "log.txt", "wb") as log:
        subprocess.run(
            [build / "quilmrun-record", "-q", "-o", folder / "record.json", build / "quilmrun",
             "-m", digits / "digits.onnx", "-i", folder / "list.txt", "-j", folder / "quilm.json",
             "-o", outputs], check=True, stdout=log, env=os.environ)
    shutil.rmtree(outputs)
    return folder
