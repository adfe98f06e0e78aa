"""Reads the numbers and texts of a report's page back."""

import html
import json
import re

from companion import CompanionTest


def record(executions_us, complete=True, start_us=1795388705000000):
    """A record of executions that took so many microseconds, the first the warm-up."""
    events, at = [{"name": "process_name", "ph": "M", "pid": 1, "args": {"name": "quilmrun"}}], 0.0
    for group, duration in enumerate(executions_us):
        events += [{"name": "device memory", "ph": "C", "ts": at, "pid": 1,
                    "args": {"bytes": 1024 * (group + 1)}},
                   {"name": f"group {group}", "cat": "phase", "ph": "X", "ts": at,
                    "dur": duration + 60, "pid": 1, "tid": 1, "args": {"complete": True}},
                   {"name": "quilm_mdl_execute", "cat": "execute", "ph": "X", "ts": at + 50,
                    "dur": duration, "pid": 1, "tid": 1, "args": {"result": 0, "group": group}}]
        at += duration + 100
    return {"otherData": {"format": "quilmrun-record", "version": 1, "complete": complete,
                          "command": ["quilmrun", "-m", "digits.onnx", "-i", "a <i>list"],
                          "exit_status": 0, "start_us": start_us, "statistics": {}},
            "traceEvents": events}


class ReportTest(CompanionTest):
    """A test of pages, each in the folder of its run."""

    name = "quilmrun-report"

    def page(self, run):
        """The page without its scripts."""
        text = (self.dir / run / "report.html").read_text()
        return re.sub(r"<script[^>]*>.*?</script>", "", text, flags=re.DOTALL)

    def charts(self, run):
        """What is drawn on a page, in order."""
        text = (self.dir / run / "report.html").read_text()
        found = re.search(r'id="chart-data"[^>]*>(.*?)</script>', text, re.S)
        return json.loads(found[1]) if found else []

    def rows(self, run, section):
        """The cells of all tables of a section, row by row, as texts."""
        part = re.search(rf'<section id="{section}">.*?</section>', self.page(run), re.S)[0]
        return [[" ".join(html.unescape(re.sub(r"<[^>]*>", " ", cell)).split())
                 for cell in re.findall(r"<t[hd].*?</t[hd]>", row, re.S)]
                for row in re.findall(r"<tr.*?</tr>", part, re.S)]
