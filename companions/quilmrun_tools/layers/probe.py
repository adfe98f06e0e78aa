"""Writes a model with inner results as further outputs."""

from __future__ import annotations

import hashlib
import itertools
import math
from dataclasses import dataclass
from pathlib import Path
from typing import Any, Iterable, Optional, Sequence

import onnx
from onnx import helper

from quilmrun_tools.artifacts.layer_results import ModelFile, ProbedLayer
from quilmrun_tools.artifacts.run_log import name_in_files
from quilmrun_tools.common.errors import Unreadable
from quilmrun_tools.common.own_files import check_own, write_own
from quilmrun_tools.layers.choose import Chosen
from quilmrun_tools.layers.graph import TYPE_NAMES, Graph

MAKER = "quilmrun-layers"
MARKER_KEY = "quilmrun.probe"  # in the metadata of a probe
_LONGEST_NAME = 127  # bytes of an output's name that runtimes take
_VALUE_BYTES = 23  # on disk: 4 in the .bin file and up to 19 in the .float file


@dataclass(frozen=True)
class Outputs:
    """The outputs of all probes of a model."""
    files: dict[str, list[str]]  # {file: its outputs, the model's own first}
    names: dict[str, str]  # {tensor: its output}
    own: int  # how many outputs the model has without the probe


def checksum(path: Path) -> ModelFile:
    """A model file by its path and content."""
    digest = hashlib.sha256()
    try:
        with open(path, "rb") as file:
            while part := file.read(1 << 20):
                digest.update(part)
    except OSError as error:
        raise Unreadable(f"cannot read {path}: {error.strerror}") from error
    return ModelFile(str(path.absolute()), digest.hexdigest())


def plan(graph: Graph, chosen: Sequence[Chosen], at_most: Optional[int], stem: str) -> Outputs:
    """Which probe has which outputs, under which names."""
    names = _distinct(graph, [one.tensor for one in chosen])
    added = [one.tensor for one in chosen if one.tensor not in graph.outputs]
    parts = _split(added, at_most)
    files = {f"{stem}.onnx" if len(parts) == 1 else f"{stem}-{number}.onnx":
             graph.outputs + [names[tensor] for tensor in part]
             for number, part in enumerate(parts, 1)}
    return Outputs(files, names, len(graph.outputs))


def _split(tensors: list[str], at_most: Optional[int]) -> list[list[str]]:
    """Parts of about the same length, none above `at_most`."""
    count = max(1, math.ceil(len(tensors) / at_most)) if at_most else 1
    ends = [round(len(tensors) * part / count) for part in range(count + 1)]
    return [tensors[start:end] for start, end in itertools.pairwise(ends)]


def _distinct(graph: Graph, tensors: Iterable[str]) -> dict[str, str]:
    """Names of outputs that stay distinct in the names of files, and that runtimes take."""
    used = {name_in_files(name) for name in graph.outputs}
    tensor_names = {*graph.producer, *graph.inputs, *graph.constants}
    names = {}
    for tensor in tensors:
        name = tensor
        if tensor not in graph.outputs:
            numbers = itertools.count(2)
            stem = tensor.encode()[:_LONGEST_NAME - 10].decode(errors="ignore")
            while name_in_files(name) in used or len(name.encode()) > _LONGEST_NAME or \
                    (name != tensor and name in tensor_names):
                name = f"{stem}_{next(numbers)}"
            used.add(name_in_files(name))
        names[tensor] = name
    return names


def check_folder(folder: Path, files: Iterable[str]) -> None:
    """Raises Unreadable unless the probes can be written, over nothing that others made."""
    try:
        folder.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise Unreadable(f"cannot make the folder {folder}: {error.strerror}") from error
    for file in files:
        path = folder / file
        if path.is_file() and path.stat().st_size > 0 and not _is_probe(path):
            raise Unreadable(f"{path} exists, and {MAKER} did not make it: name another folder")
        if not path.is_file():
            check_own(str(path), b"", MAKER)


