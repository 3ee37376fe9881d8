"""Addresses, ports and access rules from text, in the notation of kxrule."""
import ipaddress
import re
import sys
from typing import Union

from ._records import PFW_ADDR, PFW_RULE, RULE_ADDR, RULE_PORT, set_wide

CODE_PAGE = "mbcs" if sys.platform == "win32" else "latin-1"  # narrow texts are in the active code page
PROTOCOLS = {"any": 0, "icmp": 1, "tcp": 6, "udp": 17, "tcpudp": 65536}
ACTIONS = {"accept": 1, "drop": 2, "reject": 3, "reset": 4, "ask": 5}
_Ip = Union[ipaddress.IPv4Address, ipaddress.IPv6Address]


def _value(ip: _Ip) -> PFW_ADDR:
    return PFW_ADDR(dwIPv4=int(ip)) if ip.version == 4 else PFW_ADDR(abIPv6=tuple(ip.packed))


def _ip(text: str) -> _Ip:
    if "%" in text:
        raise ValueError(f"{text!r} has a scope, which a rule cannot hold")
    return ipaddress.ip_address(text)


def address(text: str) -> RULE_ADDR:
    """any, none, 10.0.0.1, 10.0.0.0/8, 10.0.0.0/255.0.0.0, 10.0.0.1-10.0.0.9, fe80::/10, @name; "!" negates."""
    if text in ("any", "none"):
        return RULE_ADDR(dwType=1 if text == "any" else 0)
    if text.startswith("@") and len(text) > 1:
        return RULE_ADDR(dwType=7, szName=text[1:].encode(CODE_PAGE))
    negated, text = text.startswith("!"), text[1:] if text.startswith("!") else text
    first, mark, second = re.fullmatch(r"([^/-]*)([/-]?)(.*)", text, re.S).groups()  # type: ignore[union-attr]
    ip = _ip(first)
    item = RULE_ADDR(dwType=2, dwNot=int(negated), dwFamily=2 if ip.version == 4 else 23, Addr1=_value(ip))
    if mark == "/" and re.fullmatch("[0-9]{1,10}", second):
        if int(second) > ip.max_prefixlen:
            raise ValueError(f"{text!r}: the prefix length is at most {ip.max_prefixlen}")
        item.dwType, item.Addr2 = 4, PFW_ADDR(dwIPv4=int(second))
    elif mark:
        other = _ip(second)
        if other.version != ip.version:
            raise ValueError(f"{text!r} mixes families")
        item.dwType, item.Addr2 = 3 if mark == "/" else 5, _value(other)
    return item


def port(text: str) -> RULE_PORT:
    """any, none, 80, 1000-2000, !80, !1000-2000, 80,443,1000-2000, @name."""
    if text in ("any", "none"):
        return RULE_PORT(nType=1 if text == "any" else 0)
    if text.startswith("@") and len(text) > 1:
        return RULE_PORT(nType=5, szList=text[1:].encode(CODE_PAGE))
    negated = text.startswith("!")
    ranges = [re.fullmatch("([0-9]{1,10})(?:-([0-9]{1,10}))?", part) for part in text[negated:].split(",")]
    if not all(ranges) or (negated and len(ranges) > 1):
        raise ValueError(f"{text!r} is not a port, a range, or a list of them (which cannot be negated)")
    numbers = [(int(part[1]), int(part[2] or 0)) for part in ranges if part]
    items = [RULE_PORT(nType=2, dwNot=int(negated), wPort1=low, wPort2=high) for low, high in numbers]  # checks them
    if len(items) > 1:
        return RULE_PORT(nType=4, szList=text.encode("ascii"))
    if ranges[0] and ranges[0][2]:
        items[0].nType = 3
    return items[0]


def access(index: int, protocol: str = "any", *, source: str = "any", target: str = "any", source_port: str = "any",
           port: str = "any", action: str = "accept", app: str = "", description: str = "",
           active: bool = True) -> PFW_RULE:
    """An access rule, with words and items in the notation of kxrule."""
    rule = PFW_RULE(wRuleIndex=index, dwActive=int(active), dwKind=1)
    rule.Access.dwProtocol, rule.Access.dwAction = PROTOCOLS[protocol], ACTIONS[action]
    rule.Access.Addr[0], rule.Access.Addr[1] = address(source), address(target)
    rule.Access.Port[0], rule.Access.Port[1] = _port(source_port), _port(port)
    set_wide(rule.Access.wszAppName, app)
    set_wide(rule.wszDescription, description)
    return rule


_port = port  # access has a parameter of the same name
