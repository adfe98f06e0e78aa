"""Models for the host runtime, and what a run of one has to print and write."""

import json
import struct

from onnx import TensorProto, helper

from tool import BRING_UP, NO_MEDIA_MEMORY, TEARDOWN, ToolTest


def tensor(name, shape, element_type=TensorProto.FLOAT):
    return helper.make_tensor_value_info(name, element_type, shape)


def model(nodes, inputs, outputs, initializers=(), properties=()):
    graph = helper.make_graph(nodes, "g", inputs, outputs, list(initializers))
    proto = helper.make_model(graph, opset_imports=[helper.make_opsetid("", 13)])
    proto.ir_version = 7
    helper.set_model_props(proto, dict(properties))
    return proto.SerializeToString()


def unary(operator, shape, element_type=TensorProto.FLOAT):
    return model([helper.make_node(operator, ["x"], ["y"])], [tensor("x", shape, element_type)],
                 [tensor("y", shape, element_type)])


def relu(shape, element_type=TensorProto.FLOAT):
    return unary("Relu", shape, element_type)


def identity(shape, element_type=TensorProto.FLOAT):
    """Runs on host runtimes without an engine too."""
    return unary("Identity", shape, element_type)


def copies(shapes, element_type=TensorProto.FLOAT, **properties):
    """Inputs of the given {name: shape}, each passed on to an output with a prime at its name."""
    return model([helper.make_node("Identity", [name], [name + "'"]) for name in shapes],
                 *[[tensor(name + mark, shape, element_type) for name, shape in shapes.items()]
                   for mark in ("", "'")], **properties)


def floats(*values):
    return struct.pack(f"<{len(values)}f", *values)


def text(*values):
    return "".join(f"{value:.16f}\n" for value in values).encode()


def files(run, name, *values):
    """The two files of one output, as outputs() shows them."""
    return {f"{run}/{name}.0.S.float": text(*values), f"{run}/{name}.0.S.bin": floats(*values)}


def info_block(inputs, outputs):
    """The description as printed, from (name, shape, type, stride, size) rows."""
    def lines(kind, rows):
        return f"[INFO]  ------------------ {kind} Info ------------------\n" + "".join(
            f"[INFO]  {kind} index: {i}, name: {name}\n[INFO]  Shape: {shape}\n"
            f"[INFO]  DataType: {code}, stride: {stride}, format: 0, dataSizeWithStride: {size}\n"
            for i, (name, shape, code, stride, size) in enumerate(rows))
    return "[INFO]  create model description success\n" + lines("Input", inputs) + \
        lines("Output", outputs)


def buffers(batch=1):
    return [("task_buffer", "[1024, ]", 4, 1024, batch * 1024),
            ("work_buffer", "[4096, ]", 4, 4096, batch * 4096)]


def staged(name, size, stride, element, shape):
    return (f"[INFO]  start to process file:$D/{name}\n"
            f"[INFO]  The amount of data required for inference in a single batch is [{size}]\n"
            f"[INFO]  The stride of model is [{stride}]\n"
            f"[INFO]  The data size of data type is [{element}]\n"
            f"[INFO]  Reading bin file [$D/{name}]\n"
            f"[INFO]  The shape of the model is [{shape}]\n")


def executed(batch=1, types=(0,)):
    return (f"[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to {batch}\n"
            "[INFO]  model execute success\n" +
            "".join(f"[INFO]  The value of quilm_data_type is [{code}]\n" for code in types) +
            "[INFO]  dump data success\n")


def paths(*names):
    return "".join(f"[INFO]  inputPath: $D/{name}\n" for name in names)


LOADED = NO_MEDIA_MEMORY * 2 + "[INFO]  load model $D/m.onnx success\n"
UNLOADED = "[INFO]  unload model success, modelId is 1\n"
SUCCESS = UNLOADED + "[INFO]  execute sample success\n" + TEARDOWN
FAILURE = UNLOADED + "[ERROR] sample process failed\n" + TEARDOWN
NOT_EXECUTED = ("[WARN]  quilm_mdl_set_dynamic_batch_size set batchsize to 1\n"
                "[ERROR] execute model failed, modelId is 1\n"
                "[ERROR] execute inference failed\n")
SHAPE_WARNING = "[WARN]  The input data shape not match model's input shape [N,C,H,W]\n"


def whole_log(inputs, outputs, entries, groups, end=SUCCESS, *, echo="", batch=1):
    """All that a run prints; `inputs` and `outputs` are rows of info_block(), `entries` the resolved
    input files in the order of use, `groups` what staging and executing them prints."""
    inferences = len(entries) // len(inputs)
    return (echo + paths("m.onnx", "q.json") + BRING_UP + LOADED +
            info_block(inputs + buffers(batch), outputs) + paths(*entries) +
            f"[INFO]  create model output success\n[INFO]  Model inputNum: {len(inputs)}\n"
            f"[INFO]  Model Iters : {inferences}\n" + groups + end)


class HostRuntimeTest(ToolTest):
    """A test that runs a model on the host runtime."""

    def run_model(self, model_bytes, list_text, *options, settings=None, within=()):
        self.write("m.onnx", model_bytes)
        self.write("list.txt", list_text)
        self.write("q.json", json.dumps(settings or {}))
        return self.run_tool("-m", self.dir / "m.onnx", "-i", self.dir / "list.txt", "-j",
                             self.dir / "q.json", "-o", "out", *options, within=within)

    def expected_csv(self, inputs, outputs):
        """The memory report of a run with inputs and outputs of these KB, as csv() shows it."""
        size = (self.dir / "m.onnx").stat().st_size / 1024
        return f"T,T,T,{inputs},1.000,{outputs},4.000,{size:.3f},0\n"
