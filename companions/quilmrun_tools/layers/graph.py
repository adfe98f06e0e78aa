"""A model as a graph: what computes a tensor, what reads it, and what shape it has."""

from __future__ import annotations

import math
from pathlib import Path
from typing import Any, Iterable, Iterator, Optional

import onnx
from google.protobuf.message import DecodeError  # type: ignore[import]  # without type hints
from onnx import TensorProto, helper, shape_inference
from onnx.external_data_helper import load_external_data_for_model, uses_external_data

from quilmrun_tools.common.errors import Unreadable

_SMALL = 1024  # elements of a constant that shapes may depend on
_LARGEST_FILE = 2**31 - 1  # bytes: what protobuf, and so every reader of ONNX files, takes

# Element types that outputs can have, as the host runtime shows them.
TYPE_NAMES = {
    TensorProto.FLOAT: "float", TensorProto.DOUBLE: "float", TensorProto.FLOAT16: "half",
    TensorProto.INT8: "int8", TensorProto.UINT8: "uint8", TensorProto.BOOL: "uint8",
    TensorProto.INT16: "int16", TensorProto.UINT16: "uint16", TensorProto.INT32: "int32",
    TensorProto.INT64: "int32"}
FLOATS = (TensorProto.FLOAT, TensorProto.DOUBLE, TensorProto.FLOAT16)

Shape = Optional[list[int]]


def load_model(path: str) -> Any:
    """A ModelProto with all its weights, those in other files included."""
    folder = Path(path).parent
    try:
        model = onnx.load(path, load_external_data=False)
        elsewhere = sum(_bytes(tensor) for tensor in model.graph.initializer
                        if uses_external_data(tensor))
        if elsewhere + Path(path).stat().st_size > _LARGEST_FILE:
            raise Unreadable(f"{path}: with its weights it has more than 2 GB, which no single "
                             "file holds, and a probe is one file")
        load_external_data_for_model(model, str(folder))
    except OSError as error:
        raise Unreadable(f"cannot read {error.filename or path}: {error.strerror}") from error
    except (DecodeError, ValueError) as error:
        raise Unreadable(f"{path} is no ONNX model, or was cut short") from error
    if not model.graph.node or not model.graph.output:
        raise Unreadable(f"{path} is no ONNX model, or one without nodes")
    return model


def _bytes(tensor: Any) -> int:
    """The size of a tensor's data in another file."""
    for entry in tensor.external_data:
        if entry.key == "length":
            return int(entry.value)
    count: int = math.prod(tensor.dims)
    return 4 * count


class Graph:
    """The graph of a model, and the types and shapes of its tensors."""

    def __init__(self, model: Any, input_shapes: Optional[dict[str, list[int]]] = None) -> None:
        self.model = model
        self.nodes: list[Any] = list(model.graph.node)
        self.constants: dict[str, Any] = {one.name: one for one in model.graph.initializer}
        self.inputs = [one.name for one in model.graph.input if one.name not in self.constants]
        self.outputs = [one.name for one in model.graph.output]
        self.producer: dict[str, int] = {}
        self.readers: dict[str, list[int]] = {}
        for at, node in enumerate(self.nodes):
            for name in node.output:
                if name:
                    self.producer[name] = at
            for name in dict.fromkeys(read_by(node)):
                self.readers.setdefault(name, []).append(at)
        self.described = _described(model, {})  # with the dimensions that the model leaves open
        self._fixed = _described(model, {**_closed(model, self.inputs), **(input_shapes or {})})
        self.computed = self._computed()

    def _computed(self) -> set[str]:
        """The tensors that depend on an input of the model."""
        found = set(self.inputs)
        for node in self.nodes:
            if any(name in found for name in read_by(node)):
                found.update(name for name in node.output if name)
        return found

    def type_of(self, name: str) -> int:
        """ONNX's code of a tensor's element type; 0 when it is not known."""
        for known in (self._fixed, self.described):
            if name in known:
                return int(known[name].type.tensor_type.elem_type)
        return 0

    def shape_of(self, name: str) -> Shape:
        """A tensor's shape at batch size 1; None when it is not known as a whole."""
        if name in self.constants:
            return list(self.constants[name].dims)
        tensor_type = self._fixed[name].type.tensor_type if name in self._fixed else None
        if tensor_type is None or not tensor_type.HasField("shape"):
            return None
        dims = [dim.dim_value for dim in tensor_type.shape.dim]
        return dims if all(dim > 0 for dim in dims) else None

    def ancestors(self, names: Iterable[str], known: set[str]) -> tuple[list[int], list[str]]:
        """What computes the named tensors from others that are known: the numbers of the nodes in
        order, and which known tensors and inputs of the model they read. A named tensor counts as
        computed even if it is known."""
        nodes: set[int] = set()
        read: dict[str, None] = {}
        waiting = [self.producer[name] for name in names]
        while waiting:
            at = waiting.pop()
            if at in nodes:
                continue
            nodes.add(at)
            for name in read_by(self.nodes[at]):
                if name in known or name in self.inputs:
                    read[name] = None
                elif name in self.producer:
                    waiting.append(self.producer[name])
        return sorted(nodes), [*read]


