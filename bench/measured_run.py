"""measured_run.py OUT COMMAND...: runs a command, and prints its processor time and its time in ns, its
peak memory in KiB, and when it started, in ns.

What a process takes is counted from the moment at which it is made, as a copy of the one that makes
it. Therefore this program is small and does nothing else.
"""

import os
import sys
import time

start = time.time_ns()
child = os.fork()
if child == 0:
    log = os.open(sys.argv[1] + ".log", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o666)
    os.dup2(log, 1)
    os.dup2(log, 2)
    try:
        os.execvp(sys.argv[2], [*sys.argv[2:], sys.argv[1]])
    finally:
        os._exit(127)
_, status, usage = os.wait4(child, 0)
print(int((usage.ru_utime + usage.ru_stime) * 1e9), time.time_ns() - start, usage.ru_maxrss, start)
sys.exit(0 if status == 0 else 1)
