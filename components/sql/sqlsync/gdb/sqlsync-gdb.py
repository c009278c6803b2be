"""Shows the objects of sqlsync in gdb: a Recorder by whether it records, a RecordedTransaction by where it
stands, a ChangeSet by its commits and its size, an Outbox by its device and how far it has come.

gdb loads this file with the library, which is before sqlprepared-gdb.py, and "source" by hand: the
functions of that file are there when an object is shown. All of it is read from memory.
"""

import gdb
import gdb.printing


def commits(previous, last):
    """The range behind one position, up to another."""
    first, last = int(previous["number"]) + 1, int(last["number"])
    return f"commit {last}" if first == last else f"commits {first} to {last}"


class SyncPrinter:
    """One object. What cannot be read shows as an error, and nothing is thrown."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        try:
            return ", ".join(filter(None, [self.value.type.unqualified().name, *self.parts()]))
        except (gdb.error, NameError, OverflowError, ValueError) as error:
            return f"<error: {str(error).rstrip('.')}>"


class ChangeSetPrinter(SyncPrinter):
    def parts(self):
        if int(self.value["_last"]["number"]) == 0:
            return ["empty"]
        return [commits(self.value["_previous"], self.value["_last"]),
                f"{int(self.value['_bytes']['_M_string_length'])} bytes"]


class RecorderPrinter(SyncPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        core = self.value["_core"].address.cast(gdb.lookup_type("void").pointer().pointer())
        unrecorded = int(self.value["_unrecorded"])
        return ["recording" if int(core.dereference()) else "not recording",
                f"{unrecorded} unrecorded" if unrecorded else "", error]


class RecordedTransactionPrinter(SyncPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        payload = self.value["_transaction"]["_M_payload"]
        engaged = int(payload["_M_engaged"])
        if engaged > 1:
            raise gdb.error("not a transaction")
        if not engaged:
            return ["not begun", error]
        state = enumerator(payload["_M_payload"]["_M_value"]["_state"])
        return [STATES.get(state, state), error]


class OutboxPrinter(SyncPrinter):
    def parts(self):
        after = int(self.value["_after"])
        return [quoted(plain(self.value["_device"])), f"handed out up to {after}" if after else "",
                reason(self.value["_error"])]


class InboxPrinter(SyncPrinter):
    def parts(self):
        error = reason(self.value["_error"])
        return [error or "open"]


def sync_printers():
    collection = gdb.printing.RegexpCollectionPrettyPrinter("sqlsync")
    for name, printer in (("ChangeSet", ChangeSetPrinter), ("Inbox", InboxPrinter), ("Outbox", OutboxPrinter),
                          ("RecordedTransaction", RecordedTransactionPrinter),
                          ("Recorder", RecorderPrinter)):
        collection.add_printer(name, f"^sql::{name}$", printer)
    return collection


gdb.printing.register_pretty_printer(gdb.current_objfile(), sync_printers(), replace=True)
