#!/usr/bin/python3
"""Shows how well the electrocardiogram was predicted: show.py OUTDIR, after a run of quilmrun.

Exit status 0 if the network predicts better than "the last value again", 1 otherwise or if an
output file is missing.
"""

import math
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent))
from outputs import OutputError, read_floats, read_list, read_output, run_viewer  # noqa: E402
from plot import characters, svg  # noqa: E402

SAMPLES_PER_MS = 0.36
FRAME = 4
MAX_FRAMES = 256
STYLES = (
    ("electrocardiogram", "#9aa5b1", 2.5),
    ("network, predicted 11.1 ms ahead", "#c8102e", 1.3),
)


class Sequence:
    """One held-out sequence with the network's predictions.

    The prediction made after a frame is for the last sample of the next frame, so that the one
    after the last frame has nothing to be compared with.
    """

    def __init__(self, samples, predictions):
        self.samples = samples
        self.frames = len(samples) // FRAME
        self.predicted = predictions[: self.frames - 1]
        self.after_end = predictions[self.frames :]
        frame_ends = samples[FRAME - 1 :: FRAME]
        self.wanted = frame_ends[1:]
        self.last_value = frame_ends[:-1]

    def curves(self):
        """Returns the curve and the predictions as points (ms, mV)."""
        curve = [(n / SAMPLES_PER_MS, v) for n, v in enumerate(self.samples)]
        times = [((n + 2) * FRAME - 1) / SAMPLES_PER_MS for n in range(len(self.predicted))]
        return curve, list(zip(times, self.predicted))


def rmse(pairs):
    """Returns the root of the mean squared difference of (a, b) pairs."""
    pairs = list(pairs)
    return math.sqrt(sum((a - b) ** 2 for a, b in pairs) / len(pairs))


def errors(sequences):
    """Returns the RMSE in mV of the network and of "the last value again"."""
    wanted = [v for s in sequences for v in s.wanted]
    predicted = [v for s in sequences for v in s.predicted]
    last = [v for s in sequences for v in s.last_value]
    return rmse(zip(predicted, wanted)), rmse(zip(last, wanted))


def read_sequences(outdir):
    """Returns the sequences of the input list, two named entries each, with their outputs."""
    entries = read_list(HERE / "list.txt")
    sequences = []
    for run in range(len(entries) // 2):
        files = dict(entries[2 * run : 2 * run + 2])
        predictions = read_output(outdir, run, "prediction", MAX_FRAMES)
        sequences.append(Sequence(read_floats(files["frames"]), predictions))
    return sequences


def write_picture(sequences, path):
    """Writes the SVG picture with one panel for each sequence."""
    panels = []
    for number, sequence in enumerate(sequences):
        network, last = errors([sequence])
        title = (
            f"Sequence {number}: {sequence.frames} frames, RMSE {network:.3f} mV "
            f"(last value again: {last:.3f} mV)"
        )
        panels.append((title, sequence.curves()))
    path.write_text(svg(panels, STYLES, "time (ms)", "voltage (mV)"))


def print_plot(sequence):
    """Prints the longest sequence's curve and predictions as characters."""
    print(f"{sequence.frames} frames; '.' electrocardiogram in mV, 'o' predicted 11.1 ms ahead")
    print("\n".join(characters(sequence.curves(), ".o", columns=76, rows=18)))
    print(" " * 60 + "time in ms\n")


def check_marks(sequences):
    """Raises OutputError if there is a prediction for frames after a sequence's end."""
    for number, sequence in enumerate(sequences):
        if any(sequence.after_end):
            raise OutputError(f"sequence {number} has predictions after its last frame")


def show(outdir):
    """Prints and draws the result; returns whether the network beats the simple predictor."""
    sequences = read_sequences(outdir)
    check_marks(sequences)
    print_plot(max(sequences, key=lambda s: s.frames))
    network, last = errors(sequences)
    counts = ", ".join(str(s.frames) for s in sequences)
    print(f"Held-out error (RMSE) over {len(sequences)} sequences of {counts} frames:")
    print(f"  network               {network:.3f} mV")
    print(f"  last value again      {last:.3f} mV")
    picture = Path(outdir) / "prediction.svg"
    write_picture(sequences, picture)
    print(f"Picture: {picture}")
    return network < last


if __name__ == "__main__":
    run_viewer(show)
