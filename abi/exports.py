#!/usr/bin/env python3
"""Compares what libraries export with what their public headers declare, and names each difference."""
import argparse
import json
import pathlib
import re
import subprocess
import sys

parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("libraries", metavar="LIBRARY[,LIBRARY]...", type=lambda text: text.split(","))
parser.add_argument("include", metavar="INCLUDE-FOLDER", type=pathlib.Path)
parser.add_argument("namespace", metavar="NAMESPACE")
parser.add_argument("options", metavar="COMPILER-OPTION", nargs=argparse.REMAINDER)
arguments = parser.parse_args()
libraries, include, namespace = arguments.libraries, arguments.include, arguments.namespace
FUNCTIONS = {"FunctionDecl", "CXXMethodDecl", "CXXConstructorDecl", "CXXDestructorDecl", "CXXConversionDecl"}


def run(*command, text=None):
    return subprocess.run(command, input=text, check=True, stdout=subprocess.PIPE, text=True).stdout


def one_variant(symbol):
    """Constructors and destructors have several symbols each; one stands for all."""
    return re.sub(r"C[123]E", "C1E", re.sub(r"D[012]Ev", "D1Ev", symbol))


def functions(node):
    """All functions below a node of the syntax tree: their symbols, and whether no source file has to define them."""
    if node.get("isImplicit") or node.get("kind") in {"ClassTemplateDecl", "FunctionTemplateDecl"}:
        return
    if node.get("kind") in FUNCTIONS:
        defined_here = any(child.get("kind") == "CompoundStmt" for child in node.get("inner", []))
        absent = node.get("pure") or node.get("explicitlyDeleted") or node.get("explicitlyDefaulted")
        if "mangledName" in node:
            yield one_variant(node["mangledName"]), bool(
                defined_here or absent or node.get("inline") or node.get("constexpr"))
        return
    for child in node.get("inner", []):
        yield from functions(child)


headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
source = "".join(f"#include <{header}>\n" for header in headers)
dump = run("clang++", "-std=c++17", "-fsyntax-only", "-x", "c++", f"-I{include}", *arguments.options, "-Xclang", "-ast-dump=json",
           "-Xclang", f"-ast-dump-filter={namespace}", "-", text=source)
wanted, inline, position, decoder = set(), set(), 0, json.JSONDecoder()
while (position := dump.find("{", position)) >= 0:
    node, position = decoder.raw_decode(dump, position)
    for symbol, needs_no_source in functions(node):
        (inline if needs_no_source else wanted).add(symbol)
wanted -= inline  # declared in the class, defined below it
if not wanted:
    sys.exit(f"exports.py: nothing is declared in {namespace}")

scope = "".join(f"{len(part)}{part}" for part in namespace.split("::"))
exported, foreign = set(), set()
for line in run("nm", "--dynamic", "--defined-only", *libraries).splitlines():
    if len(line.split()) < 2:  # the name of the library
        continue
    symbol = line.split()[-1].split("@")[0]
    if re.match(rf"_ZNK?{scope}", symbol):
        exported.add(one_variant(symbol))
    elif not re.match(rf"_ZT(.N|h.*_NK?|v.*_NK?){scope}", symbol) and line.split()[-2] != "A":
        foreign.add(symbol)

failures = [("declared, but not exported", wanted - exported), ("exported, but not declared", exported - wanted),
            ("exported, but of somebody else", foreign)]
for reason, symbols in failures:
    for name in run("c++filt", text="\n".join(sorted(symbols))).splitlines():
        print(f"{' '.join(libraries)}: {reason}: {name}")
if any(symbols for _, symbols in failures):
    sys.exit(1)
print(f"{' '.join(libraries)}: exports the {len(wanted)} functions of its headers, and nothing else")
