"""quilmrun-inputs: makes input files and a list of pictures or arrays."""
