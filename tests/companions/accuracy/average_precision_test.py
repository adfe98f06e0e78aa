"""Average precision against COCO's definition, on boxes made at random."""

import random
import sys
import unittest
from pathlib import Path

import numpy as np

sys.path[:0] = [str(Path(__file__).parent), str(Path(__file__).parents[3] / "companions")]
import coco_definition
from quilmrun_tools.accuracy import average_precision
from quilmrun_tools.accuracy.average_precision import Detections, Objects


class Boxes:
    """Pictures with objects, crowds among them, and detections near them or anywhere."""

    def __init__(self, seed):
        self.chance = random.Random(seed)
        self.images = self.chance.sample(range(1000), self.chance.choice([1, 4, 12]))
        self.categories = list(range(self.chance.choice([1, 3])))
        self.annotations, self.detections = {}, {}
        for image in self.images:
            for category in self.categories:
                if self.chance.random() < 0.2:  # nothing in it
                    continue
                self.fill(image, category)

    def fill(self, image, category):
        chance = self.chance
        objects = [(self.box(), chance.random() < 0.2) for _ in range(chance.choice([0, 1, 3, 8]))]
        self.annotations[image, category] = [
            (box, box[2] * box[3] * chance.choice([1, 1, 0.5]), crowd) for box, crowd in objects]
        found = [self.box() for _ in range(chance.choice([0, 2, 5]))]
        found += [self.near(box) for box, _ in objects for _ in range(chance.choice([0, 1, 1, 3]))]
        if chance.random() < 0.03:
            found += [self.box() for _ in range(120)]
        self.detections[image, category] = [
            (box, chance.choice([chance.random(), 0.5, 0.75])) for box in found]

    def box(self):
        size = self.chance.choice([32, 20, 96, 60, 150])  # whose squares are the limits of sizes
        return [self.chance.randrange(300), self.chance.randrange(300), size,
                size * self.chance.choice([1, 1, 1.5])]

    def near(self, box):
        step = self.chance.choice([0, 0, 1, 4, 15])
        return [value + step * self.chance.choice([-1, 0, 1]) for value in box]

    def summary(self):
        """Of the companion's evaluator."""
        by_class = {}
        for category in self.categories:
            by_class[category] = [average_precision.match(
                self.detected(image, category), self.annotated(image, category))
                for image in sorted(self.images)]
        return average_precision.summarise(by_class)

    def detected(self, image, category):
        rows = self.detections.get((image, category), [])
        return Detections(np.array([box for box, _ in rows], float).reshape(-1, 4),
                          np.array([score for _, score in rows], float))

    def annotated(self, image, category):
        rows = self.annotations.get((image, category), [])
        return Objects(np.array([row[0] for row in rows], float).reshape(-1, 4),
                       np.array([row[1] for row in rows], float),
                       np.array([row[2] for row in rows], bool))


class AveragePrecision(unittest.TestCase):
    def test_like_the_definition(self):
        for seed in range(100):
            boxes = Boxes(seed)
            wanted = coco_definition.evaluate(boxes.detections, boxes.annotations, boxes.images,
                                              boxes.categories)
            found = boxes.summary()
            values = [found.ap, found.ap50, found.ap75, *found.ap_by_size, *found.recall,
                      *found.by_class.values()]
            classes = wanted.pop("classes")
            for name, one, other in zip([*wanted, *boxes.categories], values,
                                        [*wanted.values(), *classes]):
                self.assertAlmostEqual(one, other, delta=1e-9, msg=f"{name}, seed {seed}")


    def test_nothing_detected(self):
        there = Objects(np.array([[0, 0, 10, 10.0]]), np.array([100.0]), np.array([False]))
        seen = Detections(np.array([[0, 0, 10, 10.0]]), np.array([0.5]))
        none = average_precision.none_detected()
        found = average_precision.summarise({
            1: [average_precision.match(seen, there)], 2: [average_precision.match(none, there)],
            3: [average_precision.match(seen, average_precision.none_annotated())], 4: []})
        np.testing.assert_allclose(found.ap, 0.5)
        np.testing.assert_allclose(found.recall, [0.5] * 3)
        np.testing.assert_allclose([*found.by_class.values()], [1, 0, -1, -1])

    def test_partners_and_the_best_score(self):
        """Which object a box found at an IoU of 0.5, and from which score on F1 is best."""
        there = Objects(np.array([[0, 0, 10, 10], [50, 0, 10, 10], [90, 0, 10, 10.0]]),
                        np.full(3, 100.0), np.zeros(3, bool))
        boxes = np.array([[90, 0, 10, 7], [0, 0, 10, 6], [20, 0, 5, 5], [0, 0, 10, 10.0]])
        matches = average_precision.match(Detections(boxes, np.array([.2, .9, .5, .1])), there)
        self.assertEqual(matches.scores.tolist(), [.9, .5, .2, .1])
        self.assertEqual(matches.partner.tolist(), [0, -1, 2, -1])
        self.assertEqual(average_precision.best_threshold([matches]), .2)
        self.assertEqual(average_precision.right_or_wrong(matches, .2), [True, False, True, None])
        self.assertEqual(average_precision.best_threshold([]), 0)
        crowd = Objects(np.array([[0, 0, 6, 10.0]]), np.array([60.0]), np.array([True]))
        matches = average_precision.match(Detections(boxes[3:], np.array([.5])), crowd)
        self.assertEqual(average_precision.right_or_wrong(matches, 0), [None])


if __name__ == "__main__":
    unittest.main()
