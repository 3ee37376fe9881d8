#!/usr/bin/env python3
"""schema_check.py SCHEMA POLICY...: the schema is a schema, it takes these policies, and refuses what is wrong in them.

Exit code 77 when the validator is not installed.
"""
import copy
import json
import pathlib
import sys

try:
    import jsonschema
except ImportError:
    print("no jsonschema")
    sys.exit(77)

# Each makes the first policy wrong in one place: what leads there, its member, and another value; None for no member.
RULE = ("ruleSets", 0, "rules", 0)
MISTAKES = [
    ((), "version", 2),
    ((), "version", None),
    ((), "activ", []),
    ((), "active", [0]),
    (RULE[:2], "index", 65281),
    (RULE[:2], "name", "x" * 65),
    (RULE, "kind", "acess"),
    (RULE, "action", "allow"),
    (RULE, "natType", "snat"),
    (RULE, "addresses", ["any"]),
    (RULE, "addresses", ["any", "10.0.0"]),
    (RULE, "addresses", ["any", "10.0.0.256"]),
    (RULE, "ports", ["any", "80-"]),
    (RULE, "ports", ["any", 65536]),
    (RULE, "raw", ["4: 0"]),
    (RULE, "hash", "00"),
    (("macros", 0, "items"), 0, {"address": "any", "port": "any"}),
]

schema, *policies = (json.loads(pathlib.Path(name).read_text(encoding="utf-8")) for name in sys.argv[1:])
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
for policy in policies:
    validator.validate(policy)
for path, member, value in MISTAKES:
    parent = wrong = copy.deepcopy(policies[0])
    for step in path:
        parent = parent[step]
    parent[member] = value
    if value is None:
        del parent[member]
    if validator.is_valid(wrong):
        sys.exit(f"takes {'/'.join(map(str, path))}: {member} = {value!r}")
print(f"{len(policies)} policies are valid, {len(MISTAKES)} mistakes are refused")
