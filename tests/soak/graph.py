#!/usr/bin/env python3
"""Draws what scripts/soak has sampled.

usage: graph.py TITLE SAMPLES.csv >GRAPH.svg
"""

import csv
import html
import sys

WIDTH, HEIGHT, LEFT, TOP, GAP = 800, 120, 70, 50, 40
COLOURS = {"the program": "#1f6feb", "the service": "#d29922"}
PANELS = (
    ("descriptors", {"the program": "descriptors", "the service": "service_descriptors"}),
    ("threads", {"the program": "threads", "the service": "service_threads"}),
    ("memory, MiB", {"the program": "memory_kib", "the service": "service_memory_kib"}),
    ("heap, KiB", {"the program": "heap_kib"}),
    ("processor time, % of one", {"the program": "processor_seconds", "the service": "service_processor_seconds"}),
)


def shares(times, seconds):
    """Of one processor's time, from sample to sample."""
    spans = zip(zip(times, seconds), zip(times[1:], seconds[1:]))
    return [0.0] + [100 * (used - used_before) / max(time - before, 1e-3)
                    for (before, used_before), (time, used) in spans]


def values(rows, column):
    numbers = [float(row[column]) for row in rows]
    if column.endswith("processor_seconds"):
        return shares([float(row["seconds"]) for row in rows], numbers)
    return [number / 1024 for number in numbers] if column.endswith("memory_kib") else numbers


def panel(rows, top, title, columns):
    lines = {name: values(rows, column) for name, column in columns.items()}
    highest = max(max(line) for line in lines.values()) or 1.0
    times = [float(row["seconds"]) for row in rows]
    end = times[-1] or 1.0
    yield f'<text x="{LEFT}" y="{top - 6}">{html.escape(title)}</text>'
    yield f'<rect x="{LEFT}" y="{top}" width="{WIDTH}" height="{HEIGHT}" fill="none" stroke="#8b949e"/>'
    yield f'<text x="{LEFT - 6}" y="{top + 10}" text-anchor="end">{highest:.4g}</text>'
    yield f'<text x="{LEFT - 6}" y="{top + HEIGHT}" text-anchor="end">0</text>'
    for name, line in lines.items():
        points = " ".join(f"{LEFT + WIDTH * time / end:.1f},{top + HEIGHT * (1 - value / highest):.1f}"
                          for time, value in zip(times, line))
        yield f'<polyline points="{points}" fill="none" stroke="{COLOURS[name]}"/>'


def main():
    title, path = sys.argv[1:]
    with open(path, encoding="utf-8") as file:
        rows = list(csv.DictReader(file))
    if not rows:
        sys.exit(f"graph.py: no samples in {path}")
    height = TOP + len(PANELS) * (HEIGHT + GAP) + 10
    print(f'<svg xmlns="http://www.w3.org/2000/svg" width="{LEFT + WIDTH + 20}" height="{height}" '
          'font-family="sans-serif" font-size="12">')
    print(f'<text x="{LEFT}" y="16" font-size="14">{html.escape(title)}, {float(rows[-1]["seconds"]):.0f} s</text>')
    for place, (name, colour) in enumerate(COLOURS.items()):
        print(f'<text x="{LEFT + WIDTH - 200 + 110 * place}" y="16" fill="{colour}">{name}</text>')
    for place, (name, columns) in enumerate(PANELS):
        print(*panel(rows, TOP + place * (HEIGHT + GAP), name, columns), sep="\n")
    print("</svg>")


if __name__ == "__main__":
    main()
