"""Outputs as quilmrun writes them, for tests of quilmrun-compare."""

import json
import pathlib
import sys

import numpy as np

sys.path.append(str(pathlib.Path(__file__).parents[2]))

from companion import CompanionTest

STAMP = 1_795_000_000_000_000


def as_written(values, kind):
    """What quilmrun writes of values: half floats and 32-bit integers as patterns."""
    if kind == "half":
        return np.float16(values).view(np.uint16).astype("<f4").tobytes()
    if kind == "int32":
        return np.int32(values).tobytes()
    return np.array(values, "<f4").tobytes()


def record(code):
    """record.json of a model with one output of a type."""
    return json.dumps({
        "displayTimeUnit": "ms", "otherData": {"format": "quilmrun-record", "version": 1,
                                               "complete": True, "statistics": {}},
        "traceEvents": [{"name": "quilm_mdl_get_output_data_type", "cat": "model", "ph": "X",
                         "ts": 1, "dur": 1, "pid": 1, "tid": 1, "args": {"result": code}}]})


class CompareTest(CompanionTest):
    name = "quilmrun-compare"

    def outputs_of(self, folder, *runs, stamp=STAMP, kind="float"):
        """Writes {output: values} of each run as quilmrun does; the key may be NAME.NUMBER."""
        for index, outputs in enumerate(runs):
            for name, values in outputs.items():
                stamp += 100
                name = name if "." in name else f"{name}.0"
                self.write(f"{folder}/{index}/{name}.{stamp}.bin", as_written(values, kind))

    def compare(self, *options, status=0, out="a", reference="b"):
        """comparison.json of two folders."""
        found, output, errors = self.run_companion(out, reference, "--json", "-", *options)
        self.assertEqual((found, errors), (status, ""), output)
        return json.loads(output)
