"""Shows the library's objects in gdb: a Record as {id = 1, name = "tea", price = null}.

gdb loads this file with the library; "source" loads it by hand. It reads memory only and calls
nothing of the program, so that it serves core files too, and objects that are not built yet.
"""

import datetime

import gdb
import gdb.printing

TYPES = ("integer", "text", "float", "bool", "time")
INTEGER, TEXT, FLOAT, BOOL, TIME = range(len(TYPES))
FLAGS = ((2, "PRIMARY KEY"), (1, "NOT NULL"), (4, "UNIQUE"))
RESULTS = ("OK", "ERROR", "INTERNAL", "PERM", "ABORT", "BUSY", "LOCKED", "NOMEM", "READONLY",
           "INTERRUPT", "IOERR", "CORRUPT", "NOTFOUND", "FULL", "CANTOPEN", "PROTOCOL", "EMPTY",
           "SCHEMA", "TOOBIG", "CONSTRAINT", "MISMATCH", "MISUSE", "NOLFS", "AUTH", "FORMAT",
           "RANGE", "NOTADB")
LONGEST_NAME = 200
LONGEST_NUMBER = 400  # a real may have 309 digits and eight decimals


def result_name(rc):
    return f"rc={rc}=SQLITE_{RESULTS[rc]}" if 0 <= rc < len(RESULTS) else f"rc={rc}"


def error_text(error):
    return f"<error: {str(error).rstrip('.')}>"


def text_of(string):
    """The first byte and the number of bytes of a std::string, which may be no such thing yet."""
    if string.type.strip_typedefs().fields():
        data = string["_M_dataplus"]["_M_p"]
        length = int(string["_M_string_length"])
        buffer = string["_M_local_buf"].address
        capacity = int(string["_M_allocated_capacity"])
    else:
        # clang describes the class only where it is defined, in the C++ library.
        words = string.address.cast(gdb.lookup_type("unsigned long").pointer())
        data = words[0].cast(gdb.lookup_type("char").pointer())
        length, buffer, capacity = int(words[1]), words + 2, int(words[2])
    if int(data) == 0 or length > (15 if int(data) == int(buffer) else capacity):
        raise gdb.error("not a text")
    return data, length


def plain(string, limit=LONGEST_NAME):
    """A name or a number, as ASCII whatever it is."""
    data, length = text_of(string)
    text = data.string("ascii", "backslashreplace", min(length, limit))
    return "".join(c if c.isprintable() else f"\\x{ord(c):02x}" for c in text)


def name_of(field):
    try:
        return plain(field["_name"])
    except gdb.error as error:
        return error_text(error)


class Elements:
    """What a std::vector holds, which may be no such thing yet."""

    def __init__(self, vector):
        pointers = vector["_M_impl"]
        self.start = pointers["_M_start"]
        size = self.start.type.strip_typedefs().target().sizeof
        start, finish, end = (int(pointers[name]) for name in
                              ("_M_start", "_M_finish", "_M_end_of_storage"))
        whole = start <= finish <= end and (finish - start) % size == 0
        if not whole or (start == 0) != (end == 0) or start == end != 0:
            raise gdb.error("not a vector")
        self.count = (finish - start) // size
        if self.count > 0:
            gdb.selected_inferior().read_memory(finish - 1, 1)

    def __iter__(self):
        return ((self.start + i).dereference() for i in range(self.count))


def calendar(seconds):
    """Not the process's local time, which gdb does not know."""
    try:
        time = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=seconds)
    except OverflowError:
        return str(seconds)
    return f"{seconds} ({time.isoformat(' ')} UTC)"


