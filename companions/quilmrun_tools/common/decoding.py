"""From parsed JSON to dataclasses and back, by the dataclasses' type hints.

Every value is checked against its hint, so that a file that is wrong or damaged is found out where
it is read and not where it is used. Keys that no field has are ignored: a later version may have
added them. A float that JSON cannot write is a text: "inf", "-inf" or "nan".
"""

import dataclasses
import functools
import math
import types
import typing
from pathlib import Path
from typing import Any, Callable, Literal, Mapping, TypeVar, Union

Decoded = TypeVar("Decoded")
_Decode = Callable[[Any], Any]

_LARGEST_INT = 2**63
_WRITTEN_FLOATS = {"inf": math.inf, "-inf": -math.inf, "nan": math.nan}


class Wrong(Exception):
    """A value that does not fit its hint; `place` is the way to it, as in runs[3].index."""

    def __init__(self, reason: str, place: str = "") -> None:
        super().__init__(reason)
        self.reason = reason
        self.place = place

    def within(self, step: str) -> "Wrong":
        """The same, seen from one level above."""
        joint = "." if self.place and not self.place.startswith("[") else ""
        return Wrong(self.reason, step + joint + self.place)

    def __str__(self) -> str:
        return f"{self.place} {self.reason}".strip()


def json_name(name: str, **options: Any) -> Any:
    """A dataclass's field that has another name in JSON, where Python's grammar forbids it."""
    return dataclasses.field(metadata={"json": name}, **options)


def not_in_json(**options: Any) -> Any:
    """A dataclass's field, with a default, that is neither written nor read."""
    return dataclasses.field(metadata={"json": None}, **options)


def decode(kind: type[Decoded], value: object) -> Decoded:
    """A value of the hint `kind`; raises Wrong when parsed JSON holds anything else."""
    hint: Any = kind
    result: Decoded = _decoder(hint)(value)
    return result


def encode(value: object) -> Any:
    """What decode() takes: dataclasses as dicts, paths as texts, numbers of NumPy as Python's."""
    if dataclasses.is_dataclass(value) and not isinstance(value, type):
        return {name: encode(getattr(value, field.name))
                for field in dataclasses.fields(value) if (name := _name(field)) is not None}
    if isinstance(value, Mapping):
        return {str(key): encode(part) for key, part in value.items()}
    if isinstance(value, (list, tuple)):
        return [encode(part) for part in value]
    if isinstance(value, float):
        return float(value) if math.isfinite(value) else str(float(value))
    if value is None or isinstance(value, (bool, int, str)):
        return value
    return encode(value.item()) if hasattr(value, "item") else str(value)


def _name(field: "dataclasses.Field[Any]") -> Any:
    return field.metadata.get("json", field.name)


@functools.lru_cache(maxsize=None)
def _decoder(kind: Any) -> _Decode:
    """The function that checks and converts one kind of value."""
    origin, arguments = typing.get_origin(kind), typing.get_args(kind)
    if dataclasses.is_dataclass(kind):
        return _dataclass(kind)
    if origin in (Union, types.UnionType):
        return _union(kind, [_decoder(argument) for argument in arguments])
    if origin is list:
        return _sequence(list, _decoder(arguments[0]))
    if origin is tuple and arguments[1:] == (...,):
        return _sequence(tuple, _decoder(arguments[0]))
    if origin is tuple:
        return _fixed([_decoder(argument) for argument in arguments])
    if origin is dict:
        return _dict(_decoder(arguments[1]))
    if origin is Literal:
        return _literal(arguments)
    return _PLAIN[kind]


def _int(value: Any) -> int:
    if type(value) is not int:  # pylint: disable=unidiomatic-typecheck  # True is an int too
        raise Wrong(f"is {_shown(value)}, not a whole number")
    if not -_LARGEST_INT <= value < _LARGEST_INT:
        raise Wrong("is a number of more than 64 bits")
    return value


def _float(value: Any) -> float:
    if isinstance(value, str) and value in _WRITTEN_FLOATS:
        return _WRITTEN_FLOATS[value]
    if isinstance(value, float) and math.isfinite(value):
        return value
    if isinstance(value, float):
        raise Wrong("is a number beyond what a float holds")
    if type(value) is int:  # pylint: disable=unidiomatic-typecheck
        return float(_int(value))
    raise Wrong(f"is {_shown(value)}, not a number")


