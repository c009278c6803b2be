"""The same series of operations by a PreparedTable and by SQL of Python's own module sqlite3, on a
file each: the same results, and the same rows in the end, bit by bit.

PROGRAMS is the folder of prepared_series_check, as programs.py says.
"""

import contextlib
import random
import re
import sqlite3
import unittest

import programs

INTEGER, TEXT, FLOAT, BOOL, TIME = range(5)
TYPES = ("INTEGER", "TEXT", "REAL", "INTEGER", "INTEGER")
NUMBER = re.compile(r"[+-]?([0-9]+\.?[0-9]*|\.[0-9]+)([eE][+-]?[0-9]+)?", re.ASCII)
WHOLE = re.compile(r"[+-]?[0-9]+", re.ASCII)

NUMBERS = ("7", "-0", "+12", "007", ".5", "7.", "1e3", "7.0", "0.1", "9223372036854775808",
           "-9223372036854775808", "5e-324", "0.30000000000000004", "1e20", "tea", "", " 3", "0x10",
           "inf", "nan", "1e400", "1); drop table shelf; --")
HIGHEST = "9223372036854775807"  # behind this key SQLite chooses others at random
TEXTS = ("1", "2", "tea", "it's \"quoted\"", "`", "", "null", "id", "a\0b", "Ünï", "7.0", " 7",
         "'); drop table shelf; --")
KEYS = (1, 2, 3, -1, "1", "2", "tea", "01", "", "id", "it's \"quoted\"", "a\0b", 2**63 - 1)
STORED = (None, b"\0\xff", 0.1 + 0.2, -0.0, 1e300, 7, "1); drop table shelf; --", "tea")
HOSTILE = ("select", "a b", "`", "\"", "it's", "x]; drop table shelf; --", "?1", ":x", "Ü")

# The columns, each with its type and whether it is of the key.
SHAPES = [[("id", key, True), ("name", TEXT, False), ("price", FLOAT, False)][turn:]
          + [("id", key, True), ("name", TEXT, False), ("price", FLOAT, False)][:turn]
          for key in (INTEGER, TEXT, FLOAT, BOOL, TIME) for turn in range(3)]
SHAPES += [
    [("id", INTEGER, True)],
    [("id", TEXT, True)],
    [("name", TEXT, False), ("price", FLOAT, False), ("sold", BOOL, False), ("at", TIME, False)],
    [("row", INTEGER, True), ("name", TEXT, False), ("place", TEXT, True)],
]


class Refused(Exception):
    """Why nothing is done."""


def quoted(name):
    return "`" + name.replace("`", "``") + "`"


def is_integer(text):
    return WHOLE.fullmatch(text) is not None and -2**63 <= int(text) < 2**63


def word(cell):
    return "-" if cell is None else "x" + cell.encode().hex()


def bits(row):
    """A row that is equal to another only if all of its types and bits are."""
    return [(type(cell), cell.hex() if isinstance(cell, float) else cell) for cell in row]


