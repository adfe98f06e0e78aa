"""What the companions of quilmrun share: they prepare its inputs and read what it leaves."""

__version__ = "1.0.0"  # the project's; the build stops when the two differ
