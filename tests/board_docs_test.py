"""What docs/board.md and the manual quote is what the tool and the loader say."""

import os
import pathlib
import re
import shutil
import subprocess
import unittest

import tool

SOURCE = pathlib.Path(__file__).resolve().parents[1]
BOARD = (SOURCE / "docs/board.md").read_text()
FOLDERS = "app", "input", "model", "output", "profile", "runtime"


def printed_texts():
    """All string literals of the tool, printf's conversions as …"""
    code = "".join(path.read_text() for folder in FOLDERS
                   for path in (SOURCE / folder).glob("*.cpp"))
    literals = re.findall(r'"((?:[^"\\\n]|\\.)*)"', re.sub(r'"\s+"', "", code))
    return {re.sub(r"%[.\d]*[a-z]+", "…", literal) for literal in literals}


class Quoted(tool.ToolTest):
    def test_messages_of_the_tool(self):
        messages = re.findall(r"`(?:\[(?:ERROR|WARN)\] +|(?=/proc/umap/media-mem open))([^`]*)`",
                              BOARD.partition("| message |")[2])
        self.assertGreater(len(messages), 10)
        for message in messages:
            self.assertIn(message, printed_texts())

    def test_figures_of_the_report(self):
        table = BOARD.partition("| in the summary |")[2].partition("\n\n")[0]
        rows = re.findall(r"^\| ([\w() ]*) \| (\w[\w ]+) \|", table, re.M)
        self.assertEqual([column for column, _ in rows if column],
                         tool.CSV_HEADER.strip().split(","))
        summary = " ".join(printed_texts())
        for _, line in rows:
            self.assertRegex(summary, line + ": +…")

    def start(self):
        """What the loader says to the native executable in the test's directory."""
        shutil.copy(os.environ["QUILMRUN_NATIVE"], self.dir / "quilmrun")
        result = subprocess.run([self.dir / "quilmrun"], check=False, capture_output=True, text=True)
        self.assertEqual(result.returncode, 127)
        return result.stderr

    def test_messages_of_the_loader(self):
        missing, lookup = (re.search(rf"^\| `({start}[^`]*)`", BOARD, re.M).group(1)
                           for start in ("error while loading", "symbol lookup error"))
        self.assertIn(missing, self.start())
        subprocess.run(["cc", "-shared", "-o", self.dir / "libquilm.so", "-x", "c", "/dev/null"],
                       check=True)
        self.assertRegex(self.start(), re.escape(lookup).replace("…", ".*"))

    def test_options_of_the_manual(self):
        options = (SOURCE / "app/options.cpp").read_text()
        known = re.search(r'kOptionString\[\] = "-?([\w:]+)"', options).group(1).replace(":", "")
        manual = (SOURCE / "docs/quilmrun.1.in").read_text()
        for pattern in (r"^(?:\.Op |\.)Fl (\w)", r"^\.It Fl (\w)"):
            self.assertEqual(sorted(re.findall(pattern, manual, re.M)), sorted(known))


if __name__ == "__main__":
    unittest.main()
