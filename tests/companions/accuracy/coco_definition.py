"""COCO's evaluation of boxes, written down step by step as it is defined; slow, and on purpose
without anything of the companion."""

import math

import numpy as np

THRESHOLDS = np.linspace(0.5, 0.95, 10).tolist()
RECALLS = np.linspace(0, 1, 101).tolist()
AREAS = {"all": (0, 1e10), "small": (0, 1024), "medium": (1024, 9216), "large": (9216, 1e10)}


def iou(one, other, crowd):
    left, top = max(one[0], other[0]), max(one[1], other[1])
    right = min(one[0] + one[2], other[0] + other[2])
    bottom = min(one[1] + one[3], other[1] + other[3])
    if right <= left or bottom <= top:
        return 0.0
    shared = (right - left) * (bottom - top)
    own = one[2] * one[3]
    return shared / own if crowd else shared / (own + other[2] * other[3] - shared)


def evaluate_image(detections, annotations, area):
    """[(score, [matched at each threshold], [ignored at each])], and the number of objects. A
    detection is (box, score), an annotation (box, area, crowd)."""
    low, high = AREAS[area]
    marked = [(box, crowd, crowd or not low <= size <= high) for box, size, crowd in annotations]
    marked = [entry for entry in marked if not entry[2]] + [entry for entry in marked if entry[2]]
    best = sorted(detections, key=lambda detection: -detection[1])[:100]
    rows = [(score, [], []) for _, score in best]
    for threshold in THRESHOLDS:
        taken = set()
        for (box, _), (_, matched, ignored) in zip(best, rows):
            least, chosen = min(threshold, 1 - 1e-10), None
            for at, (wanted, crowd, ignore) in enumerate(marked):
                if at in taken and not crowd:
                    continue
                if chosen is not None and not marked[chosen][2] and ignore:
                    break
                overlap = iou(box, wanted, crowd)
                if overlap < least:
                    continue
                least, chosen = overlap, at
            if chosen is not None:
                taken.add(chosen)
            matched.append(chosen is not None)
            ignored.append(marked[chosen][2] if chosen is not None else
                           not low <= box[2] * box[3] <= high)
    return rows, sum(not ignore for _, _, ignore in marked)


def curve(images, limit, at):
    """(precision at the 101 recalls, last recall) at one threshold; None without objects."""
    objects = sum(count for _, count in images)
    if not objects:
        return None
    rows = [row for rows, _ in images for row in rows[:limit]]
    right = wrong = 0
    recalls, precisions = [], []
    for _, matched, ignored in sorted(rows, key=lambda row: -row[0]):
        if not ignored[at]:
            right, wrong = right + matched[at], wrong + (not matched[at])
        recalls.append(right / objects)
        precisions.append(right / (right + wrong + 2.0 ** -52))
    points = []
    for wanted in RECALLS:
        reached = [place for place, recall in enumerate(recalls) if recall >= wanted]
        points.append(max(precisions[reached[0]:]) if reached else 0.0)
    return points, recalls[-1] if recalls else 0.0


def mean(values):
    values = list(values)
    return math.fsum(values) / len(values) if values else -1.0


def evaluate(detections, annotations, images, categories):
    """{measure: value} for {(image, category): [...]} of both kinds."""
    def curves(area, limit, category):
        done = [evaluate_image(detections.get((image, category), []),
                               annotations.get((image, category), []), area)
                for image in sorted(images)]
        return [found for at in range(10) if (found := curve(done, limit, at))]

    whole = {category: curves("all", 100, category) for category in categories}
    result = {"ap": mean(point for found in whole.values() for points, _ in found
                         for point in points)}
    for name, at in (("ap50", 0), ("ap75", 5)):
        result[name] = mean(point for found in whole.values() if found for point in found[at][0])
    for area in ("small", "medium", "large"):
        result["ap_" + area] = mean(point for category in categories for points, _ in
                                    curves(area, 100, category) for point in points)
    for limit in (1, 10, 100):
        result[f"ar{limit}"] = mean(recall for category in categories
                                    for _, recall in curves("all", limit, category))
    result["classes"] = [mean(point for points, _ in whole[category] for point in points)
                         for category in categories]
    return result
