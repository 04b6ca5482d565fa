#!/usr/bin/env python3
"""Compares the order of fields in descriptions by libabigail with the list in fields.txt."""
import argparse
import pathlib
import sys
import xml.etree.ElementTree

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("descriptions", metavar="DESCRIPTION", nargs="+")
descriptions = parser.parse_args().descriptions
found = {}
for description in descriptions:
    for node in xml.etree.ElementTree.parse(description).iter("class-decl"):
        members = sorted((int(member.get("layout-offset-in-bits")), member.find("var-decl").get("name"))
                         for member in node.findall("data-member") if member.get("static") != "yes")
        if members:
            found.setdefault(node.get("name"), []).append([name for _, name in members])

failed = False
for line in (pathlib.Path(__file__).parent / "fields.txt").read_text().splitlines():
    if line.startswith("#"):
        continue
    name, fields = line.split(": ")
    if fields.split() not in found.get(name, []):
        print(f"{name} has the fields {found.get(name)} instead of {fields}, says {' '.join(descriptions)}")
        failed = True
sys.exit(failed)
