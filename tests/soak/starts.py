#!/usr/bin/env python3
"""Starts a program and stops it after any short time, again and again, several at a time, as each mostly waits.

usage: starts.py COUNT PROGRAM [ARGUMENT]...

Each must end by itself with status 0, or by the signal where that came before the program was ready for it.
"""

import concurrent.futures
import os
import random
import signal
import subprocess
import sys
import time

LONGEST = 0.15  # before it is stopped, in seconds; a service is at work by then


def start_and_stop(command, seconds):
    """@return None, or what went wrong"""
    with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process:
        time.sleep(seconds)
        process.terminate()
        try:
            output, _ = process.communicate(timeout=120)
        except subprocess.TimeoutExpired:
            process.kill()
            return f"hung after {seconds:.4f} s"
    if process.returncode in (0, -signal.SIGTERM):
        return None
    return f"status {process.returncode} after {seconds:.4f} s\n{output.decode(errors='replace')[-4000:]}"


def main():
    count, command = int(sys.argv[1]), sys.argv[2:]
    faults = []
    with concurrent.futures.ThreadPoolExecutor(8 * (os.cpu_count() or 1)) as pool:
        for done in range(0, count, 1000):
            batch = [pool.submit(start_and_stop, command, random.uniform(0, LONGEST)) for _ in range(min(1000, count - done))]
            faults += [fault for fault in (one.result() for one in batch) if fault]
            print(f"-- {done + len(batch)} starts and stops, {len(faults)} went wrong", flush=True)
            if len(faults) >= 5:
                break
    print(*faults[:5], sep="\n", file=sys.stderr)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