class Shelf:
    """A table, and what has to be done to it."""

    def __init__(self, folder, number, columns, chosen):
        self.columns = columns
        self.chosen = chosen
        self.name = "shelf" if chosen.random() < 0.7 else chosen.choice(HOSTILE)
        self.keys = [i for i, (_, _, is_key) in enumerate(columns) if is_key]
        self.files = [folder / f"{number}-{what}.db" for what in ("plain", "library", "copy")]
        for file in self.files:
            with self.connected(file) as connection:
                connection.execute(f"create table {quoted(self.name)} ({self.definition()})")
        self.steps = ["shelf " + " ".join([str(self.files[1]), word(self.name), *(
            f"{kind} {is_key:d} {word(name)}" for name, kind, is_key in columns)])]
        self.results = []

    @staticmethod
    def connected(file):
        connection = sqlite3.connect(file, isolation_level=None)
        connection.execute("pragma synchronous = off")
        return contextlib.closing(connection)

    def names(self, places):
        return [quoted(self.columns[i][0]) for i in places]

    def definition(self):
        parts = [f"{quoted(name)} {TYPES[kind]}" for name, kind, _ in self.columns]
        if self.keys:
            parts.append(f"primary key ({', '.join(self.names(self.keys))})")
        return ", ".join(parts)

    # What is bound

    def bound(self, place, text):
        name, kind, _ = self.columns[place]
        if text is None or kind == TEXT:
            return text
        if not NUMBER.fullmatch(text):
            raise Refused(f"column {name} is no number")
        if kind != FLOAT and is_integer(text):
            return int(text)
        number = float(text)
        is_zero = re.search("[1-9]", re.split("[eE]", text)[0]) is None
        if abs(number) == float("inf") or (number == 0 and not is_zero):
            raise Refused(f"column {name} is no number")
        return number

    def key(self, given):
        if not self.keys:
            raise Refused("there is no PRIMARY KEY column")
        if len(self.keys) > 1:
            raise Refused(f"the key has {len(self.keys)} columns")
        if self.columns[self.keys[0]][1] == TEXT:
            return str(given)
        if isinstance(given, str) and not re.fullmatch("0|-?[1-9][0-9]*", given, re.ASCII):
            raise Refused("the key is no integer")
        return int(given)

    def flaws(self, texts):
        """Why a row cannot be updated: each of the reasons is as good as another."""
        for place, text in enumerate(texts):
            if place in self.keys and text is None:
                yield "the key is NULL"
            elif place in self.keys and self.columns[place][1] != TEXT and not is_integer(text):
                yield "the key is no integer"
            try:
                self.bound(place, text)
            except Refused as error:
                yield str(error)

    # What is run

    def run(self, connection, statement, values):
        before = connection.total_changes
        connection.execute(statement, values)
        return str(connection.total_changes - before)

    def insertion(self):
        names = self.names(range(len(self.columns)))
        return (f"insert into {quoted(self.name)} ({', '.join(names)})"
                f" values ({', '.join('?' * len(names))})")

    def add(self, connection, texts):
        return self.run(connection, self.insertion(),
                        [self.bound(place, text) for place, text in enumerate(texts)])

    def update(self, connection, texts):
        if not self.keys:
            raise Refused("there is no PRIMARY KEY column")
        flaws = list(self.flaws(texts))
        if flaws:
            raise Refused(*flaws)
        values = [self.bound(place, text) for place, text in enumerate(texts)]
        others = [place for place in range(len(values)) if place not in self.keys] or self.keys
        return self.run(connection,
                        f"update {quoted(self.name)} set "
                        + ", ".join(f"{name} = ?" for name in self.names(others)) + " where "
                        + " and ".join(f"{name} = ?" for name in self.names(self.keys)),
                        [values[place] for place in [*others, *self.keys]])

    def put(self, connection, texts):
        if not self.keys:
            raise Refused("there is no PRIMARY KEY column")
        values = [self.bound(place, text) for place, text in enumerate(texts)]
        others = self.names(place for place in range(len(values)) if place not in self.keys)
        what = ("update set " + ", ".join(f"{name} = excluded.{name}" for name in others)
                if others else "nothing")
        return self.run(connection, f"{self.insertion()} on conflict"
                        f" ({', '.join(self.names(self.keys))}) do {what}", values)

    def bulk(self, connection, rows):
        connection.execute("begin")
        for number, texts in enumerate(rows, 1):
            try:
                self.add(connection, texts)
            except (Refused, sqlite3.Error) as error:
                connection.execute("rollback")
                raise Refused(f"record {number}: {error}") from error
        connection.execute("commit")
        return str(len(rows))

    def delete(self, connection, given):
        key = self.key(given)
        return self.run(connection, f"delete from {quoted(self.name)}"
                        f" where {self.names(self.keys)[0]} = ?", [key])

    def found(self, connection, given):
        key = self.key(given)
        names = ", ".join(self.names(range(len(self.columns))))
        return connection.execute(f"select {names} from {quoted(self.name)}"
                                  f" where {self.names(self.keys)[0]} = ?", [key]).fetchone()

    def has(self, connection, given):
        try:
            return "absent" if self.found(connection, given) is None else "present"
        except Refused:
            return "unknown"

    def read(self, connection, given):
        row = self.found(connection, given)
        return "0" if row is None else self.held(row)

    def rows(self, connection):
        return connection.execute(f"select * from {quoted(self.name)}").fetchall()

    def held(self, row):
        """The row, or why a record cannot hold it."""
        for place, cell in enumerate(row):
            if isinstance(cell, bytes):
                raise Refused(f"column {self.columns[place][0]} is a block of bytes")
        return row

    # A series

    def note(self, step, operation, *arguments):
        self.steps.append(step)
        try:
            self.results.append(operation(*arguments))
        except (Refused, sqlite3.Error) as error:
            self.results.append({f"! {reason}" for reason in error.args})

    def text_for(self, place):
        _, kind, is_key = self.columns[place]
        if self.chosen.random() < 0.05:
            return None
        if is_key and self.chosen.random() < 0.8:
            return str(self.chosen.randrange(6))
        numbers = NUMBERS if is_key else (*NUMBERS, HIGHEST)
        return self.chosen.choice(TEXTS if kind == TEXT else numbers)

    def texts(self):
        return [self.text_for(place) for place in range(len(self.columns))]

    def write_by_others(self):
        """On both files, whatever their columns are declared to hold."""
        row = [self.chosen.choice(STORED) for _ in self.columns]
        for file in self.files[:2]:
            with self.connected(file) as connection, contextlib.suppress(sqlite3.Error):
                connection.execute(self.insertion(), row)

    def step(self, connection):
        name = self.chosen.choice(("add", "add", "update", "put", "put", "bulk", "delete", "has", "read"))
        if name == "bulk":
            rows = [self.texts() for _ in range(self.chosen.randrange(4))]
            words = [word(text) for row in rows for text in row]
            self.note(" ".join(["bulk", str(len(rows)), *words]), self.bulk, connection, rows)
        elif name in ("add", "update", "put"):
            texts = self.texts()
            self.note(" ".join([name, *map(word, texts)]), getattr(self, name), connection, texts)
        else:
            key = self.chosen.choice(KEYS)
            told = word(key) if isinstance(key, str) else str(key)
            self.note(f"{name} {told}", getattr(self, name), connection, key)

    def work(self, count):
        for _ in range(3):
            self.write_by_others()
        with self.connected(self.files[0]) as connection:
            for _ in range(count):
                self.step(connection)
            rows = self.rows(connection)
        self.steps.append(f"copy {self.files[2]}")
        self.results.append(f"copied {len(rows)}")
        self.steps.append("rows")
        try:
            for row in rows:
                self.results.append(self.held(row))
            self.results.append("end")
        except Refused as error:
            self.results.append({f"! {error}"})


