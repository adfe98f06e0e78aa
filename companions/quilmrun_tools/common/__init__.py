"""What every companion uses and that knows no file of quilmrun: command line, streams, progress,
writing of own files, work on all processors, units."""
