#!/usr/bin/python3
"""Runs ONNX's own backend test cases through the quilmrun executable.

    conformance.py QUILMRUN_EXECUTABLE [DATA_DIR]

A case is right when the numbers in the output files are those that ONNX expects, refused when the
tool cannot express it or the host runtime explains that it does not run it, and wrong otherwise.
Exits with 1 when a case is wrong or fewer than RIGHT_FLOOR are right.
"""

import collections
import concurrent.futures
import glob
import os
import re
import subprocess
import sys
import tempfile

import numpy as np
import onnx
from onnx import numpy_helper

DATA_DIR = "/usr/share/libonnx-testdata/data"
RIGHT_FLOOR = 445
AT_ONCE = 2
TIMEOUT_SECONDS = 20
SANITIZER_REPORT = re.compile(r"AddressSanitizer|LeakSanitizer|runtime error:")
EXPLANATION = re.compile(r"^host runtime: (.*)$", re.MULTILINE)
QUOTED_OR_NUMBER = re.compile(r'"[^"]*"|\d+')
FLOAT16, INT32 = onnx.TensorProto.FLOAT16, onnx.TensorProto.INT32
TYPES_WITH_A_CODE = {
    onnx.TensorProto.FLOAT, FLOAT16, onnx.TensorProto.INT8, INT32, onnx.TensorProto.UINT8,
    onnx.TensorProto.INT16, onnx.TensorProto.UINT16
}

Outcome = collections.namedtuple("Outcome", "verdict reason")


def refused(reason):
    return Outcome("refused", reason)


def wrong(reason):
    return Outcome("wrong", reason)


def data_inputs(graph):
    constants = {tensor.name for tensor in graph.initializer}
    return [value for value in graph.input if value.name not in constants]


def inexpressible(graph):
    """Why no input and list file can carry the case, or None."""
    if not data_inputs(graph):
        return "not expressible: no inputs"
    for value in data_inputs(graph) + list(graph.output):
        kind = value.type.WhichOneof("value")
        if kind != "tensor_type":
            return f"not expressible: {kind}"
        tensor = value.type.tensor_type
        if tensor.elem_type not in TYPES_WITH_A_CODE:
            return "not expressible: element type " + onnx.TensorProto.DataType.Name(
                tensor.elem_type)
        if any(dim.HasField("dim_value") and dim.dim_value == 0 for dim in tensor.shape.dim):
            return "not expressible: empty tensor"
    return None


def read_tensor(path):
    tensor = onnx.TensorProto()
    with open(path, "rb") as file:
        tensor.ParseFromString(file.read())
    return numpy_helper.to_array(tensor)


def write_case(case, graph, folder):
    """The list file with one line per input, beside the raw inputs."""
    names = []
    for index in range(len(data_inputs(graph))):
        names.append(f"input_{index}.bin")
        array = read_tensor(f"{case}/test_data_set_0/input_{index}.pb")
        if not np.little_endian:
            array = array.byteswap()
        with open(os.path.join(folder, names[-1]), "wb") as file:
            file.write(np.ascontiguousarray(array).tobytes())
    with open(os.path.join(folder, "list.txt"), "w", encoding="ascii") as file:
        file.write("".join(name + "\n" for name in names))
    with open(os.path.join(folder, "settings.json"), "w", encoding="ascii") as file:
        file.write("{}")
    os.mkdir(os.path.join(folder, "out"))


def decode(path, element_type, expected):
    """The numbers in one output file, in the type of the expected ones."""
    dumped = np.fromfile(path, dtype="<f4")
    if element_type == FLOAT16:
        return dumped.astype(np.uint16).view(np.float16)
    if element_type == INT32:
        return dumped.view("<i4")
    return dumped.astype(expected.dtype)


def agree(actual, expected):
    if actual.size != expected.size:
        return False
    actual = actual.reshape(expected.shape)
    if expected.dtype == np.float32:
        return np.allclose(actual, expected, rtol=1e-3, atol=1e-5, equal_nan=True)
    if expected.dtype == np.float16:
        return np.allclose(actual.astype(np.float32), expected.astype(np.float32), rtol=1e-2,
                           atol=1e-3, equal_nan=True)
    return np.array_equal(actual, expected)


