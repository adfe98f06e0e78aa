"""quilmrun-accuracy: how well a run answers its task."""

import argparse
from typing import Callable, Iterator

from quilmrun_tools.accuracy import annotations, classify, command_line, detect, labels, show
from quilmrun_tools.accuracy.boxes import BOX_ROWS, WHOLE_ROWS, BoxFormat
from quilmrun_tools.artifacts import accuracy_results as results
from quilmrun_tools.artifacts.run_log import name_in_files
from quilmrun_tools.artifacts.run_outputs import RunOutputs, Sources, read_run_outputs
from quilmrun_tools.common.errors import Status, Unreadable
from quilmrun_tools.common.json_files import check_json
from quilmrun_tools.common.progress import progress
from quilmrun_tools.common.streams import Streams

Watch = Callable[[list[int]], Iterator[int]]


def main(arguments: list[str], streams: Streams) -> int:
    """Runs the companion."""
    options = command_line.parse(arguments)
    check_json(options.json, results.FORMAT)
    outputs = _read(options, options.output_folder, options.log)

    def watch(runs: list[int]) -> Iterator[int]:
        return progress(streams, runs, len(runs), "judging", "inference")
    found = _detection(options, outputs, watch) if options.annotations else \
        _classification(options, outputs, watch)
    found.notes[:0] = outputs.notes
    if options.json:
        results.write_accuracy(options.json, found, streams.out)
    if options.json != "-":
        _show(found, streams)
    return Status.NO if found.verdict == "fail" else Status.YES


def _show(found: results.Results, streams: Streams) -> None:
    if isinstance(found, results.Classification):
        show.show_classification(found, streams)
    else:
        show.show_detection(found, streams)


def _read(options: argparse.Namespace, path: str, log: str | None) -> RunOutputs:
    types = {name_in_files(name): kind for name, kind in options.type}
    inputs = options.inputs if path == options.output_folder else None
    return read_run_outputs(path, Sources(log, inputs, types, options.newest))


def _classification(options: argparse.Namespace, outputs: RunOutputs, watch: Watch
                    ) -> results.Results:
    scores = classify.find_scores(outputs, options.output)
    classes = labels.read_classes(options.classes, scores.classes)
    pictures = classify.all_pictures(scores)
    if options.labels:
        true = labels.from_file(options.labels, pictures, classes)
    else:
        true, classes = labels.from_folders(pictures, classes)
    judged = classify.judge_all(scores, pictures, true, watch)
    found = classify.summarise(options.output_folder, judged, true, classes)
    found.limit = options.min_top1
    if options.against:
        other = classify.find_scores(_read(options, options.against, options.against_log),
                                     options.output)
        if other.classes != scores.classes:
            raise Unreadable(f"--against: {options.against} has {other.classes} classes instead of "
                             f"{scores.classes}")
        theirs = classify.all_pictures(other)
        classify.check_same_pictures(pictures, theirs, options.against)
        found.against = classify.hold_against(
            options.against, judged, classify.judge_all(other, theirs, true, watch), true, classes)
    return found


def _detection(options: argparse.Namespace, outputs: RunOutputs, watch: Watch) -> results.Results:
    form = BoxFormat.parse(options.box_format or (BOX_ROWS if options.scores else WHOLE_ROWS))
    known = annotations.read_annotations(options.annotations)
    for name, option, given, needed in (
            ("score", "--scores", options.scores, True),
            ("class", "--classes-output", options.classes_output, len(known.categories) > 1)):
        if form.has(name) + bool(given) not in (1, int(needed)):
            raise Unreadable(f"give the {name} of a box either in --box-format or with {option}")
    asked = detect.BoxOptions(
        form, {"boxes": options.boxes, "scores": options.scores, "classes": options.classes_output,
               "count": options.count}, options.category_ids, options.min_score,
        None if options.coordinates is None else options.coordinates == "shares")
    judge = detect.Judge(known, outputs, asked)
    compared = judge.compare(detect.BoxReader(outputs, asked).read(watch))
    found = detect.summarise(options.output_folder, compared, known, judge.notes)
    found.limit = options.min_ap
    return found
