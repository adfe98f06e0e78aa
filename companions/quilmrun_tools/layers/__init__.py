"""quilmrun-layers: which layer goes wrong."""
