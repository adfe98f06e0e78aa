"""Which inner results of a model become outputs."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Iterator, Optional, Sequence

from onnx import TensorProto

from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.layers.graph import FLOATS, TYPE_NAMES, Graph, has_subgraph, read_by

# Operators that move, describe or convert values and compute none.
_PASSIVE = frozenset("""
    Cast CastLike Constant ConstantOfShape DepthToSpace DequantizeLinear Dropout
    DynamicQuantizeLinear Expand EyeLike Flatten Gather GatherElements GatherND Identity NonZero
    OneHot Optional OptionalGetElement OptionalHasElement Pad QuantizeLinear Range Reshape
    ReverseSequence Scatter ScatterElements ScatterND Shape Size Slice SpaceToDepth Split Squeeze
    Tile Transpose Unsqueeze""".split())
# What compilers compute together with the layer in front of it.
_ACTIVATIONS = frozenset("""
    Celu Clip Elu Gelu HardSigmoid HardSwish LeakyRelu Mish PRelu QLinearLeakyRelu QLinearSigmoid
    Relu Selu Sigmoid Softplus Softsign Tanh ThresholdedRelu""".split())
# Integers are results of layers only in quantised models; elsewhere they are shapes and indices.
_QUANTISED = (TensorProto.INT8, TensorProto.UINT8)


@dataclass(frozen=True)
class Choice:
    """What the user asked for."""
    every: bool = False
    only: Sequence[str] = ()  # operators
    tensors: Sequence[str] = ()
    first: Optional[str] = None  # tensors from here on
    last: Optional[str] = None  # and up to here


@dataclass(frozen=True)
class Chosen:
    """A result that becomes an output."""
    tensor: str
    node: int  # that computes the layer
    activation: str  # the operator that follows it and makes the tensor; "" for none


def choose(graph: Graph, choice: Choice) -> tuple[list[Chosen], list[str]]:
    """The chosen results in the order of the graph, and notes on what was passed over."""
    for name in [*choice.tensors, *filter(None, (choice.first, choice.last))]:
        if name not in graph.producer:
            raise Unreadable(f"no node of the model computes a tensor {name}")
    within = _between(graph, choice.first, choice.last)
    if choice.tensors:
        found = [Chosen(name, graph.producer[name], "") for name in dict.fromkeys(choice.tensors)]
    elif choice.every:
        found = [Chosen(name, at, "") for at, node in enumerate(graph.nodes)
                 for name in node.output if name]
    else:
        found = [*_layers(graph)]
    found = [one for one in found if one.tensor in within and one.tensor in graph.computed
             and (not choice.only or graph.nodes[one.node].op_type in choice.only)]
    kept = [one for one in found if _can_be_output(graph, one.tensor)]
    if not kept:
        raise Unreadable("the model has no such layers: name operators (--only) or tensors "
                         "(--tensors) that it has")
    return sorted(kept, key=lambda one: graph.producer[one.tensor]), _notes(graph, found, kept)


def _notes(graph: Graph, found: list[Chosen], kept: list[Chosen]) -> list[str]:
    notes = [f"{one.tensor} is passed over: no output can have its type"
             for one in found if one not in kept]
    for node in graph.nodes:
        if has_subgraph(node):
            notes.append(f"what {node.op_type} {node.name or node.output[0]} computes inside is "
                         "passed over: results of a subgraph cannot be outputs")
    return notes


def _can_be_output(graph: Graph, name: str) -> bool:
    described = graph.described.get(name)
    return graph.type_of(name) in TYPE_NAMES and (
        described is None or described.type.HasField("tensor_type"))


def _between(graph: Graph, first: Optional[str], last: Optional[str]) -> set[str]:
    """All tensors that are computed from `first` and that `last` is computed from, with both."""
    within = set(graph.producer)
    if first:
        after = {first}
        for node in graph.nodes:
            if any(name in after for name in read_by(node)):
                after.update(node.output)
        within &= after
    if last:
        nodes, _ = graph.ancestors([last], set())
        within &= {name for at in nodes for name in graph.nodes[at].output
                   if at != graph.producer[last]} | {last}
    return within


def _layers(graph: Graph) -> Iterator[Chosen]:
    """One result of each layer that computes, taken after the activation that follows it."""
    taken: set[int] = set()  # nodes of activations that belong to a layer
    for at, node in enumerate(graph.nodes):
        if at in taken or node.op_type in _PASSIVE or has_subgraph(node) or not node.output:
            continue
        name = node.output[0]
        if not _is_result(graph, node.op_type, name):
            continue
        follows = () if node.op_type in _ACTIVATIONS else _activation(graph, name)
        taken.update(follows)
        if follows:
            last = graph.nodes[follows[-1]]
            yield Chosen(last.output[0], at, graph.nodes[follows[0]].op_type)
        else:
            yield Chosen(name, at, "")


def _is_result(graph: Graph, operator: str, name: str) -> bool:
    """Whether a tensor holds what layers compute, and not a shape or an index."""
    kind = graph.type_of(name)
    return kind in FLOATS or kind == 0 or kind in _QUANTISED or "Integer" in operator


def _activation(graph: Graph, name: str) -> Sequence[int]:
    """The nodes of the activation that follows a tensor and is all that reads it."""
    readers = graph.readers.get(name, [])
    if name in graph.outputs:
        return ()
    if len(readers) == 1:
        node = graph.nodes[readers[0]]
        return readers if node.op_type in _ACTIVATIONS and node.input[0] == name else ()
    if len(readers) == 2:  # x * Sigmoid(x), as exporters write SiLU and the like
        gate, product = graph.nodes[readers[0]], graph.nodes[readers[1]]
        if gate.op_type in ("Sigmoid", "HardSigmoid") and product.op_type == "Mul" and \
                set(product.input) == {name, gate.output[0]} and \
                graph.readers[gate.output[0]] == [readers[1]] and \
                gate.output[0] not in graph.outputs:
            return readers
    return ()