def _bool(value: Any) -> bool:
    if not isinstance(value, bool):
        raise Wrong(f"is {_shown(value)}, neither true nor false")
    return value


def _str(value: Any) -> str:
    if not isinstance(value, str):
        raise Wrong(f"is {_shown(value)}, not a text")
    return value


def _none(value: Any) -> None:
    if value is not None:
        raise Wrong(f"is {_shown(value)}, not null")


_PLAIN: dict[Any, _Decode] = {int: _int, float: _float, bool: _bool, str: _str, object: lambda x: x,
                              type(None): _none, Path: lambda value: Path(_str(value))}


def _union(kind: Any, decoders: list[_Decode]) -> _Decode:
    def decode_any(value: Any) -> Any:
        reasons: list[Wrong] = []
        for one in decoders:
            try:
                return one(value)
            except Wrong as wrong:
                reasons.append(wrong)
        # Of "X or null", what is wrong is the X.
        if len(decoders) == 2 and type(None) in typing.get_args(kind):
            raise reasons[0]
        raise Wrong(f"is {_shown(value)}, which does not belong there")
    return decode_any


def _sequence(make: Callable[[Any], Any], one: _Decode) -> _Decode:
    def decode_sequence(value: Any) -> Any:
        values, at = _list(value), -1

        def each() -> Any:
            nonlocal at
            for at, part in enumerate(values):
                yield one(part)
        try:
            return make(each())
        except Wrong as wrong:
            raise wrong.within(f"[{at}]") from None
    return decode_sequence


def _fixed(decoders: list[_Decode]) -> _Decode:
    def decode_fixed(value: Any) -> Any:
        if len(_list(value)) != len(decoders):
            raise Wrong(f"has {len(value)} values instead of {len(decoders)}")
        parts = []
        for at, (one, part) in enumerate(zip(decoders, value)):
            try:
                parts.append(one(part))
            except Wrong as wrong:
                raise wrong.within(f"[{at}]") from None
        return tuple(parts)
    return decode_fixed


def _list(value: Any) -> list[Any]:
    if not isinstance(value, list):
        raise Wrong(f"is {_shown(value)}, not a list")
    return value


def _dict(one: _Decode) -> _Decode:
    def decode_dict(value: Any) -> dict[str, Any]:
        if not isinstance(value, dict):
            raise Wrong(f"is {_shown(value)}, not an object")
        decoded = {}
        for key, part in value.items():
            try:
                decoded[key] = one(part)
            except Wrong as wrong:
                raise wrong.within(_shortened(key)) from None
        return decoded
    return decode_dict


def _literal(allowed: tuple[Any, ...]) -> _Decode:
    def decode_literal(value: Any) -> Any:
        for one in allowed:
            if type(one) is type(value) and one == value:
                return one
        raise Wrong(f"is {_shown(value)}, not {' or '.join(map(repr, allowed))}")
    return decode_literal


def _dataclass(kind: Any) -> _Decode:
    hints = typing.get_type_hints(kind)
    fields = [(field.name, _name(field), _decoder(hints[field.name]),
               field.default is dataclasses.MISSING
               and field.default_factory is dataclasses.MISSING)
              for field in dataclasses.fields(kind) if _name(field) is not None and field.init]

    def decode_dataclass(value: Any) -> Any:
        if not isinstance(value, dict):
            raise Wrong(f"is {_shown(value)}, not an object")
        found = {}
        for own, name, one, required in fields:
            if name in value:
                try:
                    found[own] = one(value[name])
                except Wrong as wrong:
                    raise wrong.within(name) from None
            elif required:
                raise Wrong("is missing", name)
        return kind(**found)
    return decode_dataclass


def _shown(value: Any) -> str:
    """A value in a message of one line."""
    if isinstance(value, (list, dict)):
        return "a list" if isinstance(value, list) else "an object"
    if value is None or isinstance(value, bool):
        return {None: "null", True: "true", False: "false"}[value]
    return _shortened(repr(value)) if isinstance(value, (str, float)) else "a number"


def _shortened(text: str) -> str:
    return text if len(text) <= 40 else text[:37] + "..."
