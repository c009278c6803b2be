"""Rows of all types that Python's own module sqlite3 writes, read into structs, written by them and read
again by Python: the same, bit by bit, or refused with the column's name.

PROGRAMS is the folder of typed_exchange_check, as programs.py says.
"""

import contextlib
import random
import sqlite3
import unittest

import programs


def integers(low, high):
    return low, high, 0, 1, low + 1, high - 1


REALS = (0.0, -0.0, 5e-324, -5e-324, 2.2250738585072014e-308, 1.7976931348623157e308,
         float("inf"), float("-inf"), 0.1, 1 / 3, 9007199254740993.0, 2.0**63, -2.0**63, 7.0)
SINGLES = (0.0, -0.0, 1.401298464324817e-45, 3.4028234663852886e38, float("inf"), 0.5, -7.0)
TEXTS = ("", "tea", "a\0b", "\0", "Ünï", "it's", "7", "null", "\U0001f375")
BLOCKS = (b"", b"\0", bytes(range(256)), b"\xff\xfe", b"7")
FOURS = (b"\0\0\0\0", b"\xff\xff\xff\xff", b"four")
SECONDS = integers(-2**31, 2**31 - 1)
INSTANTS = integers(-9223372036, 9223372036)
MOMENTS = integers(-9223372036854, 9223372036854)
SHORTS, LONGS = integers(-2**15, 2**15 - 1), integers(-2**31, 2**31 - 1)

# Each column, its type, and what it may hold.
COLUMNS = {
    "code": ("TEXT", TEXTS),
    "small": ("INTEGER", integers(-2**7, 2**7 - 1)),
    "byte": ("INTEGER", integers(0, 2**8 - 1)),
    "half": ("INTEGER", SHORTS),
    "positive_half": ("INTEGER", integers(0, 2**16 - 1)),
    "whole": ("INTEGER", LONGS),
    "positive": ("INTEGER", integers(0, 2**32 - 1)),
    "big": ("INTEGER", integers(-2**63, 2**63 - 1)),
    "natural": ("INTEGER", integers(0, 2**63 - 1)),
    "truth": ("INTEGER", (0, 1)),
    "level": ("INTEGER", SHORTS),
    "position": ("INTEGER", (0, 1)),
    "real": ("REAL", REALS),
    "single": ("REAL", SINGLES),
    "loose": ("BLOB", REALS),
    "text": ("TEXT", TEXTS),
    "block": ("BLOB", BLOCKS),
    "four": ("BLOB", FOURS),
    "time": ("INTEGER", SECONDS),
    "at": ("INTEGER", INSTANTS),
    "moment": ("INTEGER", MOMENTS),
    "maybe_whole": ("INTEGER", (None, *LONGS)),
    "maybe_truth": ("INTEGER", (None, 0, 1)),
    "maybe_level": ("INTEGER", (None, *SHORTS)),
    "maybe_real": ("REAL", (None, *REALS)),
    "maybe_single": ("REAL", (None, *SINGLES)),
    "maybe_text": ("TEXT", (None, *TEXTS)),
    "maybe_block": ("BLOB", (None, *BLOCKS)),
    "maybe_four": ("BLOB", (None, *FOURS)),
    "maybe_time": ("INTEGER", (None, *SECONDS)),
    "maybe_at": ("INTEGER", (None, *INSTANTS)),
    "maybe_moment": ("INTEGER", (None, *MOMENTS)),
}

# What a column refuses, and why.
NULL, RANGE, FRACTION, NUMBER, SIZE = ("is NULL", "is out of the variable's range", "is no integer",
                                       "is no number", "is of another size than the variable")
REFUSED = [(name, None, NULL) for name in COLUMNS if name != "code" and "maybe" not in name]
REFUSED += [
    ("small", 2**7, RANGE), ("small", -2**7 - 1, RANGE), ("byte", 2**8, RANGE), ("byte", -1, RANGE),
    ("half", 2**15, RANGE), ("positive_half", 2**16, RANGE), ("whole", 2**31, RANGE),
    ("positive", 2**32, RANGE), ("positive", -1, RANGE), ("natural", -1, RANGE), ("truth", 2, RANGE),
    ("level", 2**15, RANGE), ("position", -1, RANGE), ("single", 1e39, RANGE),
    ("at", 9223372037, RANGE), ("at", -9223372038, RANGE), ("moment", 9223372036855, RANGE),
    ("moment", -9223372036856, RANGE), ("maybe_whole", 2**31, RANGE), ("maybe_at", 2**40, RANGE),
    ("maybe_moment", 2**62, RANGE), ("big", 2.5, FRACTION), ("big", "tea", NUMBER),
    ("real", "tea", NUMBER), ("maybe_real", b"7", NUMBER), ("four", b"fiver", SIZE),
    ("maybe_four", b"", SIZE)]


def bits(row):
    """A row that is equal to another only if all of its types and bits are."""
    return [(type(cell), cell.hex() if isinstance(cell, float) else cell) for cell in row]


class TypedExchangeTest(programs.Test):
    def setUp(self):
        super().setUp()
        self.count = 0

    def exchange(self, rows):
        """What the program tells, and the rows of both files."""
        self.count += 1
        files = [self.folder / f"{self.count}-{what}.db" for what in ("python", "library")]
        with contextlib.closing(sqlite3.connect(files[0], isolation_level=None)) as connection:
            columns = ", ".join(f"{name} {kind}" for name, (kind, _) in COLUMNS.items())
            connection.execute(f"create table item (id integer primary key, {columns})")
            connection.execute("begin")
            connection.executemany(
                f"insert into item values (?{', ?' * len(COLUMNS)})", rows)
            connection.execute("commit")
        with self.start("typed_exchange_check", *map(str, files)) as program:
            output, errors = program.communicate()
        self.assertEqual(errors, "")
        found = []
        for file in files:
            with contextlib.closing(sqlite3.connect(file)) as connection:
                if connection.execute("select count(*) from sqlite_master").fetchone()[0] > 0:
                    found.append([bits(row) for row in connection.execute(
                        f"select id, {', '.join(COLUMNS)} from item order by id")])
        return output, found

    def test_rows_of_all_types_are_the_same(self):
        chosen = random.Random(1)
        rows = [[number, *(chosen.choice(values) for _, values in COLUMNS.values())]
                for number in range(-200, 300)]
        output, found = self.exchange(rows)
        self.assertEqual(output, "500 items\n")
        self.assertEqual(len(found[0]), 500)
        self.assertEqual(found[1], found[0])

    def test_cells_that_do_not_fit_are_refused(self):
        whole = [1, *(values[-1] for _, values in COLUMNS.values())]
        for name, cell, why in REFUSED:
            with self.subTest(name=name, cell=cell):
                row = list(whole)
                row[1 + list(COLUMNS).index(name)] = cell
                self.assertEqual(self.exchange([row])[0], f"column {name} {why}\n")


if __name__ == "__main__":
    unittest.main()
