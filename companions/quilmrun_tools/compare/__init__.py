"""quilmrun-compare: judges the outputs of a run by those of another."""
