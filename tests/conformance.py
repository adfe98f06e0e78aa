#!/usr/bin/python3
"""Runs ONNX's own backend test cases through the quilmrun executable.

    conformance.py QUILMRUN_EXECUTABLE [DATA_DIR]

A case is right when the numbers in the output files are those that ONNX expects, refused when the
tool cannot express it or the host runtime explains that it does not run it, and wrong otherwise,
but for a few cases whose reference data are known to be wrong or random.
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
RIGHT_FLOOR = 850
SECONDS_PER_CASE = 20
ARGUMENTS = "-m model.onnx -i list.txt -j settings.json -o out".split()
SANITIZER_REPORT = re.compile(r"AddressSanitizer|LeakSanitizer|runtime error:")
EXPLANATION = re.compile(r"^host runtime: (.*)$", re.MULTILINE)
QUOTED_OR_NUMBER = re.compile(r'"[^"]*"|\d+')
# The type in which elements stand in input files, and are dumped to output files.
DEVICE_TYPES = {
    onnx.TensorProto.FLOAT: "<f4", onnx.TensorProto.DOUBLE: "<f4", onnx.TensorProto.FLOAT16: "<f2",
    onnx.TensorProto.INT8: "i1", onnx.TensorProto.UINT8: "u1", onnx.TensorProto.BOOL: "u1",
    onnx.TensorProto.INT16: "<i2", onnx.TensorProto.UINT16: "<u2", onnx.TensorProto.INT32: "<i4",
    onnx.TensorProto.INT64: "<i4"
}

# Cases whose reference data no engine can meet, and why.
KNOWN_WRONG = {
    "test_bernoulli": "random",
    "test_bernoulli_double": "random",
    "test_bernoulli_double_expanded": "random",
    "test_bernoulli_expanded": "random",
    "test_bernoulli_seed": "random: a seed means another sequence to every engine",
    "test_bernoulli_seed_expanded": "random: a seed means another sequence to every engine",
    "test_maxunpool_export_with_output_shape": "the data take indices of the larger output for the smaller",
    "test_resize_downsample_scales_cubic_align_corners": "the data place corners by a length that is not whole",
    "test_resize_downsample_scales_linear_align_corners": "the data place corners by a length that is not whole",
    "test_training_dropout": "random",
    "test_training_dropout_default": "random",
    "test_training_dropout_default_mask": "random",
    "test_training_dropout_mask": "random",
}

Outcome = collections.namedtuple("Outcome", "verdict reason")


def refused(reason):
    return Outcome("refused", reason)


def wrong(reason):
    return Outcome("wrong", reason)


def data_inputs(graph):
    constants = {tensor.name for tensor in graph.initializer}
    return [value for value in graph.input if value.name not in constants]


def inexpressible(case, graph):
    """Why no input and list file can carry the case, or None."""
    if not data_inputs(graph):
        return "not expressible: no inputs"
    for value in data_inputs(graph) + list(graph.output):
        kind = value.type.WhichOneof("value")
        if kind != "tensor_type":
            return f"not expressible: {kind}"
        tensor = value.type.tensor_type
        if tensor.elem_type not in DEVICE_TYPES:
            return "not expressible: element type " + onnx.TensorProto.DataType.Name(
                tensor.elem_type)
    files = glob.glob(glob.escape(case) + "/test_data_set_0/*.pb")
    if any(read_tensor(path).size == 0 for path in files):
        return "not expressible: empty tensor"
    return None


def read_tensor(path):
    tensor = onnx.TensorProto()
    with open(path, "rb") as file:
        tensor.ParseFromString(file.read())
    return numpy_helper.to_array(tensor)


def write_case(case, graph, folder):
    """What ARGUMENTS name: the model, the list file with one line per input, and the raw inputs."""
    os.symlink(case + "/model.onnx", folder + "/model.onnx")
    names = []
    for index, value in enumerate(data_inputs(graph)):
        names.append(f"input_{index}.bin")
        array = read_tensor(f"{case}/test_data_set_0/input_{index}.pb")
        device_type = DEVICE_TYPES[value.type.tensor_type.elem_type]
        with open(os.path.join(folder, names[-1]), "wb") as file:
            file.write(np.ascontiguousarray(array).astype(device_type).tobytes())
    with open(os.path.join(folder, "list.txt"), "w", encoding="ascii") as file:
        file.write("".join(name + "\n" for name in names))
    with open(os.path.join(folder, "settings.json"), "w", encoding="ascii") as file:
        file.write('{"threads": 1}')
    os.mkdir(os.path.join(folder, "out"))


def decode(path, element_type, expected):
    """The numbers in one output file, in the type of the expected ones."""
    dumped = np.fromfile(path, dtype="<f4")
    device_type = DEVICE_TYPES[element_type]
    if device_type == "<f2":
        return dumped.astype(np.uint16).view(np.float16)
    return (dumped.view("<i4") if device_type == "<i4" else dumped).astype(expected.dtype)


def agree(actual, expected):
    if actual.size != expected.size:
        return False
    actual = actual.reshape(expected.shape)
    half = expected.dtype == np.float16
    if expected.dtype.kind != "f":
        return np.array_equal(actual, expected)
    actual, expected = actual.astype(np.float64), expected.astype(np.float64)
    relative, absolute = (1e-2, 1e-3) if half else (1e-3, 1e-5)
    # Sums round in proportion to their largest terms, also where the result is nearly 0.
    largest = np.abs(expected[np.isfinite(expected)]).max(initial=0)
    return np.allclose(actual, expected, relative, max(absolute, 1e-5 * largest), equal_nan=True)


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
            if os.path.basename(case) in KNOWN_WRONG:
                return Outcome("known", KNOWN_WRONG[os.path.basename(case)])
            return wrong(f"numbers of output {output.name}")
    return Outcome("right", "")


def judge(status, errors, case, graph, folder):
    if status < 0 or status >= 128:
        return wrong(f"ended by signal or abort ({status})")
    if SANITIZER_REPORT.search(errors):
        return wrong("sanitizer report")
    if status == 0:
        return compare(case, graph, folder)
    explained = EXPLANATION.search(errors)
    if explained is None:
        return wrong(f"exit status {status} without an explanation")
    return refused(QUOTED_OR_NUMBER.sub("*", explained.group(1))[:150])


def run_tool(executable, folder):
    """(exit status, negative after a signal; standard error) of a run on what write_case() made"""
    result = subprocess.run([executable, *ARGUMENTS], cwd=folder, timeout=SECONDS_PER_CASE,
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    return result.returncode, result.stderr.decode(errors="replace")


def run_case(executable, case):
    path = os.path.join(case, "model.onnx")
    if not os.path.exists(path):
        return refused("not expressible: case without a model file")
    graph = onnx.load(path).graph
    reason = inexpressible(case, graph)
    if reason is not None:
        return refused(reason)
    with tempfile.TemporaryDirectory() as folder:
        write_case(case, graph, folder)
        return judge(*run_tool(executable, folder), case, graph, folder)


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
        if outcome.verdict == "right" and case in KNOWN_WRONG:
            print(f"right although its data are known to be wrong: {case}")
    print(f"right {count['right']}, refused {count['refused']}, wrong {count['wrong']}, known to "
          f"have wrong data {count['known']}")
    return count["wrong"] == 0 and count["right"] >= RIGHT_FLOOR


def main():
    if len(sys.argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    executable = os.path.abspath(sys.argv[1])
    data_dir = sys.argv[2] if len(sys.argv) == 3 else DATA_DIR
    cases = sorted(path for path in glob.glob(data_dir + "/*/test_*") if os.path.isdir(path))
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        outcomes = list(pool.map(lambda case: run_quietly(executable, case), cases))
    return 0 if report([*zip(map(os.path.basename, cases), outcomes)]) else 1


if __name__ == "__main__":
    sys.exit(main())