def stamp(path):
    return int(path.rsplit(".", 2)[1])


def compare(case, graph, folder):
    files = sorted(glob.glob(glob.escape(folder) + "/out/0/*.bin"), key=stamp)
    if len(files) != len(graph.output):
        return wrong(f"{len(files)} output files for {len(graph.output)} outputs")
    for index, (path, output) in enumerate(zip(files, graph.output)):
        expected = read_tensor(f"{case}/test_data_set_0/output_{index}.pb")
        name = re.sub(r"[./\\]", "_", output.name)
        if not os.path.basename(path).startswith(name + "."):
            return wrong(f"output file {os.path.basename(path)} instead of one of {name}")
        if not agree(decode(path, output.type.tensor_type.elem_type, expected), expected):
            return wrong(f"numbers of output {output.name}")
    return Outcome("right", "")


def judge(process, case, graph, folder):
    if process.returncode < 0 or process.returncode >= 128:
        return wrong(f"ended by signal or abort ({process.returncode})")
    if SANITIZER_REPORT.search(process.stderr):
        return wrong("sanitizer report")
    if process.returncode == 0:
        return compare(case, graph, folder)
    explained = EXPLANATION.search(process.stderr)
    if explained is None:
        return wrong(f"exit status {process.returncode} without an explanation")
    return refused(QUOTED_OR_NUMBER.sub("*", explained.group(1))[:150])


def run_case(executable, case):
    path = os.path.join(case, "model.onnx")
    if not os.path.exists(path):
        return refused("not expressible: case without a model file")
    graph = onnx.load(path).graph
    reason = inexpressible(graph)
    if reason is not None:
        return refused(reason)
    with tempfile.TemporaryDirectory() as folder:
        write_case(case, graph, folder)
        command = [executable, "-m", path, "-i", "list.txt", "-j", "settings.json", "-o", "out"]
        try:
            process = subprocess.run(command, cwd=folder, capture_output=True, text=True,
                                     errors="replace", timeout=TIMEOUT_SECONDS, check=False)
        except subprocess.TimeoutExpired:
            return wrong(f"no end within {TIMEOUT_SECONDS} seconds")
        return judge(process, case, graph, folder)


def run_quietly(executable, case):
    try:
        return run_case(executable, case)
    except Exception as problem:  # one broken case must not hide the others
        return wrong(f"{type(problem).__name__}: {problem}")


def report(outcomes):
    """Prints the summary; true when it is good enough."""
    count = collections.Counter(outcome.verdict for _, outcome in outcomes)
    reasons = collections.Counter(outcome.reason for _, outcome in outcomes
                                  if outcome.verdict == "refused")
    for reason, times in reasons.most_common():
        print(f"{times:5} refused: {reason}")
    for case, outcome in outcomes:
        if outcome.verdict == "wrong":
            print(f"wrong: {case}: {outcome.reason}")
    print(f"right {count['right']}, refused {count['refused']}, wrong {count['wrong']}")
    return count["wrong"] == 0 and count["right"] >= RIGHT_FLOOR


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    executable = os.path.abspath(sys.argv[1])
    data_dir = sys.argv[2] if len(sys.argv) == 3 else DATA_DIR
    cases = sorted(path for path in glob.glob(data_dir + "/*/test_*") if os.path.isdir(path))
    if not cases:
        print(f"no cases in {data_dir}", file=sys.stderr)
        return 1
    with concurrent.futures.ThreadPoolExecutor(AT_ONCE) as pool:
        outcomes = list(pool.map(run_quietly, [executable] * len(cases), cases, chunksize=8))
    names = [os.path.relpath(case, data_dir) for case in cases]
    return 0 if report(list(zip(names, outcomes))) else 1


if __name__ == "__main__":
    sys.exit(main())