def _is_probe(path: Path) -> bool:
    """Whether a file is one of ours. The metadata stand at its end."""
    with open(path, "rb") as file:
        file.seek(-min(path.stat().st_size, 4096), 2)
        return MARKER_KEY.encode() in file.read()


def write_probes(graph: Graph, outputs: Outputs, folder: Path) -> None:
    """Writes every probe: the model, with nodes, weights and tensors as they are, and its further
    outputs. An output of another name than its tensor comes from an Identity."""
    model = graph.model
    nodes, values = len(model.graph.node), len(model.graph.output)
    tensors = {output: tensor for tensor, output in outputs.names.items()}
    if all(one.key != MARKER_KEY for one in model.metadata_props):
        model.metadata_props.add(key=MARKER_KEY, value=MAKER)
    for file, names in outputs.files.items():
        for name in names[values:]:
            tensor = tensors[name]
            if name != tensor:
                model.graph.node.append(helper.make_node("Identity", [tensor], [name]))
            model.graph.output.append(value_info(graph, tensor, name))
        save(model, folder / file)
        del model.graph.node[nodes:]
        del model.graph.output[values:]


def save(model: Any, path: Path) -> None:
    """Writes a model whole or not at all."""
    try:
        content = model.SerializeToString()
    except ValueError as error:
        raise Unreadable(f"{path} would have more than 2 GB") from error
    write_own(str(path), content, b"", MAKER)  # check_folder() knew what is there as ours


def value_info(graph: Graph, tensor: str, name: str) -> Any:
    """An output for a tensor. Its shape is left to the reader of the model where the model's
    operators are newer than those that ONNX's package infers shapes for."""
    known = graph.described.get(tensor)
    result = helper.make_tensor_value_info(name, graph.type_of(tensor), None)
    newest = onnx.defs.onnx_opset_version()
    if known is not None and known.type.tensor_type.HasField("shape") and \
            all(one.version <= newest for one in graph.model.opset_import if not one.domain):
        result.type.tensor_type.shape.CopyFrom(known.type.tensor_type.shape)
    return result


def describe(graph: Graph, chosen: Sequence[Chosen], outputs: Outputs) -> list[ProbedLayer]:
    """What every further output is."""
    tapped = {one.tensor for one in chosen}
    file_of = {name: file for file, names in reversed(outputs.files.items()) for name in names}
    layers = []
    for one in chosen:
        node = graph.nodes[one.node]
        output = outputs.names[one.tensor]
        layers.append(ProbedLayer(
            one.tensor, output, node.name, node.op_type, one.activation,
            graph.producer[one.tensor], graph.ancestors([one.tensor], tapped)[1],
            TYPE_NAMES[graph.type_of(one.tensor)], graph.shape_of(one.tensor), file_of[output]))
    return layers


def said_of_sizes(layers: Sequence[ProbedLayer]) -> list[str]:
    """How much an inference of the probe writes."""
    sizes = [math.prod(layer.shape) for layer in layers if layer.shape is not None]
    values = sum(sizes)
    unknown = len(layers) - len(sizes)
    count = f"{len(layers)} layer{'s' if len(layers) != 1 else ''}"
    lines = [f"{count}, {_millions(values)} values, about {_megabytes(values * _VALUE_BYTES)} an "
             "inference"]
    if unknown:
        lines.append(f"without {unknown} whose shapes are not known: where inputs leave theirs "
                     "open, give the host runtime's settings with \"input_shapes\" (-j)")
    if values * _VALUE_BYTES > 1e9:
        lines.append("fewer outputs take less room: choose operators, as with --only Conv,Gemm, or "
                     "a part of the graph with --from and --to")
    return lines


def _millions(count: int) -> str:
    return f"{count / 1e6:.1f} million" if count >= 1e6 else f"{count:,}"


def _megabytes(size: int) -> str:
    if size >= 1e9:
        return f"{size / 1e9:.1f} GB"
    return f"{size / 1e6:.0f} MB" if size >= 1e6 else f"{math.ceil(size / 1e3)} KB"
