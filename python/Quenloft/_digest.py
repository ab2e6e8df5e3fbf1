# SPDX-License-Identifier: MIT
"""Digests of functions and values, by which a later session knows whether they are the same.

What decides the values of a function: its code and constants, default values, closure variables,
the arguments of a partial, the state of an object (as pickle sees it, so ``__getstate__`` may leave
caches out) and of a method's object. Functions and classes of the same package that the code names
are followed; what other packages bring counts by name, and variables of modules do not count.
"""

from __future__ import annotations

import functools
import types
from hashlib import sha256
from typing import Any, Optional

_PLAIN = (type(None), bool, int, float, complex, str, bytes, range, type(Ellipsis))


class Unknown(Exception):
    """Nothing can be said of a value; the message names its type."""


def digests(name: str, function: Any) -> dict[str, Any]:
    """What decides the values of a callable: a digest for each part, by labels for messages.

    Parameters
    ----------
    name : str
        Of the callable, for the labels.

    Returns
    -------
    dict
        An `Unknown` in the place of a digest that cannot be had.
    """
    found = {}
    while isinstance(function, functools.partial):
        found[f"arguments of the partial {name}"] = digest(
            (function.args, function.keywords), function.func
        )
        function = function.func
    if isinstance(function, types.MethodType):
        found[f"object of {name}"] = digest(function.__self__, function)
        function = function.__func__
    if not isinstance(function, types.FunctionType):
        found[f"state of {name}"] = digest(function, function)
        return found
    parts = _Digester(function).parts(function)
    found[f"code of {name}"] = digest(parts.pop("code"), function)
    for part, value in parts.items():
        found[f"{part} of {name}"] = digest(value, function)
    return found


def digest(value: Any, owner: Any) -> Any:
    """The digest of a value, or an `Unknown`; the package of `owner` is looked into."""
    try:
        return _Digester(owner)(value).hex()[:16]
    except Unknown as unknown:
        return unknown
    except RecursionError:
        return Unknown("it is nested too deeply")


class _Digester:
    def __init__(self, owner: Any) -> None:
        self._home = _package(owner)
        # Digests by identity, and the values, so that no identity is given twice.
        self._known: dict[int, tuple[bytes, Any]] = {}

    def __call__(self, value: Any) -> bytes:
        if isinstance(value, _PLAIN):
            return _hash(type(value).__name__, repr(value).encode())
        known = self._known.get(id(value))
        if known is None:
            self._known[id(value)] = b"a cycle", value
            known = _hash(*self._content(value)), value
            self._known[id(value)] = known
        return known[0]

    def parts(self, function: types.FunctionType) -> dict[str, Any]:
        """What a function is made of."""
        code = function.__code__
        if code.co_consts and code.co_consts[0] == function.__doc__:
            code = code.replace(co_consts=code.co_consts[1:])  # never run: only looked at
        parts: dict[str, Any] = {"code": [code, self._helpers(function)]}
        if function.__defaults__ or function.__kwdefaults__:
            parts["default values"] = [function.__defaults__, function.__kwdefaults__]
        for variable, cell in zip(function.__code__.co_freevars, function.__closure__ or ()):
            try:
                parts[f"closure variable {variable!r}"] = cell.cell_contents
            except ValueError:  # not assigned yet
                parts[f"closure variable {variable!r}"] = None
        return parts

    def _helpers(self, function: types.FunctionType) -> list[Any]:
        names: set[str] = set()
        codes = [function.__code__]
        for code in codes:
            names.update(code.co_names)
            codes.extend(c for c in code.co_consts if isinstance(c, types.CodeType))
        named = [(name, function.__globals__.get(name)) for name in sorted(names)]
        return [
            (name, value)
            for name, value in named
            if isinstance(value, (types.FunctionType, type)) and _package(value) == self._home
        ]

    def _content(self, value: Any) -> tuple[Any, ...]:
        """The name of the value's kind, and what it holds as bytes."""
        kind = self._name(type(value))
        if isinstance(value, (tuple, list)) and type(value).__reduce_ex__ is object.__reduce_ex__:
            return (kind, *map(self, value))
        if type(value) is dict:
            return (kind, *sorted(self(key) + self(item) for key, item in value.items()))
        if isinstance(value, (set, frozenset)):
            return (kind, *sorted(map(self, value)))
        if isinstance(value, types.CodeType):
            # Not where it stands.
            held = (
                value.co_code,
                value.co_consts,
                value.co_names,
                value.co_freevars,
                value.co_flags,
            )
            return (kind, *map(self, (*held, value.co_argcount, value.co_kwonlyargcount)))
        if isinstance(value, types.FunctionType):
            return (kind, self(self.parts(value)), self(vars(value)))
        if isinstance(value, BaseException):
            return (kind, self(value.args))  # what was attached to it since does not count
        if isinstance(value, types.MethodType):
            return (kind, self(value.__self__), self(value.__func__))
        if isinstance(value, functools.partial):
            return (kind, *map(self, (value.func, value.args, value.keywords)))
        if isinstance(value, types.ModuleType):
            return (kind, value.__name__.encode())
        if isinstance(value, type):
            return (kind, self._name(value).encode(), *self._code_of(value))
        return (kind, *self._code_of(type(value)), *self._state(value))

    def _name(self, cls: type) -> str:
        # Without the module where it is the caller's: a script is "__main__" or itself.
        is_home = _package(cls) == self._home
        return cls.__qualname__ if is_home else f"{cls.__module__}.{cls.__qualname__}"

    def _code_of(self, cls: type) -> list[bytes]:
        """The functions and plain values of a class and its bases, of the same package only."""
        members = [
            (name, getattr(member, "__func__", None) or getattr(member, "fget", None) or member)
            for base in cls.__mro__
            if _package(base) == self._home
            for name, member in sorted(vars(base).items())
        ]
        return [
            self((name, member))
            for name, member in members
            if isinstance(member, types.FunctionType)
            or (isinstance(member, _PLAIN) and not name.startswith("__"))
        ]

    def _state(self, value: Any) -> tuple[Any, ...]:
        try:
            view = memoryview(value)
            if "O" not in view.format:  # else it holds addresses
                return view.format.encode(), repr(view.shape).encode(), view.tobytes()
        except (TypeError, NotImplementedError, ValueError):
            pass
        wrapped = getattr(value, "__wrapped__", None)
        if wrapped is not None:  # a cache around a function, for one
            return (self(wrapped),)
        try:
            reduced = value.__reduce_ex__(4)
        except Exception:
            raise Unknown(f"{type(value).__name__} objects cannot be looked into") from None
        if isinstance(reduced, str):
            return (reduced.encode(),)
        make, arguments, state, items, pairs = (*reduced, None, None, None)[:5]
        named = f"{make.__module__}.{getattr(make, '__qualname__', '')}".encode()
        return (named, *map(self, (arguments, state, list(items or ()), dict(pairs or ()))))


def _hash(kind: str, *content: bytes) -> bytes:
    whole = sha256(kind.encode())
    for piece in content:
        whole.update(len(piece).to_bytes(8, "little") + piece)
    return whole.digest()


def _package(owner: Any) -> Optional[str]:
    if isinstance(owner, functools.partial):
        return _package(owner.func)
    module = getattr(owner, "__module__", None)
    return module.partition(".")[0] if isinstance(module, str) else None
