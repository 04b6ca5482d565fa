#!/usr/bin/env python3
"""Starts two programs in turn, again and again, and prints the median time of each from start to end, in microseconds."""
import argparse
import os
import statistics
import sys
import time

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("count", metavar="COUNT", type=int)
parser.add_argument("programs", metavar="PROGRAM", nargs=2)
arguments = parser.parse_args()
silent = [(os.POSIX_SPAWN_OPEN, descriptor, os.devnull, os.O_WRONLY, 0) for descriptor in (1, 2)]
times = {program: [] for program in arguments.programs}
for _ in range(arguments.count):
    for program in arguments.programs:
        start = time.perf_counter()
        child = os.posix_spawn(program, [program], os.environ, file_actions=silent)
        _, status = os.waitpid(child, 0)
        times[program].append(time.perf_counter() - start)
        if status != 0:
            sys.exit(f"starts.py: {program} ended with {status}")
print(*(round(statistics.median(times[program]) * 1e6) for program in arguments.programs))
