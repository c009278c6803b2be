"""Shows the objects of sqlsync in gdb: its plain values as gdb itself shows them."""
