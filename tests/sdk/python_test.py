"""The Python package against the header: layouts, signatures, codes, and calls with a stand-in for the library.

Usage: python_test.py HEADER-FOLDER SCRATCH, with the installed package in PYTHONPATH. (No Python for Windows can be had
here: that the DLL itself answers these calls is seen from C and C++ alone.)
"""
import ctypes
import pathlib
import re
import subprocess
import sys

import kxpfwrul
from kxpfwrul import _library, _policy

include, scratch = (pathlib.Path(argument).resolve() for argument in sys.argv[1:])
here = pathlib.Path(__file__).resolve().parent
headers = [(include / name).read_text(encoding="utf-8") for name in ("KxPfwRule.h", "KxPolicy.h")]


def fields(record):
    """Name, offset and size of every field as C sees them: the nameless members' fields are the record's own."""
    for name, kind, *_ in record._fields_:
        offset = getattr(record, name).offset
        if name in getattr(record, "_anonymous_", []):
            yield from ((inner, offset + at, size) for inner, at, size in fields(kind))
        else:
            yield name, offset, ctypes.sizeof(kind)


def check_layouts():
    """Whatever the package says of a record, a C compiler must find in the header."""
    records = [value for name, value in vars(kxpfwrul).items() if name.isupper()]
    lines = ['#include "KxPfwRule.h"']
    for record in records:
        name = record.__name__
        lines.append(f"_Static_assert(sizeof({name}) == {ctypes.sizeof(record)}, \"{name}\");")
        for field, offset, size in fields(record):
            lines.append(f"_Static_assert(offsetof({name}, {field}) == {offset}, \"{name}.{field}\");")
            lines.append(f"_Static_assert(sizeof((({name}*)0)->{field}) == {size}, \"size of {name}.{field}\");")
    subprocess.run(["gcc", "-std=c11", "-fsyntax-only", f"-I{include}", "-x", "c", "-"], input="\n".join(lines),
                   text=True, check=True)
    assert len(records) == 13, records
    return len(lines) - 1


def check_signatures():
    """Every function takes what the headers say, in their order, and every code has its name."""
    kinds = {"uint16_t": ctypes.c_uint16, "int32_t": ctypes.c_int32, "uint32_t": ctypes.c_uint32,
             "size_t": ctypes.c_size_t}
    for header, signatures, codes, count in zip(headers, (_library._SIGNATURES, _policy._SIGNATURES),
                                                (kxpfwrul.Code, kxpfwrul.PolicyCode), (25, 4)):
        rows = re.findall(r"F\((kx\w+),[\s\\]*\((.*?)\)\)", header[header.index("_FUNCTIONS(F)"):], re.S)
        declared = [(name, [kinds.get(parameter.split()[0]) if "*" not in parameter else None
                            for parameter in parameters.replace("\\", "").split(",") if parameter != "void"])
                    for name, parameters in rows]
        assert len(declared) == count, declared
        assert declared == [(name, [kind if kind in kinds.values() else None for kind in arguments])
                            for name, arguments in signatures.items()]
        defined = dict(re.findall(r"#define (KX\w+_OK|KX\w+_E_\w+) \(?(-?\d+)\)?", header))
        assert {code.name: str(code.value) for code in codes} == defined


def refuses(error, call, text):
    try:
        call()
    except error as raised:
        assert text in str(raised), raised
        return
    raise AssertionError(f"not refused: {text}")


def check_values():
    for text in ("010.0.0.1", "10.0.0.0/33", "10.0.0.1-fe80::1", "fe80::1%3", "!any", ""):
        refuses(ValueError, lambda: kxpfwrul.address(text), "")
    for text in ("65536", "80,", "!80,81", "http"):
        refuses(ValueError, lambda: kxpfwrul.port(text), "")
    refuses(ValueError, lambda: kxpfwrul.access(65536), "wRuleIndex takes 0 to 65535")
    refuses(ValueError, lambda: kxpfwrul.PFW_THROTTLE(wLimit=(1, 2, 3, 4, 5, 65536)), "wLimit")
    refuses(ValueError, lambda: kxpfwrul.access(1, app="x" * 261), "260")
    refuses(ValueError, lambda: kxpfwrul.PFW_MACRO(szName=b"x" * 32), "31")


def check_calls():
    """A set of a rule goes in and comes back; `with` writes, and says when it could not."""
    library = scratch / "stand_in.so"
    missing = scratch / "missing.c"
    missing.write_text('#include "KxPfwRule.h"\n#define MISSING(name, parameters) __attribute__((weak)) int32_t name parameters'
                       "{ return KXRULE_E_FILE_OPEN; }\nKXRULE_FUNCTIONS(MISSING)\n")
    subprocess.run(["gcc", "-std=c11", "-Wall", "-Wextra", "-Wno-unused-parameter", "-Werror", "-shared", "-fPIC",
                    f"-I{include}", "-o", library, here / "stand_in.c", missing], check=True)
    with kxpfwrul.Store(str(library), "somewhere") as store:
        index = store.add_rule_set("Büro")
        rule = kxpfwrul.access(7, "tcp", source="10.0.0.0/8", port="80-90", description="Drucker im Büro")
        store.add_rule(index, rule)
        assert store.rule_sets() == [index]
        office = store.rule_set(index)
        (stored,) = office.rules
        assert bytes(stored) == bytes(rule) and (office.index, office.name) == (index, "Büro")
        assert kxpfwrul.get_wide(stored.wszDescription) == "Drucker im Büro"
        assert store.text(stored) == "7 6 a000000/8 80-90 1"
        refuses(kxpfwrul.RuleError, lambda: store.rule_set(index + 1), "kxRuleGetRuleSet: KXRULE_E_NO_RULESET (-10015)")
        refuses(ValueError, lambda: store.rule_set(65536 + index), "0 to 65535")
        refuses(kxpfwrul.RuleError, lambda: store.add_rule(index + 1, rule), "KXRULE_E_NO_RULESET")
        policies = kxpfwrul.Policies(store, str(library))
        assert policies.export() == kxpfwrul.Exported("1 rules", 7)
        assert policies.difference("{}", True, True) == kxpfwrul.Difference("- all", 7, 2)
        assert policies.check(b"{}") == [] and [str(found) for found in policies.check("bad")] == [
            "1:2: active[0]: expected a ü"]
        assert policies.apply("{}") == policies.apply("{}", stamp=7) == 2
        refuses(kxpfwrul.PolicyError, lambda: policies.apply("bad"), "KXPOLICY_E_TEXT (-20002)\n1:2: active[0]: expected")
        refuses(kxpfwrul.PolicyError, lambda: policies.apply("{}", stamp=8), "KXPOLICY_E_CHANGED")
        refuses(ValueError, lambda: policies.apply("{}", stamp=-1), "2**64")
        stands = ctypes.CDLL(str(library))
    assert stands.flushed() == 1 and stands.finalized() == 1

    def full():
        with kxpfwrul.Store(str(library), "full"):
            pass
    refuses(kxpfwrul.RuleError, full, "kxRuleFlush: KXRULE_E_FILE_WRITE")
    assert stands.finalized() == 2


print(check_layouts(), "sizes and offsets agree")
check_signatures()
check_values()
check_calls()
