"""Which output files in a directory are those of the run that is meant."""

import pathlib
import sys
import unittest

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import log_text
from tool import ToolTest

from quilmrun_tools.artifacts.output_folder import read_output_folder
from quilmrun_tools.artifacts.record import Distribution, Record
from quilmrun_tools.artifacts.run_log import parse_log
from quilmrun_tools.common.errors import Unreadable

NOW, BOOT = 1_795_000_000_000_000, 1_000_000  # microseconds: with the right clock, and without one
SECOND = 1_000_000
OUTPUTS = [("y", "[1, ]", 0, 4, 4), ("z", "[1, ]", 0, 4, 4)]


def log(executed, outputs=("y",), end="execute sample success", planned=0):
    """The log of a run with so many inferences."""
    return parse_log(log_text([], [row for row in OUTPUTS if row[0] in outputs], executed)
                     + f"[INFO]  Model Iters : {planned}\n" + f"[INFO]  {end}\n")


def record(start_us, seconds, inferences):
    return Record(pathlib.Path("r"), start_us=start_us, span_ms=1000.0 * seconds,
                  statistics={"inference": Distribution(inferences)})


class Selection(ToolTest):
    def run_of(self, numbers, stamp, names=("y",), step=SECOND):
        """Writes the outputs of inferences, one a step."""
        for at, run in enumerate(numbers):
            for place, name in enumerate(names):
                for kind in ("bin", "float"):
                    self.write(f"a/{run}/{name}.0.{stamp + at * step + place}.{kind}", b"1234")

    def chosen(self, *arguments, **options):
        """{inference: [(output, stamp)]} of what counts, and how many are left out."""
        folder = read_output_folder(str(self.dir / "a"), *arguments, **options)
        found = {run: [(output.name, output.timestamp_us) for output in folder.outputs_of(run)]
                 for run in folder.runs}
        self.assertEqual(len(folder.left_out_names), folder.left_out)
        return found, folder.left_out

    def refused(self, text, *arguments):
        with self.assertRaises(Unreadable) as raised:
            self.chosen(*arguments)
        self.assertIn(text, str(raised.exception))
        self.assertNotIn("\n", str(raised.exception))

    def test_one_run(self):
        """Whatever the clock did, outputs that are all there once are the run."""
        self.run_of(range(5), NOW)
        self.run_of(range(5, 12), BOOT)
        for known in (None, log(12), log(0)):
            found, left_out = self.chosen(known)
            self.assertEqual((sorted(found), left_out), ([*range(12)], 0))
        self.assertEqual(found[0], [("y", NOW)])
        self.assertEqual(found[5], [("y", BOOT)])
        self.refused("12 inferences, and the log the log tells of 11", log(11))
        self.refused("tells of 3", log(3, end="x"))
        self.assertEqual(len(self.chosen(log(11, end="[ERROR] x"))[0]), 11)  # it broke off in 12
        self.assertEqual(read_output_folder(str(self.dir / "a"), log(13, planned=20)).expected, 20)

    def test_an_older_run_with_a_better_clock(self):
        self.run_of(range(4), NOW)
        self.run_of(range(4), BOOT)
        for known in (None, log(4), log(3), log(0)):
            self.refused("of several runs of quilmrun, and", known)
        self.refused("--newest", log(4), record(NOW - 3600 * SECOND, 7200 * 2, 9))
        for start, stamp in ((NOW, NOW), (BOOT, BOOT)):
            found, left_out = self.chosen(log(4), record(start, 4, 4))
            self.assertEqual((found[0], left_out), ([("y", stamp)], 4))
        self.assertEqual(self.chosen(newest=True)[0][3], [("y", NOW + 3 * SECOND)])

    def test_the_number_of_inferences_tells(self):
        self.run_of(range(10), NOW)
        self.run_of(range(4), BOOT)
        self.assertEqual(self.chosen(log(4))[0][3], [("y", BOOT + 3 * SECOND)])
        found, left_out = self.chosen(log(10))
        self.assertEqual((found[9], left_out), ([("y", NOW + 9 * SECOND)], 4))
        self.refused("its log and record do not tell", log(5))
        self.refused("its log and record do not tell", log(10, outputs=("z",)))
        self.assertEqual(len(self.chosen(newest=True)[0]), 10)

    def test_a_clock_that_is_set_within_a_run(self):
        """The second run begins before the clock is set, so its halves have the first between."""
        for before in (3, 5, 6):
            with self.subTest(before=before):
                self.run_of(range(5), NOW)
                self.run_of(range(before), BOOT)
                self.run_of(range(before, 10), NOW + 3600 * SECOND)
                self.refused("of several runs", log(10))
                self.refused("of several runs", log(10), record(BOOT, 10, 10))
                self.tearDownRun()

    def tearDownRun(self):
        for path in (self.dir / "a").rglob("*.*"):
            path.unlink()

    def test_runs_of_one_inference(self):
        for at in range(3):
            self.run_of([0], NOW + at * SECOND)
        self.refused("of several runs", log(1))
        found, left_out = self.chosen(log(1), newest=True)
        self.assertEqual((found, left_out), ({0: [("y", NOW + 2 * SECOND)]}, 2))

    def test_other_outputs_and_missing_ones(self):
        self.run_of(range(6), BOOT, "z")
        self.run_of(range(3), NOW)
        self.refused("neither a log nor a record tells")
        found, left_out = self.chosen(log(3))
        self.assertEqual((sorted(found), left_out), ([0, 1, 2], 6))
        self.tearDownRun()
        self.run_of(range(6), NOW, "yz")
        next((self.dir / "a/2").glob("y.*.bin")).unlink()
        folder = read_output_folder(str(self.dir / "a"), log(6, "yz"))
        self.assertEqual((folder.incomplete_runs(), folder.keys()), ([2], [("y", 0), ("z", 0)]))
        for path in (self.dir / "a/2").glob("z.*"):
            path.unlink()
        found, _ = self.chosen(log(6, "yz"))
        self.assertEqual([len(outputs) for outputs in found.values()], [2, 2, 1, 2, 2, 2])
        self.assertEqual(folder.stamps()[0], (NOW, NOW + 1))

    def test_what_is_no_output(self):
        self.write("a/007/y.0.1.bin", b"")
        self.write("a/1/y.0.1.txt", b"")
        self.write("a/2", b"")
        self.refused("name the directory that quilmrun was given")
        self.write("a/y.0.1.bin", b"")
        self.refused("it is the directory of one inference")
        self.write("a/3/y.0.05.bin", b"")
        self.write("a/3/a.b.2.5.bin", b"")
        self.assertEqual(self.chosen()[0], {3: [("a.b", 5)]})
        with self.assertRaisesRegex(Unreadable, "cannot read .*none: No such file"):
            read_output_folder(str(self.dir / "none"))


if __name__ == "__main__":
    unittest.main()
