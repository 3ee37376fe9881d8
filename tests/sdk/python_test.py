"""The Python package against the header: layouts, signatures, codes, and calls with a stand-in for the library.

Usage: python_test.py HEADER-FOLDER, with the installed package in PYTHONPATH. (No Python for Windows can be had here:
that the DLL itself answers these calls is seen from C and C++ alone.)
"""
import ctypes
import functools
import pathlib
import re
import subprocess
import sys

import kxpfwrul
from kxpfwrul import Code, PolicyCode, _library, _policy

include = pathlib.Path(sys.argv[1]).resolve()
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


NUMBERS = {"uint16_t": ctypes.c_uint16, "int32_t": ctypes.c_int32, "uint32_t": ctypes.c_uint32,
           "size_t": ctypes.c_size_t}


def same(arguments, parameters):
    """Of pointers it is seen only that they are ones."""
    declared = [NUMBERS.get(parameter.split()[0]) if "*" not in parameter else None
                for parameter in parameters.replace("\\", "").split(",") if parameter != "void"]
    assert declared == [kind if kind in NUMBERS.values() else None for kind in arguments], parameters


def check_signatures():
    """Every function takes what the headers say, in their order, and every code has its name."""
    for header, signatures, codes, count in zip(headers, (_library._SIGNATURES, _policy._SIGNATURES),
                                                (Code, PolicyCode), (25, 4)):
        rows = re.findall(r"F\((kx\w+),[\s\\]*\((.*?)\)\)", header[header.index("_FUNCTIONS(F)"):], re.S)
        assert len(rows) == count and [name for name, _ in rows] == list(signatures), rows
        for name, parameters in rows:
            same(signatures[name], parameters)
        defined = dict(re.findall(r"#define (KX\w+_OK|KX\w+_E_\w+) \(?(-?\d+)\)?", header))
        assert {code.name: str(code.value) for code in codes} == defined
    for name, callback in (("KXRULE_HASH", _library._HASH_CALLBACK), ("KXPOLICY_REPORT", _policy._REPORT),
                           ("KXPOLICY_TAKE", _policy._TAKE)):
        same(callback._argtypes_, re.search(rf"\(\*{name}\w*\)\((.*?)\)", "".join(headers), re.S)[1])


def refuses(error, words, call, *arguments, **named):
    try:
        call(*arguments, **named)
    except error as raised:
        assert words in str(raised), raised
    else:
        raise AssertionError(f"not refused: {arguments} {named} {words}")


def check_values():
    for text in ("010.0.0.1", "10.0.0.0/33", "10.0.0.1-fe80::1", "fe80::1%3", "!any", ""):
        refuses(ValueError, "", kxpfwrul.address, text)
    for text in ("65536", "80,", "!80,81", "http"):
        refuses(ValueError, "", kxpfwrul.port, text)
    refuses(ValueError, "wRuleIndex takes 0 to 65535", kxpfwrul.access, 65536)
    refuses(ValueError, "wLimit", kxpfwrul.PFW_THROTTLE, wLimit=(1, 2, 3, 4, 5, 65536))
    refuses(ValueError, "260", kxpfwrul.access, 1, app="x" * 261)
    refuses(ValueError, "31", kxpfwrul.PFW_MACRO, szName=b"x" * 32)


