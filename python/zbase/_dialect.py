"""Dialects: how files that aren't the library's own spell stanzas, keys and values."""

import os
from dataclasses import dataclass, fields, replace
from typing import Any, Callable, Dict, Optional, Tuple, Union

from . import _lib
from ._lib import decode, encode, encode_path

# The words of each switch, by their numbers; bits have a word each.
_WORDS: Dict[str, Tuple[str, ...]] = {
    "comments": ("hash", "semicolon"),
    "divider": ("equals", "colon", "either", "blank"),
    "tails": ("no", "blank", "anywhere", "hash", "semicolon"),
    "continued": ("no", "indent", "backslash", "joined"),
    "quotes": ("plain", "git", "shell"),
    "repeated": ("no", "merged", "numbered"),
    "names": ("exact", "folded", "folded-blanks", "folded-keys", "folded-stanzas"),
    "headers": ("subsections", "tails"),
    "values": ("all", "last", "reset"),
    "lines": ("short", "any"),
}
_BITS = ("comments", "headers")


@dataclass(frozen=True)
class Dialect:
    """The switches of a dialect, in the words that presets have for them.

    comments   with what a comment begins: "hash", "semicolon" or both
    divider    between key and value: "equals", "colon", "either" of both, or "blank"
    tails      comments behind values: "no", behind a "blank", "anywhere", "hash" anywhere or
               "semicolon" behind a blank
    bare       whether there are keys without a divider, see Section.is_bare
    continued  values of several lines: "no", by "indent", by "backslash", or "joined" by one
    quotes     "plain" bytes, or those of "git" or the "shell"
    repeated   a header that was there before: "no", "merged", or "numbered" as "a#2"
    names      "exact", "folded" if case doesn't matter, "folded-blanks" if blanks don't either,
               "folded-keys", "folded-stanzas"
    headers    "subsections" for [a "b"], "tails" where only comments may follow a header
    orphans    whether keys ahead of all headers are those of the section ""
    values     of a key that is there several times: "all", the "last", or those since a "reset"
    lines      "short", of up to 8191 bytes, or "any"

    ValueError for an unknown word.
    """

    comments: Tuple[str, ...] = ("hash",)
    divider: str = "equals"
    tails: str = "no"
    bare: bool = False
    continued: str = "no"
    quotes: str = "plain"
    repeated: str = "no"
    names: str = "exact"
    headers: Tuple[str, ...] = ()
    orphans: bool = False
    values: str = "all"
    lines: str = "short"

    def __post_init__(self) -> None:
        for switch in _BITS:
            words = getattr(self, switch)
            # One word may stand for itself.
            object.__setattr__(self, switch, (words,) if isinstance(words, str) else tuple(words))
        self._numbers()

    @classmethod
    def preset(cls, name: str) -> "Dialect":
        """The one of this name, see dialects(); NotFoundError without it."""
        dialect = _lib.preset(encode(name))
        return cls(**{each.name: _meaning(each.name, getattr(dialect, each.name))
                      for each in fields(cls)})

    def _numbers(self) -> Dict[str, int]:
        return {each.name: _number(each.name, getattr(self, each.name)) for each in fields(self)}


def _number(switch: str, said: Any) -> int:
    words = _WORDS.get(switch, ())
    said_words = said if switch in _BITS else [said]
    if words and not set(said_words) <= set(words):
        raise ValueError(f"{switch} must be one of {', '.join(words)}")
    if switch in _BITS:
        return sum(1 << words.index(word) for word in set(said_words))
    return words.index(said) if words else int(bool(said))


def _meaning(switch: str, number: int) -> Any:
    words = _WORDS.get(switch, ())
    if switch in _BITS:
        return tuple(word for bit, word in enumerate(words) if number >> bit & 1)
    return words[number] if words else bool(number)


def dialects() -> Dict[str, str]:
    """The presets that are installed: what the file of each says of itself, by name.

    They are stanza files in the folder zbase/dialects below /usr/share, /etc and the user's
    configuration, among others; one in a higher folder goes before a lower one of its name.
    """
    return {decode(name): decode(text) for name, text in _lib.presets()}


def dialect_of(path: Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]) -> Optional[str]:
    """The name of the preset for a file, by the patterns that presets have for paths; or None.

    The file isn't looked at, and need not be there.
    """
    name = _lib.preset_of(encode_path(path))
    return None if name is None else decode(name)


def _lower(text: str) -> str:
    return "".join(chr(ord(c) + 32) if "A" <= c <= "Z" else c for c in text)


def _folding(dialect: Dialect) -> Optional[Tuple[Callable[[str], str], Callable[[str], str]]]:
    """What makes stanzas alike and keys alike that the dialect takes for the same; None: nothing
    has to."""

    def same(name: str) -> str:
        return name

    def lower(name: str) -> str:
        return name.lower() if name.isascii() else _lower(name)

    def without_blanks(name: str) -> str:
        return lower("".join(c for c in name if c not in " \t\v\f\r"))

    def section(name: str) -> str:
        first, dot, rest = name.partition(".")
        return key(first) + dot + rest

    if dialect.names == "exact":
        return None
    key = without_blanks if dialect.names == "folded-blanks" else lower
    stanza = section if "subsections" in dialect.headers else key
    return (same if dialect.names == "folded-keys" else stanza,
            same if dialect.names == "folded-stanzas" else key)


def checked(dialect: Union[str, Dialect, None]) -> Optional["_lib.DialectTerms"]:
    """A preset's name or switches as handles take them; RefusedError for those that clash."""
    if dialect is None:
        return None
    if isinstance(dialect, str):
        dialect = Dialect.preset(dialect)
    if not isinstance(dialect, Dialect):
        raise TypeError(f"a dialect or its name is needed, not {type(dialect).__name__}")
    return _lib.DialectTerms(replace(dialect), dialect._numbers(), _folding(dialect))
