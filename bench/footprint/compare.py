#!/usr/bin/env python3
"""Says where one report of the footprint differs from another by more than what varies from machine to machine.

usage: compare.py DELIVERED PRESENT

Sizes and counts may differ by 2 %, memory and instructions by 5 %. Neither times nor what a pool takes are compared: the
former are the machine's, and a pool grows with its processors.
"""
import re
import sys

NUMBER = re.compile(r'[+-]?\d+(?:\.\d+)?')


def tolerance(line):
    """The part by which the numbers of a row may differ, or nothing where they are not compared."""
    if re.search(r'start and end|pool', line):
        return None
    return 0.05 if re.search('memory|instructions|heap', line) else 0.02


def agree(delivered, present):
    if NUMBER.sub('#', delivered) != NUMBER.sub('#', present):
        return False
    allowed = tolerance(delivered)
    return allowed is None or all(
        abs(float(one) - float(other)) <= max(allowed * abs(float(one)), 0.05)
        for one, other in zip(NUMBER.findall(delivered), NUMBER.findall(present)))


def lines(name):
    with open(name, encoding='utf-8') as report:
        return [line.strip() for line in report if line.strip()]


def main(arguments):
    if '--help' in arguments:
        print(__doc__.strip())
        return 0
    if len(arguments) != 2:
        print('usage: compare.py DELIVERED PRESENT', file=sys.stderr)
        return 2
    delivered, present = (lines(name) for name in arguments)
    differing = [pair for pair in zip(delivered, present) if not agree(*pair)]
    for pair in differing:
        print('- {}\n+ {}'.format(*pair))
    if len(delivered) != len(present):
        print('the reports have {} and {} lines'.format(len(delivered), len(present)))
    return 1 if differing or len(delivered) != len(present) else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv[1:]))
