#!/usr/bin/env python3
"""schema_check.py SCHEMA POLICY...: the schema is a schema, it takes these policies, and refuses what is wrong in them.

Exit code 77 when the validator is not installed.
"""
import copy
import json
import sys

try:
    import jsonschema
except ImportError:
    print("no jsonschema")
    sys.exit(77)


def at(document, path):
    for step in path[:-1]:
        document = document[step]
    return document, path[-1]


# Each makes a good policy wrong in one place.
RULE = ("ruleSets", 0, "rules", 0)
MISTAKES = [
    (("version",), 2),
    (("version",), None),
    (("activ",), []),
    (("active",), [0]),
    (("ruleSets", 0, "index"), 65281),
    (("ruleSets", 0, "name"), "x" * 65),
    (RULE + ("kind",), "acess"),
    (RULE + ("action",), "allow"),
    (RULE + ("natType",), "snat"),
    (RULE + ("addresses",), ["any"]),
    (RULE + ("addresses",), ["any", "10.0.0"]),
    (RULE + ("addresses",), ["any", "10.0.0.256"]),
    (RULE + ("ports",), ["any", "80-"]),
    (RULE + ("ports",), ["any", 65536]),
    (RULE + ("raw",), ["4: 0"]),
    (RULE + ("hash",), "00"),
    (("macros", 0, "items", 0), {"address": "any", "port": "any"}),
]


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    problems = []
    for name in sys.argv[2:]:
        with open(name, encoding="utf-8") as file:
            policy = json.load(file)
        for error in validator.iter_errors(policy):
            problems.append(f"{name}: {'/'.join(map(str, error.absolute_path))}: {error.message[:200]}")
    with open(sys.argv[2], encoding="utf-8") as file:
        good = json.load(file)
    for path, value in MISTAKES:
        wrong = copy.deepcopy(good)
        parent, last = at(wrong, path)
        if value is None:
            del parent[last]
        else:
            parent[last] = value
        if validator.is_valid(wrong):
            problems.append(f"takes {'/'.join(map(str, path))} = {value!r}")
    print("\n".join(problems) or f"{len(sys.argv) - 2} policies are valid, {len(MISTAKES)} mistakes are refused")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