class PreparedSeriesTest(programs.Test):
    def assert_same(self, told, expected):
        if isinstance(expected, set):
            self.assertIn(told, expected)
            return
        if isinstance(expected, str):
            self.assertEqual(told, expected)
            return
        words = told.split()
        self.assertEqual((words[0], len(words)), ("=", len(expected) + 1), told)
        for cell, value in zip(words[1:], expected):
            text = None if cell == "-" else bytes.fromhex(cell[1:]).decode()
            if isinstance(value, float):
                self.assertEqual(float(text).hex(), value.hex())
                self.assertFalse(WHOLE.fullmatch(text), "it looks like an integer")
            else:
                self.assertEqual(text, None if value is None else str(value))

    def test_series_end_with_the_same_rows(self):
        shelves = []
        for number, columns in enumerate(SHAPES):
            shelves.append(Shelf(self.folder, number, columns, random.Random(number)))
            shelves[-1].work(40)
        with self.start("prepared_series_check") as program:
            output, errors = program.communicate("".join(
                step + "\n" for shelf in shelves for step in shelf.steps))
        self.assertEqual((program.returncode, errors), (0, ""))
        lines = iter(output.split("\n")[:-1])
        for shelf in shelves:
            for number, expected in enumerate(shelf.results):
                with self.subTest(shelf.steps[min(number + 1, len(shelf.steps) - 1)]):
                    self.assert_same(next(lines, "nothing"), expected)
            rows = []
            for file in shelf.files:
                with Shelf.connected(file) as connection:
                    rows.append([bits(row) for row in shelf.rows(connection)])
            self.assertEqual(rows[1], rows[0])
            self.assertEqual(rows[2], rows[0])
        self.assertEqual(list(lines), [])


if __name__ == "__main__":
    unittest.main()
