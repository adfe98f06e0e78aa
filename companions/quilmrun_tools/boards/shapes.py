"""What the files of a model's outputs hold, by its description. Jobs do not need this, and start
faster without what it imports."""

from __future__ import annotations

from quilmrun_tools.artifacts.run_log import RunLog, name_in_files
from quilmrun_tools.boards.plan import OutputShape
from quilmrun_tools.boards.tool_command import ToolCommand


def shapes_of(log: RunLog, command: ToolCommand) -> list[OutputShape]:
    """The outputs as the model's description has them."""
    shapes: list[OutputShape] = []
    for tensor in log.outputs:
        name = name_in_files(tensor.name)
        one_batch = tensor.size * log.batch_size // max(command.batch, 1)
        rows = one_batch // tensor.stride if tensor.stride > 0 else 0
        last = tensor.dims[-1] if tensor.dims and rows else 0
        duplicate = sum(1 for shape in shapes if shape.name == name)
        shapes.append(OutputShape(name, duplicate, rows, max(last, 0)))
    return shapes
