"""Cuts out of a model what computes each layer from the results of the layers before it."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, Sequence

from onnx import TensorProto, helper

from quilmrun_tools.layers.graph import Graph, read_by

_INTEGERS = (TensorProto.INT32, TensorProto.INT64)


@dataclass(frozen=True)
class Cut:
    """A model of which each output is a layer, computed from results that come in as inputs. The
    inputs and outputs are 32-bit floats, or 32-bit integers for results that are integers."""
    model: Any
    fed: list[str]  # the tensors that are its first inputs, in order
    inputs: list[str]  # the inputs of the whole model that follow
    layers: list[str]  # the tensors that are its outputs, in order


def sources_of(graph: Graph, layer: str, known: set[str]) -> list[str]:
    """The known tensors, and inputs of the model, that a layer is computed from."""
    return graph.ancestors([layer], known)[1]


def is_integer(graph: Graph, tensor: str) -> bool:
    """Whether a tensor goes in and out as 32-bit integers."""
    return graph.type_of(tensor) in _INTEGERS


def cut(graph: Graph, layers: Sequence[str], known: set[str],
        shapes: dict[str, list[int]]) -> Cut:
    """Cuts once for several layers. Each is computed under another name, so that those behind it
    read what comes in under its own. `shapes` are those of the inputs at batch size 1."""
    numbers, read = graph.ancestors(layers, known)
    fed = [name for name in read if name in known]
    inputs = [name for name in read if name not in known]
    computed = {layer: f"layer.{at}" for at, layer in enumerate(layers)}
    # A node with several results may still be needed for those that do not come in.
    others = {**{name: f"unused.{at}" for at, name in enumerate(fed)}, **computed}
    nodes = [_cast(f"fed.{at}", name, graph.type_of(name)) for at, name in enumerate(fed)]
    nodes += [_renamed(graph.nodes[number], others) for number in numbers]
    outputs = []
    for at, layer in enumerate(layers):
        kind = _edge_type(graph, layer)
        nodes.append(_cast(computed[layer], f"own_{at}", kind))
        outputs.append(helper.make_tensor_value_info(f"own_{at}", kind, None))
    return Cut(_model(graph, nodes, fed, inputs, outputs, shapes), fed, inputs, [*layers])


def _renamed(node: Any, names: dict[str, str]) -> Any:
    """The node, or a copy of it with other names for some of its results."""
    if any(name in names for name in node.output):
        node = type(node).FromString(node.SerializeToString())
        for at, name in enumerate(node.output):
            node.output[at] = names.get(name, name)
    return node


def _edge_type(graph: Graph, name: str) -> int:
    return int(TensorProto.INT32) if is_integer(graph, name) else int(TensorProto.FLOAT)


def _cast(name: str, made: str, kind: int) -> Any:
    return helper.make_node("Cast", [name], [made], to=kind)


def _model(graph: Graph, nodes: list[Any], fed: list[str], inputs: list[str], outputs: list[Any],
           shapes: dict[str, list[int]]) -> Any:
    values = [helper.make_tensor_value_info(f"fed.{at}", _edge_type(graph, name), shapes[name])
              for at, name in enumerate(fed)]
    own = {one.name: one for one in graph.model.graph.input}
    values += [helper.make_tensor_value_info(name, own[name].type.tensor_type.elem_type,
                                             shapes[name]) for name in inputs]
    used = {name for node in nodes for name in read_by(node)}
    weights = [tensor for name, tensor in graph.constants.items() if name in used]
    return helper.make_model(
        helper.make_graph(nodes, "cut", values, outputs, weights),
        opset_imports=graph.model.opset_import, functions=graph.model.functions,
        ir_version=max(4, graph.model.ir_version))
