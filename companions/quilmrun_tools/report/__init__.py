"""quilmrun-report: one page that shows what there is of a run."""
