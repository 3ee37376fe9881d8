"""KxPfwRul.dll, the rule store of a host firewall, and KxPolicy.dll from Python on Windows. KxPfwRule.h and KxPolicy.h
document every call."""
from ._library import Code, Library, Macro, RuleError, RuleSet, Store
from ._notation import access, address, port
from ._policy import Diagnostic, Difference, Exported, Policies, PolicyCode, PolicyError
from ._records import (MACRO_ITEM, PFW_ACCESS, PFW_ACCESS2, PFW_ADDR, PFW_GENSTREAM, PFW_MACRO, PFW_NAT, PFW_RULE,
                       PFW_RULESET, PFW_STREAM, PFW_THROTTLE, RULE_ADDR, RULE_PORT, get_wide, set_wide)

__all__ = [
    "Code", "Library", "Macro", "RuleError", "RuleSet", "Store", "access", "address", "port",
    "Diagnostic", "Difference", "Exported", "Policies", "PolicyCode", "PolicyError",
    "MACRO_ITEM", "PFW_ACCESS", "PFW_ACCESS2", "PFW_ADDR", "PFW_GENSTREAM", "PFW_MACRO", "PFW_NAT", "PFW_RULE",
    "PFW_RULESET", "PFW_STREAM", "PFW_THROTTLE", "RULE_ADDR", "RULE_PORT", "get_wide", "set_wide",
]
