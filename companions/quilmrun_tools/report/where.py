"""Where a run took place and with what, and whether two runs can be compared at all."""

from __future__ import annotations

from quilmrun_tools.artifacts.record_figures import UsedFile, Where
from quilmrun_tools.common.units import data_size
from quilmrun_tools.report.side import Side

_SHORT = 12  # letters of a checksum that are shown


def rows_of(where: Where) -> list[tuple[str, str]]:
    """Machine, files and versions, as rows of the settings; empty where nothing tells."""
    machine = [where.name, where.board, where.processor,
               f"{where.cores} cores" if where.cores else None, where.kernel]
    return [("Recorded", where.date or ""),
            ("Machine", ", ".join(one for one in machine if one)),
            ("Runtime library", _file(where.runtime)), ("Model file", _file(where.model)),
            ("Settings file", _file(where.settings)), ("Tool", _file(where.tool)),
            ("Version of the recorder", where.companions or "")]


def _file(used: UsedFile | None) -> str:
    if used is None:
        return ""
    size = "" if used.bytes is None else f", {data_size(used.bytes)}"
    checksum = f", sha256 {used.sha256[:_SHORT]}..." if used.sha256 else ""
    return f"{used.path}{size}{checksum}"


def difference_of(sides: list[Side]) -> str:
    """What two runs differ in that makes them hard to compare: models or runtime libraries, by
    checksum; otherwise inputs and outputs, by the logs. Empty when nothing tells of one."""
    if len(sides) < 2:
        return ""
    for what, kind in (("model", "models"), ("runtime", "runtime libraries")):
        before, after = (_checksum(side, what) for side in sides)
        if before and after and before != after:
            return (f"The two runs are of different {kind}: {_named(sides[0], what)} in "
                    f"{sides[0].label}, {_named(sides[1], what)} in {sides[1].label}.")
    return _by_logs(sides)


def _used(side: Side, what: str) -> UsedFile | None:
    found: UsedFile | None = getattr(side.run.record.where, what) if side.run.record else None
    return found


def _checksum(side: Side, what: str) -> str:
    used = _used(side, what)
    return (used.sha256 if used else None) or ""


def _named(side: Side, what: str) -> str:
    used = _used(side, what)
    return f"{used.path} ({_checksum(side, what)[:_SHORT]}...)" if used else "an unknown one"


def _by_logs(sides: list[Side]) -> str:
    logs = [side.run.log for side in sides if side.run.log]
    if len(logs) < 2:
        return ""
    for what in ("data_inputs", "outputs"):
        before, after = ([(tensor.name, tensor.dims, tensor.type_name) for tensor in
                          getattr(log, what)] for log in logs)
        if before != after:
            kind = "inputs" if what == "data_inputs" else "outputs"
            return (f"The two runs are of models with different {kind}: {_listed(before)} in "
                    f"{sides[0].label}, {_listed(after)} in {sides[1].label}. Compare runs of the "
                    "same model, or read the figures side by side with care.")
    return ""


def _listed(tensors: list[tuple[str, tuple[int, ...], str]]) -> str:
    return "; ".join(f"{name} {kind} {' × '.join(map(str, dims))}"
                     for name, dims, kind in tensors) or "none"
