"""Shows the objects of sqlprepared in gdb: a Statement by its text with the values, and by where it
stands, a PreparedTable by its name, a StopFlag by whether it is set, a Blob by its cell.

gdb loads this file with the library; "source" loads it by hand, after sqlwrapper-gdb.py, whose
functions it uses. The library's objects are read from memory. The text of a statement SQLite alone
knows. In a process, gdb has it called for that, which waits for no lock, and for the values where
they are still there. Where gdb cannot call, as with a core file, the text is that of the failure.
"""

import os
import re

import gdb
import gdb.printing
import gdb.types

PLACES = {"row": "at a row", "broken": "at a row that could not be read",
          "unbound": "a value could not be bound", "unprepared": "not prepared"}
STATES = {"unbegun": "not begun", "undoing": "being rolled back", "lost": "rolled back by SQLite"}


def enumerator(value):
    """The name without its scope, as the program has it."""
    for field in value.type.strip_typedefs().fields():
        if field.enumval == int(value):
            return field.name.rpartition("::")[2]
    raise gdb.error("not an object")


def reason(error):
    """Why something failed, empty if nothing did."""
    text, code = plain(error["_text"]), int(error["_extendedCode"])
    name = RESULTS[code & 0xff] if 0 <= code & 0xff < len(RESULTS) else ""
    result = f"rc={code}=SQLITE_{name}" if name else f"rc={code}"
    return f"{result}: {text}" if code else ""


def quoted(text):
    limit = gdb.parameter("print elements")
    rest = "..." if limit is not None and len(text) > limit else ""
    escaped = text[:limit].replace("\\", "\\\\").replace('"', '\\"').replace("\n", "\\n")
    return f'"{escaped}"{rest}'


def called(result, function, *arguments):
    """What one of SQLite's functions gives. Where it crashes, the program is as it was before."""
    former = gdb.parameter("unwindonsignal")
    gdb.execute("set unwindonsignal on")
    try:
        types = ", ".join(["void*"] * len(arguments))
        call = f"(({result} (*)({types})){function})({', '.join(map(str, arguments))})"
        return gdb.parse_and_eval(call)
    finally:
        gdb.execute(f"set unwindonsignal {'on' if former else 'off'}")


def is_between_calls():
    """Whether the thread is outside of SQLite and the C library, and so holds no lock of theirs that
    the values could be waited for with."""
    frame = gdb.newest_frame()
    library = os.path.basename(gdb.solib_name(frame.pc()) or "")
    return not re.match(r"(libc|libpthread|libsqlite3|libsqlcipher|ld)\b", library) \
        and not (frame.name() or "").startswith("sqlite3")


class PreparedPrinter:
    """One object. What cannot be read shows as an error, and nothing is thrown."""

    def __init__(self, value):
        self.value = value
        self.found = ()

    def to_string(self):
        try:
            parts = self.parts()
            return ", ".join(filter(None, [self.title(), *parts]))
        except (gdb.error, NameError, OverflowError, ValueError) as error:
            return f"<error: {str(error).rstrip('.')}>"

    def title(self):
        return gdb.types.get_basic_type(self.value.type).name.partition("<")[0]

    def children(self):
        return iter(self.found)


class ErrorPrinter(PreparedPrinter):
    def to_string(self):
        try:
            return reason(self.value) or "no failure"
        except (gdb.error, NameError) as error:
            return f"<error: {str(error).rstrip('.')}>"


class ResultPrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        payload = self.value["_value"]["_M_payload"]
        held = int(payload["_M_engaged"])
        if held > 1:
            raise gdb.error("not a result")
        if held:
            self.found = (("value", payload["_M_payload"]["_M_value"]),)
        return [] if held else [error or "nothing"]


class StatementPrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        state = enumerator(self.value["_handle"]["state"])
        statement = int(self.value["_handle"]["statement"])
        text = self.text(statement) if statement else None
        if text is not None:
            self.found = (("text", quoted(text)),)
        elif error:
            self.found = (("text", quoted(plain(self.value["_error"]["_statement"]))),)
        if state != "unprepared" and not statement:
            return ["released", error]
        changes = int(self.value["_changes"])
        rows = f"{changes} changed" if state == "ended" and changes > 0 else ""
        return [PLACES.get(state, state), rows, error]

    def text(self, statement):
        """With the values in place, where there are any; null where nobody can be asked."""
        try:
            if int(called("void*", "sqlite3_db_handle", statement)) != int(self.value["_connection"]):
                return None # it is gone
            text = called("const char*", "sqlite3_sql", statement).string(errors="backslashreplace")
            values = int(called("int", "sqlite3_bind_parameter_count", statement))
            if values == 0 or self.value["_stale"] or not is_between_calls():
                return text
            expanded = called("char*", "sqlite3_expanded_sql", statement)
            if int(expanded):
                text = expanded.string(errors="backslashreplace")
                called("void", "sqlite3_free", int(expanded))
            return text
        except gdb.error:
            return None


class CursorPrinter(PreparedPrinter):
    def parts(self):
        statement = StatementPrinter(self.value["_statement"])
        parts = statement.parts()
        self.found = statement.found
        return parts


class PreparedTablePrinter(PreparedPrinter):
    def parts(self):
        changes = int(self.value["_changes"])
        return [f"{changes} changed" if changes else "", reason(self.value["_error"])]

    def title(self):
        return f"{super().title()} {plain(self.value['_name'])}"


class ScopePrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        state = enumerator(self.value["_state"])
        nested = int(self.value["_nested"])
        if nested > 1:
            raise gdb.error("not a transaction")
        return [STATES.get(state, state), "in another" if nested and state == "open" else "", error]


class StopFlagPrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        state = int(self.value["_isSet"]["_M_base"]["_M_i"])
        if state > 1:
            raise gdb.error("not a flag")
        return ["set" if state else "not set", error]


class BlobPrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        self.found = (("cell", quoted(plain(self.value["_statement"]))),)
        mode = "to be written" if self.value["_writes"] else "to be read"
        pointer = gdb.lookup_type("void").pointer().pointer()
        handle = self.value["_blob"].address.cast(pointer).dereference()
        return [mode if int(handle) else "not open", error]


class GroupPrinter(PreparedPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        lost = int(self.value["_lost"])
        engaged = int(self.value["_transaction"]["_M_payload"]["_M_engaged"])
        if engaged > 1:
            raise gdb.error("not a group")
        pending = f"{int(self.value['_pending'])} pending" if engaged else "none open"
        return [pending, f"{lost} lost" if lost else "", error]


def prepared_printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("sqlprepared")
    for name, printer in (("Blob", BlobPrinter), ("Error", ErrorPrinter), ("GroupCommit", GroupPrinter),
                          ("PreparedTable", PreparedTablePrinter),
                          ("ObjectCursor<.*>", CursorPrinter), ("TypedTable<.*>", PreparedTablePrinter),
                          ("RecordCursor", CursorPrinter), ("Result<.*>", ResultPrinter),
                          ("Savepoint", ScopePrinter), ("Statement", StatementPrinter),
                          ("StopFlag", StopFlagPrinter),
                          ("Transaction", ScopePrinter), ("TransactionScope", ScopePrinter)):
        collection.add_printer(name, f"^sql::{name}$", printer)
    return collection


gdb.printing.register_pretty_printer(gdb.current_objfile(), prepared_printers(), replace=True)
