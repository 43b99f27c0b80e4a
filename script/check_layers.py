#!/usr/bin/python3
"""Holds every #include of our own against the table of the layers.

One include root lets any file name any other, so the compiler cannot keep the layers apart:
this check does. It also refuses the toolkit's headers where the table says "no DCMTK".
Exit status 0 when all is well, 1 with one line for each forbidden include.
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
# folder: (folders it may include, may include the toolkit)
LAYERS = {
    "support": ({"support"}, False),
    "monitor": ({"monitor", "support"}, False),
    "dicom": ({"dicom", "support"}, True),
    "store": ({"store", "dicom", "support"}, True),
    "dicom/services": ({"dicom/services", "store", "monitor", "dicom", "support"}, True),
    "server": (
        {"server", "dicom/services", "store", "monitor", "dicom", "support"}, True),
    "bench": ({"bench"}, False),  # it measures the server, and shares nothing with it
    "tools": ({"tools", "dicom/services", "store", "monitor", "dicom", "support"}, True),
}
INCLUDE = re.compile(r'^\s*#\s*include\s*["<]([^">]+)[">]')


def complaints(path, folder):
    allowed, toolkit = LAYERS[folder]
    for number, line in enumerate(path.read_text().splitlines(), 1):
        match = INCLUDE.match(line)
        if not match:
            continue
        target = match.group(1)
        where = str(pathlib.PurePosixPath(target).parent)
        if target.startswith("dcmtk/"):
            bad = not toolkit
        elif where == "." or where.startswith(("sys", "net", "arpa", "bits")):
            bad = '"' in line  # a quoted include names its folder, so a reader sees the layer
        else:
            bad = where not in allowed
        if bad:
            yield f"{path.relative_to(ROOT)}:{number}: {folder}/ may not include {target}"


def main():
    found = []
    for folder in LAYERS:
        for path in sorted((ROOT / folder).glob("*")):
            if path.suffix in (".h", ".cc"):
                found.extend(complaints(path, folder))
    print("\n".join(found) if found else "layers: every include keeps to the table")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
