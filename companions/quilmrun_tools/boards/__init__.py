"""quilmrun-boards: one run of the tool, on one board or on many."""
