"""python -m kxpfwrul DLL DIRECTORY: prints every rule in a rule directory."""
import sys

from . import Store, get_wide

if len(sys.argv) != 3:
    sys.exit(__doc__)
with Store(sys.argv[1], sys.argv[2]) as store:
    for index in store.rule_sets():
        for rule in store.rule_set(index).rules:
            print(f"{index}/{rule.wRuleIndex}", store.text(rule), get_wide(rule.wszDescription))
