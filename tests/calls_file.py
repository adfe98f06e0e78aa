"""Calls files as quilmrun-record leaves them, with calls of a test's choice; what their parts mean
is told by companions/recorder/calls_file.h."""

import pathlib
import re
import struct

import numpy as np

SOURCE = pathlib.Path(__file__).resolve().parents[1]
FUNCTIONS = re.findall(r"CALL\(\d, (quilm_\w+)\)",
                       (SOURCE / "runtime/interposer/calls.h").read_text())
UNFINISHED = 2**64 - 1
LATEST = 1024  # entries before those that were moved to the end
START = 4096 + 2 * 4096 + 4 * 4096  # bytes before the latest entries
PREPARED, RECORDING, ENDED = range(3)
ENTRY = np.dtype([("start", "<u8"), ("duration", "<u8"), ("result", "<i8"), ("object", "<u8"),
                  ("bytes", "<u8"), ("before", "<u8"), ("thread", "<u4"), ("call", "<u4"),
                  ("unused", "<u8")])
WITHOUT_ENTRY = ("count", "failed", "total", "min", "max")


def number_of(function):
    return FUNCTIONS.index("quilm_" + function) + 1


class CallsFile:
    """Calls one after the other; all times in ns."""

    def __init__(self):
        self.now = 1000
        self.entries = []
        self.datasets = 0
        self.without_entry = {}

    def call(self, function, duration=100, result=0, object=0, bytes=0, after=0, thread=7):
        """A call that begins so long after the last one."""
        self.now += after
        self.entries.append((self.now, duration, result, object, bytes, 0, thread,
                             number_of(function), 0))
        self.datasets += function == "mdl_create_dataset"
        self.now += 0 if duration == UNFINISHED else duration

    def asked(self, function, **totals):
        """Calls without an entry."""
        self.without_entry["quilm_" + function] = totals

    def inference(self, number, executions, staging=50, writing=70, end=True, fails=0):
        """An inference of one input of 64 bytes; the last execution may return a failure."""
        self.call("mdl_create_dataset", result=900 + number)
        for memory, gap in ((10, staging), (11, 5)):
            self.call("rt_malloc", object=memory, bytes=64)
            self.call("create_data_buffer", object=memory, bytes=64, after=gap, result=5)
            if memory == 10:
                self.call("mdl_set_dynamic_batch_size")
        for duration in executions[:-1]:
            self.call("mdl_execute", duration)
        self.call("mdl_execute", executions[-1], result=fails)
        self.call("rt_free", object=10, after=writing)
        self.call("rt_free", object=11)
        if end:
            self.call("mdl_destroy_dataset", object=900 + number)

    def bytes(self, state=ENDED, facts=(), dropped=0, entries=None, **header):
        """The file: what is beyond the latest entries has been moved to the end."""
        entries = np.array(self.entries, ENTRY) if entries is None else entries
        count = len(entries)
        fields = {"state": state, "start": 0, "start_us": 1_700_000_000_000_000, "cost": 70_000,
                  "count": count, "flushed": (count - 1) // LATEST * LATEST, "dropped": dropped,
                  "every_call": 0, "datasets": self.datasets, "inputs": 3, "end": 0, **header}
        text = struct.pack("<16sQQqQQQQQQQQ", b"quilmrun calls2", *fields.values())
        for function in FUNCTIONS:
            totals = self.without_entry.get(function, {})
            text += struct.pack("<5Q", *(totals.get(name, 0) for name in WITHOUT_ENTRY))
        text = text.ljust(4096, b"\0") + b"/lib/libquilm.so".ljust(4096, b"\0")
        text += b"/bin/quilmrun".ljust(4096, b"\0")
        text += b"".join(word + b"\0" for fact in facts for word in fact).ljust(4 * 4096, b"\0")
        latest = np.zeros(LATEST, ENTRY)
        flushed = fields["flushed"]
        for number in range(flushed, count):
            latest[number % LATEST] = entries[number]
        return text + latest.tobytes() + entries[:flushed].tobytes()
