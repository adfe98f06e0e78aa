"""Puts faults into a copy of the sources and says which of them the tests catch."""
