#!/usr/bin/env python3
"""Fails when the source folders include each other in a cycle.

Reads every `#include "folder/file"` line of the C++ sources outside tests/ and bench/, builds the
graph of folders, and prints each strongly connected group of more than one folder with the lines
that tie it together. Exit status 1 when there is any, else 0.

Usage: scripts/check-includes.py [TOP]   (default: the repository's top folder)
"""
import pathlib
import re
import sys

top = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
if top.is_file():
    top = top.parent.parent
skip = {"tests", "bench", "build", ".git"}
include = re.compile(r'^\s*#\s*include\s+"([A-Za-z0-9_]+)/')
edges = {}  # (from, to) -> first "file:line"
for path in sorted(top.rglob("*")):
    rel = path.relative_to(top)
    if path.suffix not in (".h", ".hpp", ".cpp", ".cc", ".inc") or rel.parts[0] in skip or len(rel.parts) < 2:
        continue
    src = rel.parts[0]
    for n, line in enumerate(path.read_text(errors="replace").splitlines(), 1):
        m = include.match(line)
        if m and m.group(1) != src and (top / m.group(1)).is_dir():
            edges.setdefault((src, m.group(1)), f"{rel}:{n}")

graph = {}
for a, b in edges:
    graph.setdefault(a, set()).add(b)
    graph.setdefault(b, set())

# Tarjan's strongly connected components.
index, low, stack, on, groups = {}, {}, [], set(), []
def visit(v):
    index[v] = low[v] = len(index)
    stack.append(v)
    on.add(v)
    for w in sorted(graph[v]):
        if w not in index:
            visit(w)
            low[v] = min(low[v], low[w])
        elif w in on:
            low[v] = min(low[v], index[w])
    if low[v] == index[v]:
        group = []
        while True:
            w = stack.pop()
            on.discard(w)
            group.append(w)
            if w == v:
                break
        if len(group) > 1:
            groups.append(sorted(group))
for v in sorted(graph):
    if v not in index:
        visit(v)

for group in groups:
    print("include cycle between folders: " + ", ".join(group))
    for (a, b), where in sorted(edges.items()):
        if a in group and b in group:
            print(f"  {a} -> {b}  ({where})")
sys.exit(1 if groups else 0)
