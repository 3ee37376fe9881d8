"""The 25 functions of KxPfwRul.dll, and a store for use in a with statement."""
import ctypes
import dataclasses
import enum
import os
from ctypes import POINTER, c_char_p, c_int32, c_uint16, c_uint32, c_void_p
from typing import Any, Callable, Dict, List, Optional, Sequence, Type, Union

from ._notation import CODE_PAGE
from ._records import (MACRO_ITEM, PFW_MACRO, PFW_RULE, PFW_RULESET, RULE_ADDR, RULE_PORT, check, get_wide, set_wide)


class Code(enum.IntEnum):
    """The result codes of KxPfwRule.h."""
    KXRULE_OK = 0
    KXRULE_E_NULL_POINTER = -10012
    KXRULE_E_NO_RULESET = -10015
    KXRULE_E_NO_RULE = -10016
    KXRULE_E_TOO_MANY_RULESETS = -10017
    KXRULE_E_TOO_MANY_RULES = -10018
    KXRULE_E_RULE_EXISTS = -10019
    KXRULE_E_MACRO_TEXT = -10053
    KXRULE_E_RULE_TEXT = -10054
    KXRULE_E_FILE_OPEN = -10055
    KXRULE_E_FILE_READ = -10056
    KXRULE_E_FILE_WRITE = -10057
    KXRULE_E_RULESET_FORMAT = -10059
    KXRULE_E_MACRO_FORMAT = -10060
    KXRULE_E_ALREADY_INITIALIZED = -10061
    KXRULE_E_MUTEX = -10063
    KXRULE_E_PORT_LIST = -10064
    KXRULE_E_HASH_LIBRARY = -10067


class RuleError(Exception):
    """A failed call of the library, with its code and the code's name (empty for a status of the hash library)."""

    def __init__(self, function: str, code: int) -> None:
        self.function, self.code = function, code
        self.name = Code(code).name if code in Code.__members__.values() else ""
        super().__init__(f"{function}: {self.name or 'status of the hash library'} ({code})")


@dataclasses.dataclass
class RuleSet:
    index: int
    name: str
    rules: List[PFW_RULE]


@dataclasses.dataclass
class Macro:
    name: str
    items: List[MACRO_ITEM]


MacroItem = Union[RULE_ADDR, RULE_PORT, str]
_HASH_CALLBACK = ctypes.CFUNCTYPE(c_int32, c_uint32, POINTER(PFW_RULE), c_void_p)
_SIGNATURES: Dict[str, List[Any]] = {
    "kxRuleInitialize": [c_char_p, c_char_p], "kxRuleFinalize": [], "kxRuleRead": [], "kxRuleWrite": [],
    "kxRuleFlush": [], "kxRuleSetActiveRuleSet": [c_void_p, c_int32], "kxRuleGetActiveRuleSet": [c_void_p, c_int32],
    "kxRuleAddRuleSet": [c_uint16, c_void_p], "kxRuleDeleteRuleSet": [c_uint16],
    "kxRuleGetRuleSetIndex": [c_void_p, c_int32], "kxRuleGetRuleSet": [c_uint16, c_void_p, c_int32],
    "kxRuleGetRuleTopIndex": [c_uint16], "kxRuleGetRuleBottomIndex": [c_uint16],
    "kxRuleAddRule": [c_uint16, c_uint16, POINTER(PFW_RULE)], "kxRuleDeleteRule": [c_uint16, c_uint16],
    "kxRuleGetRule": [c_uint16, c_uint16, POINTER(PFW_RULE)], "kxRuleIsRuleActive": [c_uint16, c_uint16],
    "kxRuleAddMacro": [c_void_p], "kxRuleDeleteMacro": [], "kxRuleGetMacroCount": [],
    "kxRuleGetMacro": [c_void_p, c_int32], "kxRuleGetRuleString": [c_uint16, c_uint16, c_void_p, c_int32],
    "kxRuleGetRuleString2": [POINTER(PFW_RULE), c_void_p, c_int32],
    "kxRuleGetMacroString": [c_void_p, c_void_p, c_int32],
    "kxRuleUpdateHashValue": [c_void_p, c_void_p, _HASH_CALLBACK, c_void_p]}


def _block(head: ctypes.Structure, records: Sequence[ctypes.Structure]) -> Any:
    """A head followed by its records, in one block of memory."""
    return ctypes.create_string_buffer(b"".join(map(bytes, [head, *records])))


def _copies(kind: Type[Any], block: Any, offset: int, count: int) -> List[Any]:
    size = ctypes.sizeof(kind)
    return [kind.from_buffer_copy(block, offset + number * size) for number in range(count)]


