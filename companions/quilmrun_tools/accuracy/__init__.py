"""quilmrun-accuracy: how many pictures are right, and how well objects are found."""
