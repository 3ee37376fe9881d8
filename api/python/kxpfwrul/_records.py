"""The packed records of KxPfwRule.h. Numbers and texts that do not fit their field are refused."""
import ctypes
from ctypes import c_char, c_int32, c_uint8, c_uint16, c_uint32
from typing import Any, Dict, Tuple

RANGES: Dict[Any, Tuple[int, int]] = {
    c_uint8: (0, 0xFF), c_uint16: (0, 0xFFFF), c_uint32: (0, 0xFFFFFFFF), c_int32: (-0x80000000, 0x7FFFFFFF)}


def check(kind: Any, name: str, value: Any) -> None:
    """Refuses what ctypes would accept: a number cut to its low bits, a text without room for its terminator."""
    element = getattr(kind, "_type_", None)
    if kind in RANGES and isinstance(value, int):
        low, high = RANGES[kind]
        if not low <= value <= high:
            raise ValueError(f"{name} takes {low} to {high}, not {value}")
    elif element in RANGES and isinstance(value, (tuple, list)):
        for number in value:
            check(element, name, number)
    elif element is c_char and isinstance(value, bytes) and (len(value) >= kind._length_ or 0 in value):
        raise ValueError(f"{name} takes at most {kind._length_ - 1} bytes, none of them 0")


class _Checked:
    """Mixed into records: checks that a value assigned to a field fits it. (Elements of arrays are not checked.)"""
    _kinds: Dict[str, Any]

    def __init_subclass__(cls, **arguments: Any) -> None:
        super().__init_subclass__(**arguments)
        cls._kinds = {}
        for name, kind, *_ in getattr(cls, "_fields_", []):
            cls._kinds.update(getattr(kind, "_kinds", {}) if name in getattr(cls, "_anonymous_", []) else {name: kind})

    def __setattr__(self, name: str, value: Any) -> None:
        check(self._kinds.get(name), name, value)
        super().__setattr__(name, value)


class _Struct(_Checked, ctypes.Structure):
    _pack_ = 1

    def __init__(self, **fields: Any) -> None:
        super().__init__()
        for name, value in fields.items():
            setattr(self, name, value)


class _Union(_Checked, ctypes.Union):
    pass


class PFW_ADDR(_Union):
    _fields_ = [("dwIPv4", c_uint32), ("abIPv6", c_uint8 * 16)]


class _AddrNumbers(_Struct):
    _fields_ = [("dwNot", c_uint32), ("dwFamily", c_uint32), ("Addr1", PFW_ADDR), ("dwSpare", c_uint32),
                ("Addr2", PFW_ADDR)]


class _AddrItem(_Union):
    _anonymous_ = ["numbers"]
    _fields_ = [("numbers", _AddrNumbers), ("szName", c_char * 44)]


class RULE_ADDR(_Struct):
    _anonymous_ = ["item"]
    _fields_ = [("dwType", c_uint32), ("item", _AddrItem)]


class _PortNumbers(_Struct):
    _fields_ = [("dwNot", c_uint32), ("wPort1", c_uint16), ("wPort2", c_uint16)]


class _PortItem(_Union):
    _anonymous_ = ["numbers"]
    _fields_ = [("numbers", _PortNumbers), ("szList", c_char * 129)]


class RULE_PORT(_Struct):
    _anonymous_ = ["item"]
    _fields_ = [("nType", c_int32), ("item", _PortItem)]


_EXTENSION = [("dwExtFlag", c_uint32), ("dwExtValue", c_uint32), ("wExtValue", c_uint16), ("szExtText", c_char * 256)]
_APPLICATION = [("wszAppName", c_uint16 * 261), ("abAppHash", c_uint8 * 20), ("dwSystem", c_uint32)]


class PFW_ACCESS(_Struct):
    _fields_ = [("dwSpare1", c_uint32), ("dwProtocol", c_uint32), ("dwSpare2", c_uint32), ("Addr", RULE_ADDR * 2),
                ("Port", RULE_PORT * 2), ("dwAction", c_uint32), *_EXTENSION, *_APPLICATION]


class PFW_ACCESS2(_Struct):
    _fields_ = [("dwSpare1", c_uint32), ("dwProtocol", c_uint32), ("dwSpare2", c_uint32), ("Addr", RULE_ADDR * 2),
                ("Port", RULE_PORT * 2), ("abSpare", c_uint8 * 274), *_APPLICATION]


class PFW_NAT(_Struct):
    _fields_ = [("dwProtocol", c_uint32), ("Addr", RULE_ADDR * 3), ("Port", RULE_PORT * 3), ("dwNatType", c_uint32)]


class PFW_THROTTLE(_Struct):
    _fields_ = [("dwProtocol", c_uint32), ("Addr", RULE_ADDR * 2), ("Port", RULE_PORT * 2), ("wLimit", c_uint16 * 6),
                *_EXTENSION]


class PFW_STREAM(_Struct):
    _fields_ = [("dwAppProtocol", c_uint32), ("Addr", RULE_ADDR * 2), ("dwStreamParam", c_uint32),
                ("dwAction", c_uint32), *_EXTENSION, ("szStreamText", c_char * 2331)]


class PFW_GENSTREAM(_Struct):
    _fields_ = [("dwProtocol", c_uint32), ("Addr", RULE_ADDR * 2), ("Port", RULE_PORT * 2), ("dwDirection", c_uint32),
                ("dwParam", c_uint32 * 3), ("dwAction", c_uint32), ("dwParam3", c_uint32), *_EXTENSION,
                ("szStreamText", c_char * 2049)]


class _Kind(_Union):
    _fields_ = [("abKind", c_uint8 * 2705), ("Access", PFW_ACCESS), ("Nat", PFW_NAT), ("Throttle", PFW_THROTTLE),
                ("Stream", PFW_STREAM), ("GenStream", PFW_GENSTREAM), ("Access2", PFW_ACCESS2)]


class PFW_RULE(_Struct):
    _anonymous_ = ["kind"]
    _fields_ = [("wRuleIndex", c_uint16), ("wszDescription", c_uint16 * 65), ("dwActive", c_uint32),
                ("dwKind", c_uint32), ("kind", _Kind)]


class PFW_RULESET(_Struct):
    _fields_ = [("wRuleSetIndex", c_uint16), ("wszName", c_uint16 * 65), ("nRuleCount", c_int32)]


class _MacroPayload(_Union):
    _fields_ = [("szText", c_char * 133), ("Addr", RULE_ADDR), ("Port", RULE_PORT)]


class MACRO_ITEM(_Struct):
    _anonymous_ = ["payload"]
    _fields_ = [("dwItemType", c_uint32), ("payload", _MacroPayload)]


class PFW_MACRO(_Struct):
    _fields_ = [("dwReserved", c_uint32), ("szName", c_char * 32), ("nItemCount", c_int32)]


def set_wide(field: Any, text: str) -> None:
    """Stores a text in a wide field; a text that does not fit with its terminator is refused."""
    size = ctypes.sizeof(field)
    units = text.encode("utf-16-le")
    if len(units) >= size or "\0" in text:
        raise ValueError(f"the text takes at most {size // 2 - 1} UTF-16 units, none of them 0")
    ctypes.memmove(field, units.ljust(size, b"\0"), size)


def get_wide(field: Any) -> str:
    return bytes(field).decode("utf-16-le", "replace").split("\0")[0]
