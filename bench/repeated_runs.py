#!/usr/bin/python3
"""repeated_runs.py BUILD_DIR: shows how far changes between two recorded runs can be trusted.

Ten times, in turn, a run of the scripted runtime is recorded twice, and once with executions that
take 5 % longer. quilmrun-report has to find no difference between the first two, and one between the
first and the third, nine times each.
"""

import json
import subprocess
import sys
import tempfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
BUILD = Path(sys.argv[1]).resolve()
TIMES, GOAL = 10, 9
INFERENCES = 300
USUAL_US, SLOWED_US = 1000, 1050
DESCRIBED = ("input x 4 16 8 2 4\ninput task 4 8 8 1 8\ninput work 4 16 16 1 16\n"
             "output y 4 16 8 2 4\n")


def record(folder: Path, microseconds: int) -> Path:
    """A folder with the record of a run whose executions take so long."""
    (folder / "out").mkdir(parents=True)
    (folder / "model.om").write_bytes(b"model")
    (folder / "x.bin").write_bytes(bytes(8))
    (folder / "list.txt").write_text("x.bin\n" * INFERENCES)
    (folder / "script.cfg").write_text(f"{DESCRIBED}spend quilm_mdl_execute 0 {microseconds}\n")
    subprocess.run(
        [BUILD / "quilmrun-record", "-q", "-o", folder / "record.json", BUILD / "quilmrun",
         "-m", folder / "model.om", "-i", folder / "list.txt", "-j", folder / "script.cfg",
         "-o", folder / "out"],
        check=True, stdout=subprocess.DEVNULL, env={"LD_LIBRARY_PATH": str(BUILD / "scripted")})
    return folder


def differs(before: Path, after: Path) -> tuple[bool, str]:
    """Whether the report shows a difference of the medians, and its interval."""
    made = subprocess.run(
        [ROOT / "companions/quilmrun-report", after, "--compare-with", before, "--json", "-"],
        check=False, capture_output=True, text=True)
    change = json.loads(made.stdout)["changes"]["execute"]["p50"]
    return change["shown"], f"{change['low']:+.2%} to {change['high']:+.2%}"


def main() -> int:
    same = slower = 0
    for time in range(TIMES):
        with tempfile.TemporaryDirectory() as name:
            folder = Path(name)
            first, again, slowed = (record(folder / part, microseconds) for part, microseconds in
                                    (("a", USUAL_US), ("b", USUAL_US), ("c", SLOWED_US)))
            (shown, interval), (found, slowed_by) = differs(first, again), differs(first, slowed)
            same, slower = same + (not shown), slower + found
            print(f"{time + 1:2}: against itself {interval}, slowed by 5 % {slowed_by}")
    print(f"no difference shown against itself: {same} of {TIMES}, goal {GOAL}")
    print(f"difference shown when slowed by 5 %: {slower} of {TIMES}, goal {GOAL}")
    return 0 if min(same, slower) >= GOAL else 1


if __name__ == "__main__":
    sys.exit(main())