class Printer:
    """One object. What cannot be read shows as an error, and nothing is thrown."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            return self.text()
        except (gdb.error, OverflowError, ValueError) as error:
            return error_text(error)


class TimePrinter(Printer):
    def text(self):
        return calendar(int(self.value["_time"]))


class ValuePrinter(Printer):
    """The cell as its type has it, or between quotes where its text does not read like that."""

    def text(self):
        data, length = text_of(self.value["_value"])
        null = int(self.value["_isNull"])
        if null > 1:
            raise gdb.error("not a value")
        if null:
            return "null"
        number = self.number(int(self.value["_type"]), length)
        return number if number is not None else data.lazy_string(length=length)

    def number(self, kind, length):
        if kind not in (INTEGER, FLOAT, BOOL, TIME) or length > LONGEST_NUMBER:
            return None
        text = plain(self.value["_value"], LONGEST_NUMBER)
        if kind == BOOL:
            return {"0": "false", "1": "true"}.get(text)
        try:
            whole = int(text) if kind != FLOAT else float(text)
        except ValueError:
            return None
        # Python takes blanks, a plus sign and underscores as well, which deserve to be seen.
        if any(c not in "0123456789+-.einfa" for c in text) or text.startswith("+"):
            return None
        return calendar(whole) if kind == TIME else text


class FieldPrinter(Printer):
    def text(self):
        name = plain(self.value["_name"])
        if not name:
            return "ending field"
        kind = int(self.value["_type"])
        flags = int(self.value["_flags"])
        kind = TYPES[kind] if 0 <= kind < len(TYPES) else f"undefined type {kind}"
        return " ".join([name, kind] + [word for bit, word in FLAGS if flags & bit])


class ListPrinter(Printer):
    """An object with children. They are read with the text, which then tells what is wrong."""

    def to_string(self):
        self.found = ()
        return super().to_string()

    def children(self):
        return iter(self.found)


class FieldSetPrinter(ListPrinter):
    def text(self):
        fields = Elements(self.value["_fields"])
        self.found = ((str(i), field) for i, field in enumerate(fields))
        return None if fields.count > 0 else "no columns"

    def display_hint(self):
        return "array"


class RecordPrinter(ListPrinter):
    """Cells by the names of their columns, or by position where the columns are gone."""

    def text(self):
        cells = Elements(self.value["_values"])
        names = self.names()[:cells.count]
        names += [f"[{i}]" for i in range(len(names), cells.count)]
        self.found = zip(names, cells)
        return None if cells.count > 0 else "no cells"

    def names(self):
        try:
            fields = Elements(self.value["_fields"].dereference()["_fields"])
            return [name_of(field) for field in fields]
        except gdb.error:
            return []


class RecordSetPrinter(ListPrinter):
    def text(self):
        records = Elements(self.value["_records"])
        rc = int(self.value["_rc"])
        self.found = ((str(i), record) for i, record in enumerate(records))
        rows = "row" if records.count == 1 else "rows"
        result = f"sql::RecordSet of {records.count} {rows}"
        if rc == 0:
            return result
        unused = rc == 1 and records.count == 0  # closed, or never queried
        return result + (", no result" if unused else f", {result_name(rc)}")

    def display_hint(self):
        return "array"


class TablePrinter(ListPrinter):
    def text(self):
        name = plain(self.value["_name"])
        records = self.value["_recordSet"]
        self.found = (("handle", self.value["_db"]), ("columns", records["_fields"]),
                      ("records", records))
        return f"sql::Table {name}"


class DatabasePrinter(Printer):
    def text(self):
        handle = int(self.value["_db"])
        rc = int(self.value["_rc"])
        if handle == 0:
            return "sql::Database, closed"
        state = "open" if rc == 0 else f"not open, {result_name(rc)}"
        return f"sql::Database, {state}, handle = {handle:#x}"


def printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("sqlwrapper")
    for name, printer in (("Database", DatabasePrinter), ("Field", FieldPrinter),
                          ("FieldSet", FieldSetPrinter), ("Record", RecordPrinter),
                          ("RecordSet", RecordSetPrinter), ("Table", TablePrinter),
                          ("Time", TimePrinter), ("Value", ValuePrinter)):
        collection.add_printer(name, f"^sql::{name}$", printer)
    return collection


# gdb asks the printers of all that is loaded, so that it does not matter which file describes the
# classes: the library may be stripped.
gdb.printing.register_pretty_printer(gdb.current_objfile(), printers(), replace=True)
