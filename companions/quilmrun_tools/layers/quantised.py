"""Pairs the layers of a model with the tensors of its quantised form, and makes these outputs."""

from __future__ import annotations

import re
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterator, Literal, Optional, Sequence

from onnx import TensorProto, helper, numpy_helper

from quilmrun_tools.artifacts.layer_results import QuantisedPair
from quilmrun_tools.layers.choose import Chosen
from quilmrun_tools.layers.graph import Graph
from quilmrun_tools.layers.probe import MAKER, MARKER_KEY, Outputs, save, value_info

# What quantisers append to a tensor's name for its quantised or dequantised form.
_SUFFIX = re.compile(r"(_quantized|_QuantizeLinear(_Output)?|_DequantizeLinear(_Output)?|_quant|"
                     r"_dequantized|_dequant|_int8|_uint8|_QuantizeInput|_fq|_qdq|_DQ|_Q)(_\d+)?$")
# Where a node has the scale and the zero point of its output.
_OUTPUT_SCALE = {"QLinearConv": (6, 7), "QLinearMatMul": (6, 7), "QuantizeLinear": (1, 2),
                 "QLinearAdd": (6, 7), "QLinearMul": (6, 7), "QLinearConcat": (0, 1),
                 "QGemm": (7, 8),
                 "QLinearGlobalAveragePool": (3, 4), "QLinearAveragePool": (3, 4),
                 "QLinearSigmoid": (3, 4), "QLinearLeakyRelu": (3, 4), "QLinearSoftmax": (3, 4)}
# What passes quantised values on with the scale that they have.
_KEEPS_SCALE = frozenset("MaxPool Reshape Flatten Transpose Squeeze Unsqueeze Slice Split Identity "
                         "Gather Pad DepthToSpace SpaceToDepth Resize Relu Clip".split())
# Layers with weights, as one family whether quantised or not: (place of the weights, family).
_WEIGHTED = {"Conv": (1, "conv"), "QLinearConv": (3, "conv"), "ConvInteger": (1, "conv"),
             "ConvTranspose": (1, "transposed"), "Gemm": (1, "dense"), "QGemm": (3, "dense"),
             "MatMul": (1, "dense"), "QLinearMatMul": (3, "dense"), "MatMulInteger": (1, "dense")}
_QUANTISED_TYPES = (TensorProto.INT8, TensorProto.UINT8)


@dataclass(frozen=True)
class Pairing:
    """What belongs together."""
    pairs: list[QuantisedPair]
    unpaired: list[str]


def pair(graph: Graph, chosen: Sequence[Chosen], quantised: Graph) -> Pairing:
    """Finds for every layer the tensor of the quantised model that stands for it: by its name, by
    a name that differs in a quantiser's suffix, or by the order of layers with weights."""
    by_stem: dict[str, str] = {}
    for name in quantised.producer:
        if name in quantised.computed:
            by_stem.setdefault(_SUFFIX.sub("", name), name)
    ordered = _by_order(graph, quantised)
    pairs, unpaired = [], []
    for one in chosen:
        found = _pair_one(graph, one, quantised, by_stem, ordered)
        if found and _readable(quantised, found[0]):
            pairs.append(QuantisedPair(one.tensor, *found))
        else:
            unpaired.append(one.tensor)
    return Pairing(pairs, unpaired)


def _pair_one(graph: Graph, one: Chosen, quantised: Graph, by_stem: dict[str, str],
              ordered: dict[int, int]
              ) -> Optional[tuple[str, Literal["name", "suffix", "order"]]]:
    # A quantiser often computes an activation by the range of the layer in front of it.
    names = dict.fromkeys([one.tensor, graph.nodes[one.node].output[0]])
    for name in names:
        if name in quantised.producer and name in quantised.computed:
            return name, "name"
    for name in names:
        if name in by_stem:
            return by_stem[name], "suffix"
    if one.node in ordered:
        return _after_activation(quantised, ordered[one.node], bool(one.activation)), "order"
    return None


def _by_order(graph: Graph, quantised: Graph) -> dict[int, int]:
    """{node: node of the quantised model} of layers with weights, when as many of the same families
    and shapes of weights follow each other in both."""
    ours, theirs = [*_weighted(graph)], [*_weighted(quantised)]
    if [kind for _, kind in ours] != [kind for _, kind in theirs]:
        return {}
    return {one: other for (one, _), (other, _) in zip(ours, theirs)}


def _weighted(graph: Graph) -> Iterator[tuple[int, tuple[str, int]]]:
    for at, node in enumerate(graph.nodes):
        place, family = _WEIGHTED.get(node.op_type, (0, ""))
        if family and node.input[place] not in graph.computed:
            shape = graph.shape_of(node.input[place]) or []
            count = 1
            for dim in shape:
                count *= dim
            yield at, (family, count)


def _after_activation(graph: Graph, at: int, activation: bool) -> str:
    """The result of a node, after an activation that follows it where the layer has one."""
    name = str(graph.nodes[at].output[0])
    readers = graph.readers.get(name, [])
    if activation and len(readers) == 1 and len(graph.nodes[readers[0]].output) == 1 and \
            graph.nodes[readers[0]].op_type in ("Relu", "Clip", "LeakyRelu", "Sigmoid", "PRelu"):
        return str(graph.nodes[readers[0]].output[0])
    return name


