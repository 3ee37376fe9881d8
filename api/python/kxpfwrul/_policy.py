"""The functions of KxPolicy.dll: policies as text, for the store of this process."""
import ctypes
import dataclasses
import enum
import os
from ctypes import POINTER, c_char_p, c_int32, c_size_t, c_uint32, c_uint64, c_void_p
from typing import Any, Dict, List, Optional, Tuple, Union

from ._library import _SIGNATURES as RULE_FUNCTIONS
from ._library import Code, Library, RuleError


class PolicyCode(enum.IntEnum):
    """The result codes that KxPolicy.h adds to those of KxPfwRule.h."""
    KXPOLICY_E_ARGUMENT = -20001
    KXPOLICY_E_TEXT = -20002
    KXPOLICY_E_LIBRARY = -20003
    KXPOLICY_E_LIMIT = -20004
    KXPOLICY_E_EMPTY = -20005
    KXPOLICY_E_CHANGED = -20006
    KXPOLICY_E_MEMORY = -20007
    KXPOLICY_E_PARTLY = -20008


@dataclasses.dataclass(frozen=True)
class Diagnostic:
    """A problem in the text of a policy or (line 0) in the store it is to be applied to."""
    severity: int  # 1: error, 2: warning
    line: int
    column: int
    where: str
    text: str

    def __str__(self) -> str:
        place = f"{self.line}:{self.column}: " if self.line else ""
        return place + (f"{self.where}: " if self.where else "") + self.text


class PolicyError(RuleError):
    """A refused policy, with its diagnostics. Unless the code is KXPOLICY_E_PARTLY, the store is as it was."""

    def __init__(self, function: str, code: int, diagnostics: List[Diagnostic]) -> None:
        super().__init__(function, code)
        self.diagnostics = diagnostics
        for names in (Code, PolicyCode):
            if code in names.__members__.values():
                self.name = names(code).name
        self.args = ("\n".join([f"{function}: {self.name} ({code})", *map(str, diagnostics)]),)


@dataclasses.dataclass(frozen=True)
class Exported:
    text: str
    stamp: int  # identifies the contents of the store


@dataclasses.dataclass(frozen=True)
class Difference:
    text: str  # readable lines; empty if nothing differs
    stamp: int
    count: int


_REPORT = ctypes.CFUNCTYPE(None, c_int32, c_uint32, c_uint32, c_char_p, c_char_p, c_void_p)
_TAKE = ctypes.CFUNCTYPE(None, c_void_p, c_size_t, c_void_p)
_SIGNATURES: Dict[str, List[Any]] = {
    "kxPolicyCheck": [c_char_p, c_size_t, _REPORT, c_void_p],
    "kxPolicyExport": [c_void_p, c_uint32, POINTER(c_uint64), _TAKE, c_void_p],
    "kxPolicyDifference": [c_void_p, c_char_p, c_size_t, c_uint32, POINTER(c_uint64), _TAKE, _REPORT, c_void_p],
    "kxPolicyApply": [c_void_p, c_char_p, c_size_t, c_uint32, POINTER(c_uint64), _REPORT, c_void_p]}


class Policies:
    """KxPolicy.dll, loaded from a path, on the store of a library: Policies(store, "KxPolicy.dll").apply(text)."""

    def __init__(self, library: Library, path: str) -> None:
        self._policy = ctypes.CDLL(os.path.abspath(path))
        for name, arguments in _SIGNATURES.items():
            getattr(self._policy, name).argtypes = arguments
        self._library = library  # the table points into it
        functions = [ctypes.cast(getattr(library._library, name), c_void_p).value for name in RULE_FUNCTIONS]
        self._table = (c_void_p * len(functions))(*functions)

    def _call(self, name: str, *arguments: Any) -> Tuple[int, List[Diagnostic]]:
        found: List[Diagnostic] = []

        def report(severity: int, line: int, column: int, where: bytes, text: bytes, _: Any) -> None:
            found.append(Diagnostic(severity, line, column, where.decode("utf-8", "replace"),
                                    text.decode("utf-8", "replace")))
        callbacks = [_REPORT(report)] if _REPORT in _SIGNATURES[name] else []
        return int(getattr(self._policy, name)(*arguments, *callbacks, None)), found

    def _look(self, name: str, *arguments: Any) -> Difference:
        pieces: List[bytes] = []

        def take(text: int, size: int, _: Any) -> None:
            pieces.append(ctypes.string_at(text, size))
        stamp = c_uint64()
        result, found = self._call(name, self._table, *arguments, stamp, _TAKE(take))
        if result < 0:
            raise PolicyError(name, result, found)
        return Difference(b"".join(pieces).decode("utf-8"), stamp.value, result)

    @staticmethod
    def _request(text: Union[str, bytes], replace: bool, allow_empty: bool) -> Tuple[bytes, int, int]:
        policy = text.encode("utf-8") if isinstance(text, str) else bytes(text)
        return policy, len(policy), (1 if replace else 0) | (2 if allow_empty else 0)

    def check(self, text: Union[str, bytes]) -> List[Diagnostic]:
        """Returns what is wrong with a text, which can be applied if none of it is an error."""
        result, found = self._call("kxPolicyCheck", *self._request(text, False, False)[:2])
        if result not in (Code.KXRULE_OK, PolicyCode.KXPOLICY_E_TEXT):
            raise PolicyError("kxPolicyCheck", result, found)
        return found

    def export(self) -> Exported:
        look = self._look("kxPolicyExport", 0)
        return Exported(look.text, look.stamp)

    def difference(self, text: Union[str, bytes], replace: bool = False, allow_empty: bool = False) -> Difference:
        return self._look("kxPolicyDifference", *self._request(text, replace, allow_empty))

    def apply(self, text: Union[str, bytes], replace: bool = False, allow_empty: bool = False,
              stamp: Optional[int] = None) -> int:
        """Returns the number of differences there were. With a stamp, refuses if the store has changed since."""
        expected = None if stamp is None else c_uint64(stamp)
        if expected is not None and expected.value != stamp:
            raise ValueError(f"a stamp takes 0 to 2**64 - 1, not {stamp}")
        result, found = self._call("kxPolicyApply", self._table, *self._request(text, replace, allow_empty), expected)
        if result < 0:
            raise PolicyError("kxPolicyApply", result, found)
        return result