def read_by(node: Any) -> Iterator[str]:
    """The tensors that a node reads, those that its subgraphs take from outside included."""
    yield from (name for name in node.input if name)
    for attribute in node.attribute:
        for graph in ([attribute.g] if attribute.HasField("g") else []) + list(attribute.graphs):
            yield from _captured(graph)


def _captured(graph: Any) -> Iterator[str]:
    own = {one.name for one in [*graph.input, *graph.initializer]}
    for node in graph.node:
        yield from (name for name in read_by(node) if name not in own)
        own.update(node.output)
    yield from (one.name for one in graph.output if one.name not in own)


def has_subgraph(node: Any) -> bool:
    """Whether a node is one like If and Loop."""
    return any(attribute.HasField("g") or attribute.graphs for attribute in node.attribute)


def _closed(model: Any, inputs: list[str]) -> dict[str, list[int]]:
    """The shapes of inputs that only leave their first dimension open, with 1 for it."""
    closed = {}
    for one in model.graph.input:
        dims = [dim.dim_value for dim in one.type.tensor_type.shape.dim]
        if one.name in inputs and dims and dims[0] <= 0 and all(dim > 0 for dim in dims[1:]):
            closed[one.name] = [1, *dims[1:]]
    return closed


def _described(model: Any, input_shapes: dict[str, list[int]]) -> dict[str, Any]:
    """{tensor: its ValueInfoProto}, as far as ONNX infers them with these shapes of inputs."""
    graph = model.graph
    inputs = []
    for one in graph.input:
        elem_type = one.type.tensor_type.elem_type
        inputs.append(helper.make_tensor_value_info(one.name, elem_type, input_shapes[one.name])
                      if one.name in input_shapes else one)
    # What was inferred for other shapes of the inputs does not hold with these.
    values = [] if input_shapes else list(graph.value_info)
    outputs = [helper.make_tensor_value_info(one.name, one.type.tensor_type.elem_type, None)
               for one in graph.output] if input_shapes else list(graph.output)
    light = helper.make_model(
        helper.make_graph(graph.node, "light", inputs, outputs,
                          [_without_data(one) for one in graph.initializer], value_info=values),
        opset_imports=model.opset_import, functions=model.functions, ir_version=model.ir_version)
    try:
        light = shape_inference.infer_shapes(light, data_prop=True)
    except (RuntimeError, ValueError):  # a model that contradicts itself, or with unknown operators
        pass
    return {one.name: one for one in
            [*light.graph.value_info, *light.graph.input, *light.graph.output]}


def _without_data(tensor: Any) -> Any:
    """A constant of the same type and shape; a large one without its values, which no shape
    depends on and which are most of a model."""
    if math.prod(tensor.dims) <= _SMALL:
        return tensor
    return TensorProto(name=tensor.name, data_type=tensor.data_type, dims=tensor.dims,
                       data_location=TensorProto.EXTERNAL)
