#!/usr/bin/env python3
"""Makes the rule files of this folder with another AES than the library's: that of the openssl program.

Run it here after a change; the files are committed. docs/format.md explains what it writes, and shows master.dat in hex.
"""
import pathlib
import struct
import subprocess

KEY = "00112233445566778899aabbccddeeff"


def record(field):
    """A plain length, then the field encrypted by itself; an empty field is the length 0 alone."""
    if not field:
        return bytes(4)
    command = ["openssl", "enc", "-aes-128-cbc", "-K", KEY, "-iv", "0" * 32]
    cipher = subprocess.run(command, input=field, stdout=subprocess.PIPE, check=True).stdout
    return struct.pack("<I", len(cipher)) + cipher


def u16(value):
    return record(struct.pack("<H", value))


def u32(value):
    return record(struct.pack("<I", value))


def text(field):
    return u32(len(field)) + record(field)


def array(units):
    return u32(len(units)) + record(b"".join(struct.pack("<H", unit) for unit in units))


def patterned(size, seed):
    return bytes((seed + i * 7 + i // 256) & 0xFF for i in range(size))


VERSION = u32(0x00020000)
OLD_VERSION = u32(0x00010000)


def master(macro_file, next_index, active, names):
    return (b"KRSM" + VERSION + text(macro_file) + u16(next_index) + array(active) + u32(len(names)) +
            b"".join(text(name) for name in names))


def macros(*entries):
    return b"KMAC" + VERSION + u32(len(entries)) + b"".join(
        text(name) + u32(len(items)) + b"".join(record(item) for item in items) for name, items in entries)


def rule_set(index, name, rules):
    return (b"KRSF" + VERSION + u16(index) + text(name.encode("utf-16-le")) + u32(len(rules)) +
            b"".join(record(rule) for rule in rules))


FILES = {
    "master-empty.dat": master(b"KxRulMac.dat", 1, [], []),
    "master.dat": master(b"KxRulMac.dat", 2, [1], [b"KxRl0001.dat"]),
    "master-many.dat": master(b"OtherMac.dat", 0xFF00, [3, 1, 1, 0xABCD, 0, 2, 9, 8],
                              [b"KxRl0001.dat", b"", b"KxRl00AB.dat"]),
    "macros-empty.dat": macros(),
    # Nine items, nine rules: one more than go through the cipher together.
    "macros.dat": macros((b"none", []), (b"nine", [patterned(137, seed) for seed in range(9)]), (b"", [bytes(137)])),
    "ruleset-empty.dat": rule_set(0xAB, "", []),
    "ruleset.dat": rule_set(1, "B\u00fcro \u65e5\u672c", [patterned(2845, seed) for seed in range(9)]),
    # The rules of the old version are not known to this library: these bytes stand for them.
    "ruleset-old.dat": b"KRSF" + OLD_VERSION + u16(7) + text(b"Old") + u32(2) + record(b"?" * 100) * 2,
}

for name, content in FILES.items():
    pathlib.Path(__file__).with_name(name).write_bytes(content)
