"""The rule store from Python on Windows, with the standard library alone.
python kxpfwrul.py DIRECTORY prints every rule of a rule directory; KxPfwRul.dll is taken from the current one."""
import ctypes
import ipaddress
import os
import sys
from ctypes import c_char, c_char_p, c_int32, c_uint8, c_uint16, c_uint32, c_void_p

CODE_PAGE = "mbcs" if sys.platform == "win32" else "latin-1"  # narrow texts are in the active code page
PROTOCOLS = {"any": 0, "icmp": 1, "tcp": 6, "udp": 17, "tcpudp": 65536}
ACTIONS = {"accept": 1, "drop": 2, "reject": 3, "reset": 4, "ask": 5}
ADDR_ANY, ADDR_PREFIX, FAMILY_IPV4, PORT_ANY, PORT_RANGE = 1, 4, 2, 1, 3


class Packed(ctypes.Structure):
    _pack_ = 1


class PFW_ADDR(ctypes.Union):
    _fields_ = [("dwIPv4", c_uint32), ("abIPv6", c_uint8 * 16)]


class RULE_ADDR(Packed):
    _fields_ = [("dwType", c_uint32), ("dwNot", c_uint32), ("dwFamily", c_uint32), ("Addr1", PFW_ADDR),
                ("dwSpare", c_uint32), ("Addr2", PFW_ADDR)]


class PortNumbers(Packed):
    _fields_ = [("dwNot", c_uint32), ("wPort1", c_uint16), ("wPort2", c_uint16)]


class PortItem(ctypes.Union):
    _anonymous_ = ["numbers"]
    _fields_ = [("numbers", PortNumbers), ("szList", c_char * 129)]


class RULE_PORT(Packed):
    _anonymous_ = ["item"]
    _fields_ = [("nType", c_int32), ("item", PortItem)]


class PFW_ACCESS(Packed):
    _fields_ = [("dwSpare1", c_uint32), ("dwProtocol", c_uint32), ("dwSpare2", c_uint32), ("Addr", RULE_ADDR * 2),
                ("Port", RULE_PORT * 2), ("dwAction", c_uint32), ("dwExtFlag", c_uint32), ("dwExtValue", c_uint32),
                ("wExtValue", c_uint16), ("szExtText", c_char * 256), ("wszAppName", c_uint16 * 261),
                ("abAppHash", c_uint8 * 20), ("dwSystem", c_uint32)]


class RuleKind(ctypes.Union):
    _fields_ = [("Access", PFW_ACCESS), ("abKind", c_uint8 * 2705)]


class PFW_RULE(Packed):
    _anonymous_ = ["kind"]
    _fields_ = [("wRuleIndex", c_uint16), ("wszDescription", c_uint16 * 65), ("dwActive", c_uint32),
                ("dwKind", c_uint32), ("kind", RuleKind)]


class PFW_RULESET(Packed):
    _fields_ = [("wRuleSetIndex", c_uint16), ("wszName", c_uint16 * 65), ("nRuleCount", c_int32)]


def set_wide(field, text):
    """UTF-16 units, cut to the field, which keeps its terminator."""
    size = ctypes.sizeof(field)
    ctypes.memmove(field, text.encode("utf-16-le")[: size - 2].ljust(size, b"\0"), size)


def get_wide(field):
    return bytes(field).decode("utf-16-le", "replace").split("\0")[0]


def access(index, protocol, source, ports, action, description=""):
    """An access rule: from an IPv4 network ("10.0.0.0/8" or "any") to a range of ports (first, last)."""
    rule = PFW_RULE(wRuleIndex=index, dwActive=1, dwKind=1)
    set_wide(rule.wszDescription, description)
    rule.Access.dwProtocol, rule.Access.dwAction = PROTOCOLS[protocol], ACTIONS[action]
    rule.Access.Addr[0].dwType = rule.Access.Addr[1].dwType = ADDR_ANY
    if source != "any":
        network = ipaddress.IPv4Network(source)
        rule.Access.Addr[0].dwType, rule.Access.Addr[0].dwFamily = ADDR_PREFIX, FAMILY_IPV4
        rule.Access.Addr[0].Addr1.dwIPv4 = int(network.network_address)
        rule.Access.Addr[0].Addr2.dwIPv4 = network.prefixlen
    rule.Access.Port[0].nType, rule.Access.Port[1].nType = PORT_ANY, PORT_RANGE
    rule.Access.Port[1].wPort1, rule.Access.Port[1].wPort2 = ports
    return rule


class Store:
    """with Store("KxPfwRul.dll", directory) as store: ..."""

    SIGNATURES = {
        "kxRuleInitialize": [c_char_p, c_char_p], "kxRuleFinalize": [], "kxRuleRead": [], "kxRuleFlush": [],
        "kxRuleGetRuleSetIndex": [c_void_p, c_int32], "kxRuleGetRuleSet": [c_uint16, c_void_p, c_int32],
        "kxRuleAddRuleSet": [c_uint16, ctypes.POINTER(PFW_RULESET)],
        "kxRuleAddRule": [c_uint16, c_uint16, ctypes.POINTER(PFW_RULE)],
        "kxRuleGetRuleString2": [ctypes.POINTER(PFW_RULE), c_void_p, c_int32]}

    def __init__(self, library, directory):
        self.library, self.directory = ctypes.CDLL(os.path.abspath(library)), directory
        for name, arguments in self.SIGNATURES.items():
            getattr(self.library, name).argtypes = arguments  # they all return a 32-bit int, as ctypes assumes

    def call(self, name, *arguments):
        result = getattr(self.library, name)(*arguments)
        if result < 0:
            raise OSError(f"{name} returned {result}")
        return result

    def __enter__(self):
        self.call("kxRuleInitialize", self.directory.encode(CODE_PAGE), None)
        try:
            self.call("kxRuleRead")
        except OSError:
            self.library.kxRuleFinalize()
            raise
        return self

    def __exit__(self, *_):
        self.library.kxRuleFinalize()

    def add_rule_set(self, name):
        head = PFW_RULESET()
        set_wide(head.wszName, name)
        self.call("kxRuleAddRuleSet", 0, head)
        return head.wRuleSetIndex

    def rule_sets(self):
        indexes = (c_uint16 * 64)()
        return indexes[: self.call("kxRuleGetRuleSetIndex", indexes, 64)]

    def rules(self, rule_set):
        count = self.call("kxRuleGetRuleSet", rule_set, None, 0)
        block = ctypes.create_string_buffer(ctypes.sizeof(PFW_RULESET) + count * ctypes.sizeof(PFW_RULE))
        count = min(count, self.call("kxRuleGetRuleSet", rule_set, block, count))  # another thread may change the set
        return list((PFW_RULE * count).from_buffer(block, ctypes.sizeof(PFW_RULESET)))

    def text(self, rule):
        length = self.call("kxRuleGetRuleString2", rule, None, 0)
        line = ctypes.create_string_buffer(length + 1)
        self.call("kxRuleGetRuleString2", rule, line, len(line))
        return line.value.decode(CODE_PAGE)


if __name__ == "__main__":
    with Store("KxPfwRul.dll", sys.argv[1]) as opened:
        for number in opened.rule_sets():
            for stored in opened.rules(number):
                print(f"{number}/{stored.wRuleIndex}", opened.text(stored), get_wide(stored.wszDescription))
