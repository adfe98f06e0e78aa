"""plain_compare.py ONE OTHER: the measures of quilmrun-compare as a loop over all outputs says them in
NumPy's plain words; the floor for many small outputs."""

import os
import sys

import numpy

numpy.seterr(all="ignore")
rows = []
for run in sorted(map(int, os.listdir(sys.argv[1]))):
    paths = [next(os.scandir(f"{folder}/{run}")).path for folder in sys.argv[1:]]
    values, reference = (numpy.fromfile(path, "<f4").astype("f8") for path in paths)
    difference, size = numpy.abs(values - reference), numpy.abs(reference)
    energy, reference_energy, error_energy = (
        numpy.square(array).sum() for array in (values, reference, difference))
    rows.append((
        difference.max(), difference.mean(), (difference / size).max(),
        (values * reference).sum() / numpy.sqrt(energy * reference_energy),
        10 * numpy.log10(reference_energy / error_energy), numpy.count_nonzero(difference),
        *(numpy.count_nonzero(test(array)) for array in (values, reference)
          for test in (numpy.isnan, numpy.isinf)),
        (difference > 1e-5 + 1e-5 * size).any()))
print(max(rows))