def _macro_block(name: str, items: Sequence[Union[MacroItem, MACRO_ITEM]]) -> Any:
    records = []
    for item in items:
        if isinstance(item, str):
            item = MACRO_ITEM(dwItemType=2, szText=item.encode(CODE_PAGE))
        elif isinstance(item, RULE_PORT):
            item = MACRO_ITEM(dwItemType=1, Port=item)
        elif isinstance(item, RULE_ADDR):
            item = MACRO_ITEM(dwItemType=0, Addr=item)
        records.append(item)
    return _block(PFW_MACRO(szName=name.encode(CODE_PAGE), nItemCount=len(records)), records)


class Library:
    """KxPfwRul.dll, loaded from a path. A process has one store."""

    def __init__(self, library: str) -> None:
        self._library = ctypes.CDLL(os.path.abspath(library))  # a full path: nothing is searched for
        for name, arguments in _SIGNATURES.items():
            getattr(self._library, name).argtypes = arguments  # they all return a 32-bit int, as ctypes assumes

    def _raw(self, name: str, *arguments: Any) -> int:
        for kind, argument in zip(_SIGNATURES[name], arguments):
            check(kind, f"{name}: an argument", argument)
        return int(getattr(self._library, name)(*arguments))

    def _call(self, name: str, *arguments: Any) -> int:
        result = self._raw(name, *arguments)
        if result < 0:
            raise RuleError(name, result)
        return result

    # Lifecycle.
    def initialize(self, rule_path: Optional[str] = None, master_file_name: Optional[str] = None) -> None:
        self._call("kxRuleInitialize", *(text and text.encode(CODE_PAGE) for text in (rule_path, master_file_name)))

    def finalize(self) -> None:
        self._call("kxRuleFinalize")

    def read(self) -> None:
        self._call("kxRuleRead")

    def write(self) -> None:
        self._call("kxRuleWrite")

    def flush(self) -> None:
        self._call("kxRuleFlush")

    # Rule sets.
    def _indexes(self, name: str) -> List[int]:
        room = 64
        while True:  # another thread may lengthen the list between two calls
            indexes = (c_uint16 * room)()
            count = self._call(name, indexes, room)
            if count <= room:
                return list(indexes[:count])
            room = count

    def active_rule_sets(self) -> List[int]:
        return self._indexes("kxRuleGetActiveRuleSet")

    def set_active_rule_sets(self, indexes: Sequence[int]) -> None:
        for index in indexes:
            check(c_uint16, "an index", index)
        self._call("kxRuleSetActiveRuleSet", (c_uint16 * len(indexes))(*indexes), len(indexes))

    def rule_sets(self) -> List[int]:
        return self._indexes("kxRuleGetRuleSetIndex")

    def add_rule_set(self, name: str, rules: Sequence[PFW_RULE] = (), index: int = 0) -> int:
        """Returns the index of the new set; index 0 requests a free one."""
        head = PFW_RULESET(nRuleCount=len(rules))
        set_wide(head.wszName, name)
        block = _block(head, rules)
        self._call("kxRuleAddRuleSet", index, block)
        return int(PFW_RULESET.from_buffer_copy(block).wRuleSetIndex)

    def delete_rule_set(self, index: int) -> None:
        if index == 0:
            raise RuleError("kxRuleDeleteRuleSet", Code.KXRULE_E_NO_RULESET)
        self._call("kxRuleDeleteRuleSet", index)

    def delete_all_rule_sets(self) -> None:
        self._call("kxRuleDeleteRuleSet", 0)

    def rule_set(self, index: int) -> RuleSet:
        room = self._call("kxRuleGetRuleSet", index, None, 0)
        while True:
            block = _block(PFW_RULESET(), [PFW_RULE()] * room)
            count = self._call("kxRuleGetRuleSet", index, block, room)
            if count <= room:
                head = PFW_RULESET.from_buffer_copy(block)
                return RuleSet(head.wRuleSetIndex, get_wide(head.wszName),
                               _copies(PFW_RULE, block, ctypes.sizeof(head), count))
            room = count

    def rule_count(self, index: int) -> int:
        return self._call("kxRuleGetRuleSet", index, None, 0)

    # Rules.
    def top_index(self, rule_set: int) -> int:
        return self._call("kxRuleGetRuleTopIndex", rule_set)

    def bottom_index(self, rule_set: int) -> int:
        return self._call("kxRuleGetRuleBottomIndex", rule_set)

    def add_rule(self, rule_set: int, rule: PFW_RULE, index: Optional[int] = None) -> None:
        """Adds the rule under its own index unless another one is given."""
        self._call("kxRuleAddRule", rule_set, rule.wRuleIndex if index is None else index, rule)

    def delete_rule(self, rule_set: int, index: int) -> None:
        if index == 0:
            raise RuleError("kxRuleDeleteRule", Code.KXRULE_E_NO_RULE)
        self._call("kxRuleDeleteRule", rule_set, index)

    def delete_all_rules(self, rule_set: int) -> None:
        self._call("kxRuleDeleteRule", rule_set, 0)

    def rule(self, rule_set: int, index: int) -> PFW_RULE:
        rule = PFW_RULE()
        self._call("kxRuleGetRule", rule_set, index, rule)
        return rule

    def is_active(self, rule_set: int, index: int) -> bool:
        result = self._raw("kxRuleIsRuleActive", rule_set, index)
        if result in (Code.KXRULE_E_NO_RULESET, Code.KXRULE_E_NO_RULE):
            raise RuleError("kxRuleIsRuleActive", result)
        return result != 0

    # Macros.
    def add_macro(self, name: str, items: Sequence[Union[MacroItem, MACRO_ITEM]]) -> None:
        self._call("kxRuleAddMacro", _macro_block(name, items))

    def delete_all_macros(self) -> None:
        self._call("kxRuleDeleteMacro")

    def macro_count(self) -> int:
        return self._call("kxRuleGetMacroCount")

    def macros(self) -> List[Macro]:
        block = ctypes.create_string_buffer(1)
        needed = self._call("kxRuleGetMacro", None, 0)
        while needed > len(block) - 1:
            block = ctypes.create_string_buffer(needed + 1)
            needed = self._call("kxRuleGetMacro", block, needed)
        macros, offset = [], 0
        while offset < needed:
            head = PFW_MACRO.from_buffer_copy(block, offset)
            items = _copies(MACRO_ITEM, block, offset + ctypes.sizeof(head), max(head.nItemCount, 0))
            macros.append(Macro(head.szName.decode(CODE_PAGE, "replace"), items))
            offset += ctypes.sizeof(head) + len(items) * ctypes.sizeof(MACRO_ITEM)
        return macros

    # Texts.
    def _text(self, name: str, *arguments: Any) -> str:
        size = 512
        while True:
            line = ctypes.create_string_buffer(size)
            length = self._call(name, *arguments, line, size)
            if length <= size:
                return line.raw[:length].decode(CODE_PAGE, "replace")
            size = length

    def rule_text(self, rule_set: int, index: int) -> str:
        return self._text("kxRuleGetRuleString", rule_set, index)

    def text(self, rule: PFW_RULE) -> str:
        return self._text("kxRuleGetRuleString2", rule)

    def macro_text(self, name: str, items: Sequence[Union[MacroItem, MACRO_ITEM]]) -> str:
        return self._text("kxRuleGetMacroString", _macro_block(name, items))

    # Application hashes.
    def update_hashes(self, path: Optional[str] = None, digest: Optional[bytes] = None,
                      changed: Optional[Callable[[int, PFW_RULE], None]] = None) -> None:
        """changed(rule_set, rule) must not call the library; what it raises is raised after the refresh."""
        if digest is not None and len(digest) != 20:
            raise ValueError("a hash has 20 bytes")
        raised: List[BaseException] = []

        def forward(rule_set: int, rule: Any, _: Any) -> int:
            try:
                if changed is not None and not raised:
                    changed(rule_set, PFW_RULE.from_buffer_copy(rule.contents))
            except BaseException as error:  # it cannot pass through the library
                raised.append(error)
            return 0
        units = None if path is None else ctypes.create_string_buffer(path.encode("utf-16-le") + b"\0")
        result = self._raw("kxRuleUpdateHashValue", units, digest, _HASH_CALLBACK(forward), None)
        if raised:
            raise raised[0]
        if result != 0:
            raise RuleError("kxRuleUpdateHashValue", result)


class Store(Library):
    """with Store("KxPfwRul.dll", directory) as store: reads the directory; at the end of the block writes the changes
    and raises if that fails. (The library also writes after an exception, as it does at every finalize.)"""

    def __init__(self, library: str, directory: Optional[str] = None) -> None:
        super().__init__(library)
        self._directory = directory

    def __enter__(self) -> "Store":
        try:
            self.initialize(self._directory)
            self.read()
        except RuleError as error:
            if error.code != Code.KXRULE_E_ALREADY_INITIALIZED:  # it belongs to the code that initialised it
                self.finalize()
            raise
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], *_: Any) -> None:
        try:
            if kind is None:
                self.flush()
        finally:
            self.finalize()
