"""What the tests of quilmrun-inputs have in common: pictures, models, and what was prepared."""

import pathlib
import shutil
import sys

import numpy as np
from PIL import Image

sys.path.append(str(pathlib.Path(__file__).resolve().parents[2]))

from companion import CompanionTest, log_text

FLOAT, HALF, INT8, INT32, UINT8 = ("<f4", 0), ("<f2", 1), ("<i1", 2), ("<i4", 3), ("<u1", 4)
RED, GREEN, BLUE, GREY = (255, 0, 0), (0, 255, 0), (0, 0, 255), (100, 100, 100)


class InputsTest(CompanionTest):
    name = "quilmrun-inputs"

    def picture(self, name, rows, **options):
        """Writes a picture of rows of pixels."""
        path = self.dir / name
        path.parent.mkdir(exist_ok=True, parents=True)
        Image.fromarray(np.array(rows, np.uint8)).save(path, **options)
        return name

    def model_log(self, shape, element_type, name="x", stride=None):
        dtype, code = element_type
        stride = stride or np.dtype(dtype).itemsize * shape[-1]
        dims = "[" + "".join(f"{dim}, " for dim in shape) + "]"
        return (name, dims, code, stride, stride * int(np.prod(shape[:-1])))

    def run_inputs(self, shape, element_type, *arguments, stride=None):
        """(status, standard output, standard error) for a model with one input."""
        self.write("log.txt", log_text([self.model_log(shape, element_type, stride=stride)]))
        return self.run_companion("--model-log", "log.txt", "-o", "p", *arguments)

    def prepare(self, shape, element_type, *arguments, stride=None):
        """The prepared arrays, file by file; what was said is in `said`."""
        shutil.rmtree(self.dir / "p", ignore_errors=True)
        status, out, errors = self.run_inputs(shape, element_type, *arguments, stride=stride)
        self.assertEqual((status, errors), (0, ""), out)
        self.said = out
        return [np.frombuffer((self.dir / "p" / line).read_bytes(), element_type[0]).tolist()
                for line in (self.dir / "p/list.txt").read_text().splitlines()]

    def refused_for(self, text, shape, element_type, *arguments):
        """Status 2 and one line that holds `text`, and nothing is written."""
        self.write("log.txt", log_text([self.model_log(shape, element_type)]))
        self.refused(text, "--model-log", "log.txt", "-o", "q", *arguments)
        self.assertFalse((self.dir / "q").exists())