class StandIn:
    """As much of both DLLs as is called here, in C functions of the declared types: one rule set, and policies. The text
    "bad" has an error, any other is two differences from a store of stamp 7."""
    calls = []

    def __init__(self, path):
        self.rules = []
        for name, arguments in {**_library._SIGNATURES, **_policy._SIGNATURES}.items():
            setattr(self, name, ctypes.CFUNCTYPE(ctypes.c_int32, *arguments)(functools.partial(self.call, name)))

    def call(self, name, *arguments):
        StandIn.calls.append(name)
        return getattr(self, "on_" + name, lambda *_: Code.KXRULE_OK)(*arguments)

    def on_kxRuleInitialize(self, path, master):
        self.path = path
        return Code.KXRULE_OK if master is None else Code.KXRULE_E_MUTEX

    def on_kxRuleFlush(self):
        return Code.KXRULE_E_FILE_WRITE if self.path == b"full" else Code.KXRULE_OK

    def on_kxRuleAddRuleSet(self, index, block):
        head = kxpfwrul.PFW_RULESET.from_address(block)
        head.wRuleSetIndex = index or 3
        self.head = bytes(head)
        return Code.KXRULE_OK

    def on_kxRuleGetRuleSetIndex(self, indexes, most):
        ctypes.c_uint16.from_address(indexes).value = 3
        return 1

    def on_kxRuleAddRule(self, rule_set, index, rule):
        if rule_set != 3 or index != rule.contents.wRuleIndex:
            return Code.KXRULE_E_NO_RULESET
        self.rules.append(bytes(rule.contents))
        return Code.KXRULE_OK

    def on_kxRuleGetRuleSet(self, index, block, most):
        if index != 3:
            return Code.KXRULE_E_NO_RULESET
        if block:
            content = b"".join([self.head, *self.rules[:most]])
            ctypes.memmove(block, content, len(content))
        return len(self.rules)

    def on_kxRuleGetRuleString2(self, rule, text, size):
        line = f"rule {rule.contents.wRuleIndex}".encode() * 100
        ctypes.memmove(text, line, min(size, len(line)))
        return len(line)

    def on_kxPolicyCheck(self, text, size, report, context):
        if text[:size] != b"bad":
            return Code.KXRULE_OK
        report(1, 1, 2, b"active[0]", "expected a ü".encode(), context)
        return PolicyCode.KXPOLICY_E_TEXT

    def on_kxPolicyExport(self, table, flags, stamp, take, context):
        stamp[0] = 7
        function = ctypes.c_void_p.from_address(table + 8 * list(_library._SIGNATURES).index("kxRuleGetRuleSet")).value
        count = ctypes.CFUNCTYPE(ctypes.c_int32, *_library._SIGNATURES["kxRuleGetRuleSet"])(function)(3, None, 0)
        take(b"%d rules" % count, 7, context)
        return PolicyCode.KXPOLICY_E_ARGUMENT if flags else Code.KXRULE_OK

    def on_kxPolicyDifference(self, table, text, size, flags, stamp, take, report, context):
        stamp[0] = 7
        take(b"- all" if flags == 3 else b"+ x", 5 if flags == 3 else 3, context)
        return self.on_kxPolicyCheck(text, size, report, context) or 2

    def on_kxPolicyApply(self, table, text, size, flags, stamp, report, context):
        is_changed = stamp and stamp[0] != 7
        return PolicyCode.KXPOLICY_E_CHANGED if is_changed else self.on_kxPolicyCheck(text, size, report, context) or 2


def check_calls():
    """A set of a rule goes in and comes back; `with` writes, and says when it could not."""
    ctypes.CDLL = StandIn
    with kxpfwrul.Store("x.dll", "empty") as store:
        index = store.add_rule_set("Büro")
        rule = kxpfwrul.access(7, "tcp", source="10.0.0.0/8", port="80-90", description="Drucker im Büro")
        store.add_rule(index, rule)
        assert store.rule_sets() == [index]
        office = store.rule_set(index)
        (stored,) = office.rules
        assert bytes(stored) == bytes(rule) and (office.index, office.name) == (index, "Büro")
        assert kxpfwrul.get_wide(stored.wszDescription) == "Drucker im Büro"
        assert store.text(stored) == "rule 7" * 100
        refuses(kxpfwrul.RuleError, "kxRuleGetRuleSet: KXRULE_E_NO_RULESET (-10015)", store.rule_set, index + 1)
        refuses(ValueError, "0 to 65535", store.rule_set, 65536 + index)
        refuses(kxpfwrul.RuleError, "KXRULE_E_NO_RULESET", store.add_rule, index + 1, rule)
        policies = kxpfwrul.Policies(store, "y.dll")
        assert policies.export() == kxpfwrul.Exported("1 rules", 7)
        assert policies.difference("{}", True, True) == kxpfwrul.Difference("- all", 7, 2)
        assert policies.check(b"{}") == [] and [str(found) for found in policies.check("bad")] == [
            "1:2: active[0]: expected a ü"]
        assert policies.apply("{}") == policies.apply("{}", stamp=7) == 2
        refuses(kxpfwrul.PolicyError, "KXPOLICY_E_TEXT (-20002)\n1:2: active[0]: expected", policies.apply, "bad")
        refuses(kxpfwrul.PolicyError, "KXPOLICY_E_CHANGED", policies.apply, "{}", stamp=8)
        refuses(ValueError, "2**64", policies.apply, "{}", stamp=-1)
    assert StandIn.calls[:2] == ["kxRuleInitialize", "kxRuleRead"]
    assert StandIn.calls[-2:] == ["kxRuleFlush", "kxRuleFinalize"]
    full = kxpfwrul.Store("x.dll", "full").__enter__()
    refuses(kxpfwrul.RuleError, "kxRuleFlush: KXRULE_E_FILE_WRITE", full.__exit__, None)
    assert StandIn.calls[-2:] == ["kxRuleFlush", "kxRuleFinalize"]


print(check_layouts(), "sizes and offsets agree")
check_signatures()
check_values()
check_calls()
