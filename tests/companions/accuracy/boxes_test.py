"""Boxes of every format, and their way back to the original picture."""

import sys
import unittest
from pathlib import Path

import numpy as np

sys.path.append(str(Path(__file__).resolve().parents[3] / "companions"))
from quilmrun_tools.accuracy import boxes
from quilmrun_tools.accuracy.boxes import BoxFormat, Parts, Placement, rows_of
from quilmrun_tools.common.errors import Unreadable


class Formats(unittest.TestCase):
    def test_corners(self):
        for columns, row in [("x1,y1,x2,y2", [10, 20, 40, 60]), ("y1,x1,y2,x2", [20, 10, 60, 40]),
                             ("x1,y1,w,h", [10, 20, 30, 40]), ("h,w,cy,cx", [40, 30, 40, 25]),
                             ("x2,y2,w,h", [40, 60, 30, 40]),
                             ("cx,-,y1,w,y2", [25, 9, 20, 30, 60])]:
            found = BoxFormat.parse(columns).corners(np.array([row], float))
            self.assertEqual(found.tolist(), [[10, 20, 40, 60]], columns)

    def test_no_boxes(self):
        for columns, text in [("x1,y1,x2", "makes no boxes"), ("x1,x2,y1,h,h", "each column once"),
                              ("x1,x2,y1,y2,label", "each column once"), ("", "each column once"),
                              ("x1,cx,y1,y2", "makes no boxes")]:
            with self.assertRaisesRegex(Unreadable, text):
                BoxFormat.parse(columns)

    def rows(self, columns, table, pictures=1, least=0.0, **parts):
        arrays = {name: np.array(values, float) for name, values in parts.items()}
        found = rows_of(Parts(np.array(table, float).reshape(-1), **arrays),
                        BoxFormat.parse(columns), pictures, least)
        return [list(zip(one.corners[:, 0].tolist(), one.scores.tolist(), one.classes.tolist()))
                for one in found]

    def test_rows(self):
        table = [[1, 0, 9, 9, .9, 2], [2, 0, 9, 9, 0, 1], [3, 0, 9, 9, .5, 0],
                 [4, 0, 9, 9, np.nan, 0]]
        columns = "x1,y1,x2,y2,score,class"
        self.assertEqual(self.rows(columns, table), [[(1, .9, 2), (3, .5, 0)]])
        self.assertEqual(self.rows(columns, table, 2), [[(1, .9, 2)], [(3, .5, 0)]])
        self.assertEqual(self.rows(columns, table, least=.5), [[(1, .9, 2)]])
        # The last column as the picture; one beyond all pictures belongs to none.
        self.assertEqual(self.rows("x1,y1,x2,y2,score,image", table, 2),
                         [[(3, .5, 0)], []])

    def test_outputs_apart(self):
        corners = [[at, 0, 9, 9] for at in range(1, 5)]
        parts = {"scores": [.1, .2, .3, .4], "classes": [0, 1, 2, 3]}
        self.assertEqual(self.rows("x1,y1,x2,y2", corners, 2, **parts, count=[1, 2]),
                         [[(1, .1, 0)], [(3, .3, 2), (4, .4, 3)]])
        for text, changed in [("4 boxes, but the output of --scores 3", {"scores": [1, 2, 3]}),
                              ("1 values in the output of --count", {"count": [1]})]:
            with self.assertRaisesRegex(Unreadable, text):
                self.rows("x1,y1,x2,y2", corners, 2, **{**parts, **changed})
        for text, columns, pictures in [("16 values, which are no rows of the 5", "x1,y1,x2,y2,-",
                                         1), ("4 rows for 3 pictures", "x1,y1,x2,y2", 3)]:
            with self.assertRaisesRegex(Unreadable, text):
                self.rows(columns, corners, pictures)

    def test_way_back(self):
        placement = Placement(100, 50, (0.5, 0.25), (10, 5))
        corners = np.array([[20, 10, 60, 30], [60, 30, 20, 10], [20, 10, np.nan, 30]], float)
        for normalised, given in ((False, corners), (True, corners / [100, 50, 100, 50])):
            found = boxes.carry_back(given, placement, normalised)
            np.testing.assert_allclose(found[0], [20, 20, 80, 80])
            np.testing.assert_array_equal(found[1:, 2:], 0)
        rows = rows_of(Parts(np.array([.1, .2, .3, 1.2])), BoxFormat.parse("x1,y1,x2,y2"), 1, -1)
        self.assertTrue(boxes.are_normalised(rows))
        self.assertFalse(boxes.are_normalised([boxes.Rows(corners, corners[0], corners[0])]))

    def test_categories(self):
        known = [7, 3, 90]
        self.assertEqual(boxes.category_ids(np.array([2, 0.0]), known, False).tolist(), [90, 7])
        self.assertEqual(boxes.category_ids(np.array([3, 4.0]), known, True).tolist(), [3, -1])
        for value in (3, -1, 0.5, np.nan):
            with self.assertRaisesRegex(Unreadable, "--category-ids"):
                boxes.category_ids(np.array([value], float), known, False)


if __name__ == "__main__":
    unittest.main()
