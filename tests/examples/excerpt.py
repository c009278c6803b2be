"""excerpt.py FROM TO: a tenth of the registry, for programs that are slow."""

import csv
import pathlib
import sys

SOURCE, TARGET = map(pathlib.Path, sys.argv[1:])
NAMED_BY_TESTS = {"002272", "00D0EF", "080030", "70B3D5F2F"}

TARGET.mkdir(exist_ok=True)
for name in ("oui.csv", "mam.csv", "oui36.csv"):
    with open(SOURCE / name, newline="", encoding="utf-8") as stream:
        header, *records = csv.reader(stream, strict=True)
    with open(TARGET / name, "w", newline="", encoding="utf-8") as stream:
        csv.writer(stream).writerows(
            [header, *(record for number, record in enumerate(records)
                       if number % 10 == 0 or record[1] in NAMED_BY_TESTS)])
