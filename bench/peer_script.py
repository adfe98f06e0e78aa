#!/usr/bin/python3
"""peer_script.py ENGINE MODEL LIST OUT: what one would write in Python to run a model on many files.

Executes a model of one input and one output on each file of the list, by the C interface of the
engine's library with one thread. Writes what the tool writes: OUT/INDEX/NAME.0.STAMP.float with a
value a line, and OUT/INDEX/NAME.0.STAMP.bin. A first dimension that is open counts as 1.
"""

import ctypes
import os
import sys
import time
from collections.abc import Callable
from typing import Any

import numpy
import numpy.typing

INTERFACE_VERSION = 17
NUMPY_TYPES = {1: numpy.float32, 2: numpy.uint8}  # by the engine's element types
Array = numpy.typing.NDArray[Any]
Run = Callable[[], None]
Int, Size, Text, Pointer = ctypes.c_int, ctypes.c_size_t, ctypes.c_char_p, ctypes.c_void_p


class ApiBase(ctypes.Structure):
    """What the library's only function returns."""
    _fields_ = [("get_api", ctypes.CFUNCTYPE(Pointer, ctypes.c_uint32))]


class Engine:
    """The functions that are used here, by their positions in the engine's table."""

    def __init__(self, path: str) -> None:
        library = ctypes.CDLL(path)
        library.OrtGetApiBase.restype = ctypes.POINTER(ApiBase)
        table = library.OrtGetApiBase().contents.get_api(INTERFACE_VERSION)
        self._table = ctypes.cast(table, ctypes.POINTER(Pointer))
        self._get_message = self.function(2, Text, Pointer)

    def function(self, position: int, result: Any, *types: Any) -> Any:
        return ctypes.CFUNCTYPE(result, *types)(self._table[position])

    def checked(self, position: int, *types: Any) -> Callable[..., None]:
        """A function that returns a status."""
        function = self.function(position, Pointer, *types)

        def call(*arguments: Any) -> None:
            status = function(*arguments)
            if status:
                sys.exit(self._get_message(status).decode())
        return call

    def get(self, position: int, kind: Any, *arguments: Any) -> Any:
        """What a function stores where its last argument points; handles and numbers go before."""
        value = kind()
        types = [Pointer if isinstance(argument, Pointer) else Text if isinstance(argument, bytes)
                 else Int for argument in arguments]
        self.checked(position, *types, Pointer)(*arguments, ctypes.byref(value))
        return value


def create_session(engine: Engine, path: str) -> Any:
    options = engine.get(10, Pointer)
    engine.checked(24, Pointer, Int)(options, 1)  # threads
    environment = engine.get(3, Pointer, 3, b"script")  # severity 3: errors
    with open(path, "rb") as file:
        model = file.read()
    session = Pointer()
    engine.checked(8, Pointer, Text, Size, Pointer, Pointer)(environment, model, len(model), options,
                                                             ctypes.byref(session))
    return session


def describe(engine: Engine, session: Any, get_name: int,
             get_type: int) -> tuple[bytes, int, Array]:
    """Name, and an array of the shape and type of the session's first input or output."""
    name, kind = Text(), Pointer()
    allocator = engine.get(78, Pointer)
    engine.checked(get_name, Pointer, Size, Pointer, Pointer)(session, 0, allocator,
                                                              ctypes.byref(name))
    engine.checked(get_type, Pointer, Size, Pointer)(session, 0, ctypes.byref(kind))
    tensor = engine.get(55, Pointer, kind)
    shape = (ctypes.c_int64 * engine.get(61, Size, tensor).value)()
    engine.checked(62, Pointer, Pointer, Size)(tensor, shape, len(shape))
    element_type = engine.get(60, Int, tensor).value
    return name.value or b"", element_type, numpy.zeros([max(dim, 1) for dim in shape],
                                                 NUMPY_TYPES[element_type])


def make_tensor(engine: Engine, array: Array, element_type: int) -> Any:
    """A tensor of the engine that shares the array's memory."""
    shape = (ctypes.c_int64 * array.ndim)(*array.shape)
    memory, tensor = engine.get(69, Pointer, 0, 0), Pointer()
    engine.checked(49, Pointer, Pointer, Size, Pointer, Size, Int, Pointer)(
        memory, array.ctypes.data, array.nbytes, shape, array.ndim, element_type,
        ctypes.byref(tensor))
    return tensor


def make_runner(engine: Engine, session: Any) -> tuple[Array, str, Array, Run]:
    """The input's array, the output's name and array, and a function that computes one of the other."""
    input_name, input_type, inputs = describe(engine, session, 36, 33)
    output_name, output_type, outputs = describe(engine, session, 37, 34)
    input_tensor = Pointer(make_tensor(engine, inputs, input_type).value)
    output_tensor = Pointer(make_tensor(engine, outputs, output_type).value)
    run = engine.checked(9, Pointer, Pointer, Pointer, Pointer, Size, Pointer, Size, Pointer)
    names = Text(input_name), Text(output_name)
    arguments = (session, None, ctypes.byref(names[0]), ctypes.byref(input_tensor), 1,
                 ctypes.byref(names[1]), 1, ctypes.byref(output_tensor))
    return inputs, output_name.decode(), outputs, lambda: run(*arguments)


def write(folder: str, name: str, values: Array) -> None:
    os.mkdir(folder)
    base = f"{folder}/{name}.0.{time.time_ns() // 1000}"
    with open(base + ".float", "w", encoding="ascii") as file:
        file.writelines(f"{value:.16f}\n" for value in values.ravel().tolist())
    values.astype(numpy.float32).tofile(base + ".bin")


def main() -> None:
    engine_path, model, list_path, out = sys.argv[1:]
    engine = Engine(engine_path)
    inputs, name, outputs, run = make_runner(engine, create_session(engine, model))
    with open(list_path, encoding="utf-8") as file:
        paths = file.read().split()
    for index, path in enumerate(paths):
        inputs.reshape(-1)[:] = numpy.fromfile(path, inputs.dtype)
        run()
        write(f"{out}/{index}", name, outputs)


if __name__ == "__main__":
    main()
