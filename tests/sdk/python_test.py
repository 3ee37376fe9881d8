"""The Python example against the header: its layouts, and its calls with a stand-in for the library.

Usage: python_test.py ROOT SCRATCH
"""
import ctypes
import pathlib
import subprocess
import sys

root, scratch = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
sys.path.insert(0, str(root / "examples" / "python"))
sys.dont_write_bytecode = True
import kxpfwrul  # noqa: E402


def fields(record):
    """Name, offset and size of every field as C sees them: the nameless members' fields are the record's own."""
    for name, kind, *_ in record._fields_:
        offset = getattr(record, name).offset
        if name in getattr(record, "_anonymous_", []):
            yield from ((inner, offset + at, size) for inner, at, size in fields(kind))
        else:
            yield name, offset, ctypes.sizeof(kind)


def check_layouts():
    """Whatever the example says of a record, a C compiler must find in the header."""
    records = [kxpfwrul.PFW_ADDR, kxpfwrul.RULE_ADDR, kxpfwrul.RULE_PORT, kxpfwrul.PFW_ACCESS, kxpfwrul.PFW_RULE,
               kxpfwrul.PFW_RULESET]
    lines = ['#include "api/include/KxPfwRule.h"']
    for record in records:
        name = record.__name__
        if name != "PFW_ACCESS":  # in Python an access rule ends with its last field
            lines.append(f"_Static_assert(sizeof({name}) == {ctypes.sizeof(record)}, \"{name}\");")
        for field, offset, size in fields(record):
            lines.append(f"_Static_assert(offsetof({name}, {field}) == {offset}, \"{name}.{field}\");")
            lines.append(f"_Static_assert(sizeof((({name}*)0)->{field}) == {size}, \"size of {name}.{field}\");")
    subprocess.run(["gcc", "-std=c11", "-fsyntax-only", f"-I{root}", "-x", "c", "-"], input="\n".join(lines), text=True,
                   check=True)
    return len(lines) - 1


def check_calls():
    """A set of a rule goes in and comes back through the functions' real signatures."""
    library = scratch / "stand_in.so"
    subprocess.run(["gcc", "-std=c11", "-Wall", "-Wextra", "-Werror", "-shared", "-fPIC", f"-I{root}", "-o", library,
                    root / "tests" / "sdk" / "stand_in.c"], check=True)
    with kxpfwrul.Store(str(library), "somewhere") as store:
        index = store.add_rule_set("Büro")
        rule = kxpfwrul.access(7, "tcp", "10.0.0.0/8", (80, 90), "accept", "Drucker im Büro")
        store.call("kxRuleAddRule", index, 7, rule)
        assert store.rule_sets() == [index]
        (stored,) = store.rules(index)
        assert bytes(stored) == bytes(rule)
        assert kxpfwrul.get_wide(stored.wszDescription) == "Drucker im Büro"
        assert store.text(stored) == "7 6 a000000/8 80-90 1"
        try:
            store.call("kxRuleGetRuleSet", index + 1, None, 0)
            raise AssertionError("a code below zero must raise")
        except OSError as error:
            assert "-10015" in str(error)


print(check_layouts(), "sizes and offsets agree")
check_calls()
