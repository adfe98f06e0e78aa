"""quilmrun-report on real runs: whole, in parts, damaged, side by side, and in a browser."""

import html
import json
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

import numpy as np
from PIL import Image

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import COMPANIONS
from models import floats
from pages import ReportTest, record

DIGITS = COMPANIONS.parent / "examples/digits"
NAME = "Läufe & <b>co"  # of the run's folder, where it could break a page

# Shows a page in a frame of each width and tells what a reader would miss.
HARNESS = """<!DOCTYPE html><html><body><pre id="told"></pre><script>
const told = [], widths = [400, 1600];
function show() {
  if (told.length == widths.length) {
    document.getElementById("told").textContent = "TOLD" + JSON.stringify(told) + "TOLD";
    return;
  }
  const frame = document.createElement("iframe");
  frame.style = "border: 0; height: 900px; width: " + widths[told.length] + "px";
  frame.srcdoc = PAGE;
  frame.onload = () => {
    const page = frame.contentDocument, images = [...page.images];
    told.push({width: page.documentElement.clientWidth, scroll: page.scrollingElement.scrollWidth,
               images: images.length, shown: images.filter(image => image.naturalWidth > 0).length,
               drawings: page.querySelectorAll("[data-chart]:not([hidden])").length});
    show();
  };
  document.body.append(frame);
}
show();
</script></body></html>"""


