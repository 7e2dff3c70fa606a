#!/usr/bin/env python3
"""Fails when a source file includes a header of a higher layer.

The layers, lowest first; a folder may include its own headers and those of lower layers.
Folders on one rank (grid, dropbar, monitor) do not include each other.
The sk client (cli/) is separate: no Qt, and of the engine only the Qt-free headers below.
"""
import pathlib
import re
import sys

LAYERS = [
    ["core"],
    ["platform"],
    ["actions"],
    ["store"],
    ["tasks"],
    ["events"],
    ["builtin"],
    ["grid", "dropbar", "monitor"],
    ["cmdline"],
    ["app"],
]
RANK = {folder: rank for rank, folders in enumerate(LAYERS) for folder in folders}
CLI_MAY_USE = {"core/CmdLineProtocol.h", "core/PrivateFolder.h"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def problems(root):
    found = []
    for path in sorted(root.rglob("*")):
        if path.suffix not in (".h", ".cpp") or "build" in path.relative_to(root).parts[:1]:
            continue
        folder = path.relative_to(root).parts[0]
        if folder not in RANK and folder != "cli":
            continue
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            kind, target = match.groups()
            where = f"{path.relative_to(root)}:{number}: {target}"
            if folder == "cli":
                if kind == "<" and target.startswith("Q"):
                    found.append(f"{where}: the sk client has no Qt")
                elif kind == '"' and not target.startswith("cli/") and target not in CLI_MAY_USE:
                    found.append(f"{where}: the sk client uses only cli/ and {sorted(CLI_MAY_USE)}")
                continue
            if kind != '"':
                continue
            top = target.split("/")[0]
            if top not in RANK:
                if "/" in target:
                    found.append(f"{where}: not a source folder")
                continue
            if RANK[top] > RANK[folder] or (RANK[top] == RANK[folder] and top != folder):
                found.append(f"{where}: {folder}/ may not use {top}/")
    return found


if __name__ == "__main__":
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
    found = problems(root)
    for problem in found:
        print(problem)
    sys.exit(1 if found else 0)
