#!/usr/bin/env python3
"""Checks the includes of src/ against docs/layers.txt.

Fails on an include that no line permits, on a folder without a line, on a cycle among the folders as they really include
each other, and on a system header outside the one folder that may see it. Names permissions that nobody uses.
"""

import re
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCES = ROOT / "src"
LAYERS = ROOT / "docs" / "layers.txt"
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]', re.MULTILINE)
ENDINGS = {".h", ".cpp", ".c", ".in"}

# A system header that begins so stays inside the folders that match.
RESERVED = [
    (re.compile(r"boost/(beast|asio)"), re.compile(r"connector/http/engine/")),
    (re.compile(r"Python\.h"), re.compile(r"vendra/python/")),
    (re.compile(r"jni\.h"), re.compile(r"connector/jni_\w+/")),
]


def read_layers():
    layers = {}
    for number, line in enumerate(LAYERS.read_text().splitlines(), 1):
        line = line.split("#")[0].strip()
        if not line:
            continue
        folder, colon, permitted = line.partition(":")
        if not colon or folder in layers:
            sys.exit(f"{LAYERS}:{number}: not 'folder: permitted folders', or the folder a second time")
        layers[folder] = set(permitted.split())
    return layers


def folder_of(path, layers):
    parts = path.split("/")[:-1]
    while parts:
        if "/".join(parts) in layers:
            return "/".join(parts)
        parts.pop()
    return None


def find_cycle(edges):
    """One cycle as a list of folders, or None."""
    done, trail = set(), []

    def visit(folder):
        if folder in trail:
            return trail[trail.index(folder):] + [folder]
        if folder in done:
            return None
        trail.append(folder)
        for target in sorted(edges.get(folder, ())):
            cycle = visit(target)
            if cycle:
                return cycle
        trail.pop()
        done.add(folder)
        return None

    for start in sorted(edges):
        cycle = visit(start)
        if cycle:
            return cycle
    return None


def main():
    layers = read_layers()
    errors, edges = [], {}

    for folder, permitted in layers.items():
        for target in permitted - layers.keys():
            errors.append(f"{LAYERS.name}: {folder} names {target}, which has no line")

    for path in sorted(SOURCES.rglob("*")):
        if path.suffix not in ENDINGS or not path.is_file():
            continue
        name = path.relative_to(SOURCES).as_posix()
        folder = folder_of(name, layers)
        if folder is None:
            errors.append(f"{name}: its folder has no line in {LAYERS.name}")
            continue
        for kind, target in INCLUDE.findall(path.read_text(encoding="utf-8")):
            for header, allowed in RESERVED:
                if header.match(target) and not allowed.match(name):
                    errors.append(f"{name}: <{target}> belongs in {allowed.pattern} only")
            if kind != '"' or not (SOURCES / target).exists():
                continue
            target_folder = folder_of(target, layers)
            if target_folder is None or target_folder == folder:
                continue
            edges.setdefault(folder, set()).add(target_folder)
            if target_folder not in layers[folder]:
                errors.append(f"{name}: {folder} may not include {target}")

    cycle = find_cycle(edges)
    if cycle:
        errors.append("cycle: " + " > ".join(cycle))

    for folder, permitted in sorted(layers.items()):
        for target in sorted(permitted - edges.get(folder, set())):
            print(f"note: {folder} does not use its permission to include {target}")
    for error in errors:
        print(f"error: {error}")
    if errors:
        return 1
    print(f"layers: {len(layers)} folders in order")
    return 0


if __name__ == "__main__":
    sys.exit(main())