class WholePages(ReportTest):
    def make_run(self, name=NAME, factor=1):
        """A folder with everything of a run on the digits; 102 executions were recorded. The
        reference differs in inference 1, by infinity in 2, and is missing for 3."""
        folder = self.dir / name
        (folder / "out").mkdir(parents=True)
        settings = self.write(f"{name}/quilm.json", "{}")
        _, log, _ = self.run_tool("-m", DIGITS / "digits.onnx", "-i", DIGITS / "list.txt", "-j",
                                  settings, "-o", folder / "out")
        self.write(f"{name}/log.txt", log)
        shutil.copytree(folder / "out", folder / "reference")
        next((folder / "reference/1").glob("*.bin")).write_bytes(bytes(40))
        next((folder / "reference/2").glob("*.bin")).write_bytes(b"\0\0\x80\x7f" * 10)
        shutil.rmtree(folder / "reference/3")
        self.write(f"{name}/record.json", json.dumps(record(
            [9000] + [factor * (1000 + 10 * place) for place in range(101)])))
        sources = [{"inference": place, "input": "image", "file": f"{place}.bin", "bytes": 64,
                    "sha256": "", "sources": [{"path": str(self.picture()), "sha256": "",
                                               "width": 6, "height": 4}]} for place in range(20)]
        self.write(f"{name}/inputs.json", json.dumps(
            {"format": "quilmrun-inputs", "version": 1, "created": "", "command": [], "options": {},
             "model": {}, "list": "list.txt", "batch": 1, "files": sources}))
        self.run_companion(folder / "out", folder / "reference", "--log", folder / "log.txt",
                           "--inputs", folder / "inputs.json", "--json",
                           folder / "comparison.json", name="quilmrun-compare")
        return folder

    def picture(self):
        """A picture with a name that has blanks, quotes and other letters."""
        path = self.dir / 'ein "Bild" für <img>.png'
        Image.new("RGB", (6, 4), "teal").save(path)
        return path

    def test_whole_run(self):
        folder = self.make_run()
        status, said, errors = self.run_companion(folder, "--json", "figures.json")
        self.assertEqual((status, errors), (1, ""))
        self.assertIn("Fail: 20 inferences ran without an error. Output probabilities exceeds the "
                      "limits in 2 of 19 cases (", said)
        self.assertIn("1 output could not be compared, first that of inference 3: missing in", said)
        self.assertIn("p50 1.50 ms, p90 1.90 ms, p95 1.95 ms, p99 1.99 ms", said)
        figures = json.loads((self.dir / "figures.json").read_text())["run"]
        self.assertEqual((figures["verdict"], figures["inferences"], figures["missing"]),
                         ("fail", 20, []))
        self.assertEqual(figures["statistics_ms"]["warm_up"]["max"], 9)
        self.assertEqual(figures["worst_difference"], "inf")
        self.assertEqual([(cost["function"], cost["calls"]) for cost in figures["calls"]],
                         [("quilm_mdl_execute", 102)])
        self.assertEqual(figures["peak_device_memory_bytes"], 102 * 1024)
        page = (folder / "report.html").read_text()
        for word in (html.escape(NAME), "data:image/jpeg;base64,", "a &lt;i&gt;list",
                     "1 × 1 × 8 × 8", "Inference 1 · probabilities", "Mapper Temp Buffer",
                     "✗ exceeds", "✗ not compared"):
            self.assertIn(word, page)
        own = re.sub(r"<script[^>]*>.*?</script>", "", page, flags=re.DOTALL)
        for unsafe in ("<b>co", "<i>list", "<img>.png", "http:", "https:"):
            self.assertFalse(unsafe in own, unsafe)

    def test_parts(self):
        """Every part may be missing or damaged; the page says so, and how to get it."""
        folder = self.make_run("run")
        parts = {"log.txt": "quilmrun -m MODEL", "memory_data.csv": "copy it to RUN",
                 "record.json": "By the time stamps of the outputs",
                 "comparison.json": "quilmrun-compare OUT",
                 "inputs.json": "quilmrun-inputs"}
        for name, remedy in parts.items():
            content = (folder / name).read_bytes()
            cut = [] if name == "record.json" else [content[:len(content) // 20]]
            for damage in (None, b"\xff\x00[1]", *cut):
                with self.subTest(name=name, damage=damage and damage[:20]):
                    (folder / name).unlink()
                    if damage is not None:
                        (folder / name).write_bytes(damage)
                    status, _, errors = self.run_companion(folder)
                    self.assertEqual((status, errors.count("warning: ")),
                                     (int(name != "comparison.json"), int(damage is not None)))
                    self.assertIn(remedy, html.unescape((folder / "report.html").read_text()))
                (folder / name).write_bytes(content)

    def test_cut_short(self):
        """A record counts up to where it ends, and fails the run."""
        whole = json.dumps(record([1000] * 50))
        stopped = json.dumps(record([1000] * 50, complete=False))
        ended = "cut short: the run ended by a signal or a crash, after "
        for content, text in ((stopped, ended + "50 executions"),
                              (stopped[:stopped.index('"group 20"')], ended + "20 executions"),
                              (whole[:whole.index('"group 20"')], "breaks off after 20 exec")):
            self.write("run/record.json", content)
            status, said, _ = self.run_companion("run")
            self.assertEqual(status, 1)
            self.assertIn(text, said)

    def test_no_inferences(self):
        _, log, _ = self.run_tool("-m", DIGITS / "digits.onnx", "-i", "none", "-j",
                                  self.write("run/q.json", "{}"))
        self.write("run/log.txt", log)
        self.write("run/record.json", json.dumps(record([])))
        status, said, _ = self.run_companion("run")
        self.assertEqual((status, said.split("\n")[0]),
                         (0, "No verdict: The model was loaded, and no inference was run."))

    def test_worst_case_beside_its_own_reference(self):
        """A reference array holds all inferences; each is drawn beside its own part of it."""
        for run, values in enumerate([[9, 9, 9, 9], [1.5, 2, 3, 4]]):
            self.write(f"run/{run}/y.0.{run + 10**15}.bin", floats(*values))
        np.save(self.dir / "reference.npy", np.array([[9, 9, 9, 9], [1, 2, 3, 4]], "f8"))
        self.run_companion("run", "reference.npy", "--json", "run/comparison.json",
                           name="quilmrun-compare")
        self.assertEqual(self.run_companion("run")[0], 1)
        drawn = [[y for _, y, *_ in series["points"]] for chart in self.charts("run")
                 for series in chart["series"] if len(series["points"]) == 4]
        self.assertIn([1.5, 2, 3, 4], drawn)
        self.assertIn([1, 2, 3, 4], drawn)

    def test_side_by_side(self):
        before, after = self.make_run("before", factor=2), self.make_run("after")
        _, said, _ = self.run_companion(after, "--compare-with", before)
        self.assertIn("p50 of after against before: −50.0 %", said)
        log = (before / "log.txt").read_text()
        (before / "log.txt").write_text(log.replace("[1, 10, ]", "[1, 12, ]"))
        _, _, errors = self.run_companion(after, "--compare-with", before)
        self.assertIn("warning: The two runs are of models with different outputs", errors)
        self.assertIn("models with different outputs: probabilities float 1 × 12 in before, "
                      "probabilities float 1 × 10 in after", (after / "report.html").read_text())

    def test_manual(self):
        self.check_manual()

    def test_misuse(self):
        (self.dir / "empty").mkdir()
        self.write("run/record.json", json.dumps(record([10])))
        self.write("mine.html", "<html>not a report</html>")
        for arguments, text in (
                ((), "name the folder of a run"),
                (("nowhere",), "nowhere: no such folder; name the one that holds log.txt"),
                (("empty",), "empty is empty; a run's folder has some of log.txt"),
                (("run", "--worst", "-1"), "--worst takes a number"),
                (("run", "--compare-with", "nowhere"), "nowhere: no such folder"),
                (("run", "--log", "none"), "cannot read the log none"),
                (("run", "-o", "mine.html"), "mine.html exists, and quilmrun-report did not"),
                (("run", "-o", "no/page.html"), "cannot write no/page.html")):
            with self.subTest(arguments=arguments):
                self.refused(text, *arguments)
        self.assertEqual((self.dir / "mine.html").read_text(), "<html>not a report</html>")

    def test_in_a_browser(self):
        browser = shutil.which("chromium")
        if not browser:
            print(f"skipped: {self.id()}: chromium is not installed")
            self.skipTest("chromium is not installed")
        before, after = self.make_run("before"), self.make_run(NAME)
        self.run_companion(after, "--compare-with", before)
        page = json.dumps((after / "report.html").read_text()).replace("</", "<\\/")
        self.write("harness.html", HARNESS.replace("PAGE", page))
        result = subprocess.run(
            [browser, "--headless", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync",
             "--enable-logging=stderr", "--virtual-time-budget=10000", "--disable-dev-shm-usage",
             "--no-sandbox",  # which neither root nor every container has
             f"--user-data-dir={self.dir}/profile", "--dump-dom",
             (self.dir / "harness.html").as_uri()],
            capture_output=True, check=False, timeout=110, text=True)
        self.assertEqual([line for line in result.stderr.splitlines() if "CONSOLE" in line], [])
        told = json.loads(re.search("TOLD(.*)TOLD</pre>", result.stdout)[1])
        self.assertEqual([(view["scroll"], view["images"], view["shown"]) for view in told],
                         [(view["width"], 3, 3) for view in told])
        self.assertEqual([view["width"] // 100 for view in told], [3, 15])  # less a scroll bar
        self.assertEqual([view["drawings"] for view in told], [6, 6])


if __name__ == "__main__":
    unittest.main()