def _readable(graph: Graph, name: str) -> bool:
    """Whether the numbers that a tensor stands for can be told."""
    kind = graph.type_of(name)
    return kind in (TensorProto.FLOAT, TensorProto.FLOAT16, TensorProto.DOUBLE) or \
        scale_of(graph, name) is not None


def scale_of(graph: Graph, name: str) -> Optional[tuple[list[str], int]]:
    """Names of scale and zero point of a quantised tensor, and their axis."""
    while name in graph.producer:
        node = graph.nodes[graph.producer[name]]
        if node.op_type in _OUTPUT_SCALE:
            places = _OUTPUT_SCALE[node.op_type]
            axis = next((int(one.i) for one in node.attribute if one.name == "axis"
                         and node.op_type == "QuantizeLinear"), 1)
            return [node.input[place] for place in places if place < len(node.input)], axis
        if node.op_type == "DynamicQuantizeLinear":
            return list(node.output[1:3]), 1
        if node.op_type not in _KEEPS_SCALE:
            return None
        name = node.input[0]
    return None


def _number_of(graph: Graph, tensor: str, added: list[Any]) -> str:
    """The tensor of floats that a tensor stands for: itself, what the model's own quantisation
    makes of it, or what DequantizeLinear makes of it with the scale of its node, which is added."""
    if graph.type_of(tensor) not in _QUANTISED_TYPES:
        readers = [graph.nodes[at] for at in graph.readers.get(tensor, ())]
        if len(readers) != 1 or readers[0].op_type != "QuantizeLinear":
            return tensor
        tensor = readers[0].output[0]  # others in the model see only this
    for at in graph.readers.get(tensor, ()):
        if graph.nodes[at].op_type == "DequantizeLinear":
            return str(graph.nodes[at].output[0])
    scale = scale_of(graph, tensor)
    assert scale is not None  # as pair() has made sure
    made = f"{tensor}_number_{len(added)}"
    added.append(helper.make_node("DequantizeLinear", [tensor, *scale[0]], [made],
                                  **_axis(graph, *scale)))
    return made


def _axis(graph: Graph, names: list[str], axis: int) -> dict[str, int]:
    """The axis of a scale for each channel; a single scale has none, nor have older models."""
    constant = graph.constants.get(names[0])
    versions = [one.version for one in graph.model.opset_import if not one.domain]
    single = constant is not None and numpy_helper.to_array(constant).size == 1
    return {} if single or max(versions, default=0) < 13 else {"axis": axis}


def rename(model: Any, names: dict[str, str]) -> None:
    """Gives tensors other names throughout the graph, subgraphs included."""
    def rename_in(graph: Any) -> None:
        for node in graph.node:
            for field in (node.input, node.output):
                for at, name in enumerate(field):
                    if name in names:
                        field[at] = names[name]
            for attribute in node.attribute:
                for inner in ([attribute.g] if attribute.HasField("g") else []) + \
                        list(attribute.graphs):
                    rename_in(inner)
    rename_in(model.graph)
    for one in model.graph.value_info:
        one.name = names.get(one.name, one.name)


def names_for(outputs: Outputs) -> list[str]:
    """The files of the quantised model's probes."""
    return [file.replace("probe", "quantised", 1) for file in outputs.files]


def write_quantised(graph: Graph, outputs: Outputs, pairs: Sequence[QuantisedPair],
                    folder: Path) -> list[str]:
    """Writes a probe of the quantised model for each probe of the float model: after the model's
    own outputs those of the float model's probe, by the same names in the same order. Tensors that
    carry such a name for something else get another one. Returns the files."""
    model, added = graph.model, list[Any]()
    numbers = {outputs.names[one.name]: _number_of(graph, one.tensor, added) for one in pairs}
    others = {name: f"{name}_inner" for name, number in numbers.items()
              if name in graph.producer and name != number and name not in graph.outputs}
    model.graph.node.extend(added)
    rename(model, others)
    model.metadata_props.add(key=MARKER_KEY, value=MAKER)
    values = {outputs.names[one.name]: _value(graph, one.tensor, outputs.names[one.name],
                                              numbers[outputs.names[one.name]]) for one in pairs}
    nodes, own = len(model.graph.node), len(model.graph.output)
    for file, names in zip(names_for(outputs), outputs.files.values()):
        for name in names[outputs.own:]:  # the quantised model has outputs of its own for those
            if name not in numbers:
                continue
            number = others.get(numbers[name], numbers[name])
            if number != name:
                model.graph.node.append(helper.make_node("Identity", [number], [name]))
            model.graph.output.append(values[name])
        save(model, folder / file)
        del model.graph.node[nodes:]
        del model.graph.output[own:]
    return names_for(outputs)


def _value(graph: Graph, tensor: str, name: str, number: str) -> Any:
    """The output for a tensor: its shape, with the type of its numbers."""
    value = value_info(graph, tensor, name)
    value.type.tensor_type.elem_type = graph.type_of(number) or TensorProto.FLOAT
    return value
