"""Config and Section: what a stanza file holds, as a mapping of mappings."""

import os
import re
from contextlib import contextmanager
from typing import (
    Any,
    Callable,
    Dict,
    ItemsView,
    Iterable,
    Iterator,
    List,
    Mapping,
    MutableMapping,
    Optional,
    TextIO,
    Tuple,
    TypeVar,
    Union,
    overload,
)

from . import _lib
from ._dialect import Dialect, checked
from ._errors import DataError, MissingError, NotFoundError, RefusedError, StateError
from ._lib import (
    SEPARATOR,
    Handle,
    Tables,
    canonical,
    check_opening,
    create_file,
    decode,
    encode,
    encode_path,
)

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
# What a section is made of: a text for a key with one value, a list for one with several; None for
# one without a divider, which some dialects have.
Values = Union[str, Iterable[str], None]
# The same, as it is written.
Listed = Dict[str, Optional[List[str]]]
AnyDialect = Union[str, Dialect, None]
_T = TypeVar("_T")


class _Unset:
    """The fallback of who gives none."""


_UNSET = _Unset()

# Nearly all numbers are such, and mean the same to Python and to the library.
_PLAIN_INTEGER = re.compile(r"-?[1-9][0-9]{0,17}|0", re.ASCII)
_PLAIN_REAL = re.compile(r"-?[0-9]+(\.[0-9]+)?", re.ASCII)
_TRUTHS = {
    **dict.fromkeys(("yes", "y", "true", "t", "1", "on"), True),
    **dict.fromkeys(("no", "n", "false", "f", "0", "off"), False),
}


def _last(values: str) -> str:
    """The last of a key's values, or "" without any."""
    return values if "\0" not in values else values.rpartition(SEPARATOR)[2]


def _split(values: str) -> List[str]:
    return values.split(SEPARATOR) if values else []


def _listed(values: Values) -> Optional[List[str]]:
    """These values as a key can have them: no empty one, and none twice."""
    if values is None:
        return None
    texts = values if isinstance(values, Iterable) and not isinstance(values, str) else [values]
    return [text for text in dict.fromkeys(map(canonical, texts)) if text != ""]


def _write(handle: Handle, name: str, listed: Mapping[str, Optional[List[str]]]) -> None:
    stanza = encode(name)
    for option, texts in listed.items():
        key = encode(option)
        if texts is None:
            handle.run(_lib.set_bare, stanza, key)
            continue
        handle.run(_lib.set_value, stanza, key, encode(texts[0] if texts else ""))
        for text in texts[1:]:
            handle.run(_lib.add_value, stanza, key, encode(text))


def _copied(section: "Section") -> Dict[str, Values]:
    return {option: None if section.is_bare(option) else section.getall(option)
            for option in section}


def _tried(
    name: str, content: Mapping[str, Values], dialect: Optional[_lib.DialectTerms]
) -> Listed:
    """The values of these keys, if a file can give all of it back: tried ahead of the first change,
    so that a refusal comes before it."""
    if isinstance(content, Section):
        content._refuse_hidden(content)
        content = _copied(content)
    listed = {canonical(option): _listed(values) for option, values in content.items()}
    trial = Handle.of_bytes(b"", dialect)
    try:
        _write(trial, name, {"-": [], **listed} if dialect is None else listed)
        if dialect is not None:
            trial.text(_lib.store_bytes)  # what only the text shows, as a value too many
    finally:
        trial.close()
    return listed


class Section(MutableMapping[str, str]):
    """A stanza of a Config: its keys, each with its last value, in the order of the file.

    Keys that were added since it was read come last here; in the file they go behind the sample of
    theirs that is commented out, if there is one.

    It is a view: it shows what the Config holds now, and what is assigned goes there. A key
    without a value reads as the empty text; is_bare() tells whether it has no divider either. Keys
    are case sensitive, but where a dialect doesn't mind; they are listed as they are spelled first.
    """

    __slots__ = ("_config", "_name")

    def __init__(self, config: "Config", name: str) -> None:
        self._config = config
        self._name = name

    @property
    def name(self) -> str:
        """The stanza's name."""
        return self._name

    @property
    def parser(self) -> "Config":
        """The Config that it belongs to, by the name that configparser has for it."""
        return self._config

    def __repr__(self) -> str:
        return f"<Section: {self._name}>"

    # --- Reading

    def _table(self) -> Dict[str, str]:
        return self._config._table(self._name)

    def _spelled(self, option: str) -> str:
        table = self._table()
        return table.spelled(option) if isinstance(table, _lib.FoldedDict) else option

    def _values(self, option: str) -> str:
        try:
            return self._config._data()[self._name][option]
        except KeyError:
            raise self._missing(option) from None

    def _missing(self, option: str) -> MissingError:
        self._table()
        return MissingError(
            f"no key {option!r} in stanza {self._name!r}", 28, self._config._file()
        )

    def __getitem__(self, option: str) -> str:
        """The key's last value; MissingError (a KeyError) if there is no such key."""
        values = self._values(option)
        return values if "\0" not in values else _last(values)

    def __contains__(self, option: object) -> bool:
        return option in self._table()

    def __iter__(self) -> Iterator[str]:
        return iter(self._table())

    def __len__(self) -> int:
        return len(self._table())

    def getall(self, option: str) -> List[str]:
        """All values of the key, in the order of the file; none for `key =` alone."""
        return _split(self._values(option))

    @overload
    def get(self, option: str, *, raw: bool = ...) -> Optional[str]: ...
    @overload
    def get(self, option: str, fallback: _T, *, raw: bool = ...) -> Union[str, _T]: ...
    def get(self, option: str, fallback: Any = None, *, raw: bool = True) -> Any:
        """The key's last value, or the fallback if there is no such key.

        `raw` is for callers of configparser: nothing is interpolated here.
        """
        values = self._table().get(option)
        if values is None:
            return fallback
        return values if "\0" not in values else _last(values)

    @overload
    def getint(self, option: str, *, raw: bool = ...) -> Optional[int]: ...
    @overload
    def getint(self, option: str, fallback: _T, *, raw: bool = ...) -> Union[int, _T]: ...
    def getint(self, option: str, fallback: Any = None, *, raw: bool = True) -> Any:
        """The last value as a number of 64 bits, or the fallback if there is none.

        As everywhere in stanza files, 0750 is octal and 0x1f hexadecimal. DataError (a ValueError)
        for what is no number.
        """
        value = self._value(option, fallback)
        if value is None:
            return fallback
        if _PLAIN_INTEGER.fullmatch(value):
            return int(value)
        return self._ask(_lib.get_int64, option)

    @overload
    def getfloat(self, option: str, *, raw: bool = ...) -> Optional[float]: ...
    @overload
    def getfloat(self, option: str, fallback: _T, *, raw: bool = ...) -> Union[float, _T]: ...
    def getfloat(self, option: str, fallback: Any = None, *, raw: bool = True) -> Any:
        """The last value as a real number, with "." in any locale; else as getint."""
        value = self._value(option, fallback)
        if value is None:
            return fallback
        if _PLAIN_REAL.fullmatch(value):
            return float(value)
        return self._ask(_lib.get_double, option)

    @overload
    def getboolean(self, option: str, *, raw: bool = ...) -> Optional[bool]: ...
    @overload
    def getboolean(self, option: str, fallback: _T, *, raw: bool = ...) -> Union[bool, _T]: ...
    def getboolean(self, option: str, fallback: Any = None, *, raw: bool = True) -> Any:
        """The last value as a truth, in any case; else as getint.

        yes, y, true, t, 1 and no, n, false, f, 0, and configparser's on and off.
        """
        value = self._value(option, fallback)
        if value is None:
            return fallback
        truth = _TRUTHS.get(value.lower())
        if truth is None:
            raise DataError(f"bad value: {value}", 41, self._config._file())
        return truth

    def _value(self, option: str, fallback: Any) -> Optional[str]:
        """The last value, if there is one that isn't empty; without a fallback there must be."""
        values = self._table().get(option)
        if values:
            return values if "\0" not in values else _last(values)
        if fallback is _UNSET:
            raise MissingError(
                f"no value for key {option!r} in stanza {self._name!r}", 28, self._config._file()
            )
        return None

    def _ask(self, function: Any, option: str) -> Any:
        return self._config._handle.ask(function, encode(self._name), encode(option))

    def hidden(self, option: str) -> bool:
        """Whether the key's values stand in the side database and not in the text."""
        self._values(option)
        return (self._name, option) in self._config._data().hidden

    def is_bare(self, option: str) -> bool:
        """Whether the key stands there without a divider, which only some dialects have."""
        return self._values(option) == "" and self._config._handle.is_bare(
            encode(self._name), encode(option)
        )

    # --- Changing

    def __setitem__(self, option: str, value: Optional[str]) -> None:
        """Makes this the only value of the key, which is made if need be; "" empties the key, and
        None leaves its divider away.

        RefusedError (a ValueError) if the file couldn't give it back: a line end, a NUL, blanks at
        its ends, a line of more than 8191 bytes; for the key also an "=", or "#" or "[" ahead; None
        where the file's dialect has no such keys. A dialect may refuse others, and allow some.
        """
        if value is None:
            return self._write({canonical(option): None})
        stanza, key, text = encode(self._name), encode(option), encode(value)
        with self._config._changing() as handle:
            table = self._table()
            handle.run(_lib.set_value, stanza, key, text)
            table[decode(key)] = decode(text)

    def add(self, option: str, value: str) -> None:
        """Adds a value behind the key's others; one that is there already isn't added again.

        RefusedError as above, and for the empty text.
        """
        option, value = canonical(option), canonical(value)
        names = encode(self._name), encode(option), encode(value)
        with self._config._changing() as handle:
            table = self._table()
            handle.run(_lib.add_value, *names)
            values = _split(table.get(option, ""))
            if value not in values:
                values.append(value)
            table[option] = SEPARATOR.join(values)

    def setall(self, option: str, values: Iterable[str]) -> None:
        """Makes these the values of the key, in this order, or changes nothing."""
        self._replace({option: list(values)})

    def _replace(self, content: Mapping[str, Values]) -> None:
        self._write(_tried(self._name, content, self._config._handle.dialect))

    def _write(self, listed: Listed) -> None:
        with self._config._changing() as handle:
            table = self._table()
            self._refuse_hidden(listed)
            _write(handle, self._name, listed)
            for option, texts in listed.items():
                table[option] = SEPARATOR.join(texts or [])

    def _refuse_hidden(self, options: Iterable[str]) -> None:
        self._table()
        for option in options:
            if (self._name, option) in self._config._data().hidden:
                raise RefusedError(
                    f"the values of {option!r} are hidden", 22, self._config._file()
                )

    def update(self, other: Any = (), /, **more: Values) -> None:
        """Sets the keys of a mapping, or of pairs, and those named here, or changes nothing.

        A list as value gives a key several, and so does a key of a Section. RefusedError if one of
        them or of the keys is hidden, or the file couldn't give it back.
        """
        if isinstance(other, Section):
            other = _tried(self._name, other, self._config._handle.dialect)
        self._replace(dict(other, **more))

    def __delitem__(self, option: str) -> None:
        """Removes the key with its values; MissingError if there is none."""
        names = encode(self._name), encode(option)
        with self._config._changing() as handle:
            self._values(option)
            handle.run(_lib.remove_key, *names)
            del self._table()[option]
            self._config._data().hidden.discard((self._name, option))

    def clear(self) -> None:
        """Removes all keys."""
        for option in list(self):
            del self[option]

    # --- Comments

    def comments(self, option: Optional[str] = None) -> List[str]:
        """The comments directly below the header or, of a key, directly above its line.

        Each as it stands, with its "#". Those between a header and its first key are both's.
        """
        names = self._comment_names(option)
        return self._config._handle.texts(_lib.get_comments, *names)

    def add_comment(self, text: str, option: Optional[str] = None) -> None:
        """Adds a comment there, behind those that are there; "#" may be missing in the text."""
        stanza, key = self._comment_names(option)
        comment = encode(text)
        handle = self._config._handle
        if key is None:
            handle.run(_lib.add_stanza_comment, stanza, comment)
        else:
            handle.run(_lib.add_line_comment, stanza, key, comment)

    def remove_comments(self, option: Optional[str] = None) -> None:
        """Removes what comments() tells."""
        self._config._handle.run(_lib.remove_comments, *self._comment_names(option))

    def _comment_names(self, option: Optional[str]) -> Tuple[bytes, Optional[bytes]]:
        self._table()
        if option is None:
            return encode(self._name), None
        self._values(option)
        return encode(self._name), encode(option)


class Config(MutableMapping[str, Section]):
    """What a stanza file holds: its stanzas by name, in the order of the file.

    Config() is empty; open(), update() and loads() give others. Changes stay in memory until
    store(), and comments, blank lines and the bytes of other lines stay where they are. `dialect`
    is the name of a preset or a Dialect; None is the library's own.

    Where configparser has the same, it has the same name here. Threads may share a Config, except
    while an update is open in it: that belongs to the thread that began it.
    """

    __slots__ = ("_handle",)

    def __init__(self, *, dialect: AnyDialect = None) -> None:
        self._handle = Handle.of_bytes(b"", checked(dialect))

    @classmethod
    def _of(cls, handle: Handle) -> "Config":
        config = cls.__new__(cls)
        config._handle = handle
        return config

    def __repr__(self) -> str:
        return f"<Config of {self._file() or 'no file'}>"

    # --- Inside

    def _data(self) -> Tables:
        handle = self._handle
        tables = handle.tables
        if tables is None or handle.updater is not None:
            return handle.entries()
        return tables

    def _table(self, section: str) -> Dict[str, str]:
        try:
            return self._data()[section]
        except KeyError:
            raise MissingError(f"no stanza {section!r}", 28, self._file()) from None

    def _file(self) -> Optional[str]:
        return self._handle.path

    @contextmanager
    def _changing(self) -> Iterator[Handle]:
        handle = self._handle
        handle.entries()
        with handle.lock:
            try:
                yield handle
            except BaseException:
                # How far it came, only the library knows.
                handle.tables = None
                raise

    # --- Reading

    def __getitem__(self, section: str) -> Section:
        """The stanza, as a view; MissingError (a KeyError) if there is none."""
        data = self._data()
        if section not in data.names:
            self._table(section)
        return Section(self, data.spelled(section))

    def __contains__(self, section: object) -> bool:
        return section in self._data().names

    def __iter__(self) -> Iterator[str]:
        return iter(self._data().names)

    def __len__(self) -> int:
        return len(self._data().names)

    def sections(self) -> List[str]:
        """The names of the stanzas."""
        return list(self._data().names)

    def has_section(self, section: str) -> bool:
        """Whether there is this stanza."""
        return section in self._data().names

    def options(self, section: str) -> List[str]:
        """The stanza's keys."""
        return list(self._table(section))

    def has_option(self, section: str, option: str) -> bool:
        """Whether the stanza is there and has this key."""
        try:
            return option in self._data()[section]
        except KeyError:
            return False

    @overload  # type: ignore[override]
    def get(self, section: str, option: str, *, raw: bool = ...) -> str: ...
    @overload
    def get(
        self, section: str, option: str, *, raw: bool = ..., fallback: _T
    ) -> Union[str, _T]: ...
    def get(self, section: str, option: str, *, raw: bool = True, fallback: Any = _UNSET) -> Any:
        """The last value of the key; if there is none the fallback, or without one MissingError.

        `raw` is for callers of configparser: nothing is interpolated here.
        """
        try:
            values = self._data()[section][option]
            return values if "\0" not in values else _last(values)
        except KeyError:
            if fallback is _UNSET:
                raise self[section]._missing(option) from None
        return fallback

    def _converted(
        self, getter: Callable[..., Any], section: str, option: str, fallback: Any
    ) -> Any:
        if fallback is not _UNSET and section not in self._data().names:
            return fallback
        return getter(self[section], option, fallback)

    @overload
    def getint(self, section: str, option: str, *, raw: bool = ...) -> int: ...
    @overload
    def getint(
        self, section: str, option: str, *, raw: bool = ..., fallback: _T
    ) -> Union[int, _T]: ...
    def getint(
        self, section: str, option: str, *, raw: bool = True, fallback: Any = _UNSET
    ) -> Any:
        """As Section.getint, but without a fallback MissingError."""
        return self._converted(Section.getint, section, option, fallback)

    @overload
    def getfloat(self, section: str, option: str, *, raw: bool = ...) -> float: ...
    @overload
    def getfloat(
        self, section: str, option: str, *, raw: bool = ..., fallback: _T
    ) -> Union[float, _T]: ...
    def getfloat(
        self, section: str, option: str, *, raw: bool = True, fallback: Any = _UNSET
    ) -> Any:
        """As Section.getfloat, but without a fallback MissingError."""
        return self._converted(Section.getfloat, section, option, fallback)

    @overload
    def getboolean(self, section: str, option: str, *, raw: bool = ...) -> bool: ...
    @overload
    def getboolean(
        self, section: str, option: str, *, raw: bool = ..., fallback: _T
    ) -> Union[bool, _T]: ...
    def getboolean(
        self, section: str, option: str, *, raw: bool = True, fallback: Any = _UNSET
    ) -> Any:
        """As Section.getboolean, but without a fallback MissingError."""
        return self._converted(Section.getboolean, section, option, fallback)

    def getall(self, section: str, option: str) -> List[str]:
        """All values of the key, in the order of the file."""
        return self[section].getall(option)

    @overload
    def items(self) -> ItemsView[str, Section]: ...
    @overload
    def items(self, section: str, raw: bool = ...) -> List[Tuple[str, str]]: ...
    def items(self, section: Optional[str] = None, raw: bool = True) -> Any:
        """The stanzas with their names or, of one stanza, its keys with their last values."""
        if section is None:
            return super().items()
        return list(self[section].items())

    # --- Changing

    def __setitem__(self, section: str, content: Mapping[str, Values]) -> None:
        """Makes these the keys of the stanza, which is made if need be, or changes nothing.

        A list as value gives a key several values. RefusedError for a Section with hidden values,
        which would become plain ones.
        """
        section = canonical(section)
        listed = _tried(section, content, self._handle.dialect)
        with self._changing():
            if section not in self._data().names:
                self.add_section(section)
            mine = self[section]
            mine._write(listed)
            kept = {mine._spelled(option) for option in listed}
            for option in [option for option in mine if option not in kept]:
                del mine[option]

    def __delitem__(self, section: str) -> None:
        """Removes the stanza with its keys; MissingError if there is none."""
        name = encode(section)
        with self._changing() as handle:
            self._table(section)
            handle.run(_lib.remove_stanza, name)
            self._data().remove(section)

    def clear(self) -> None:
        """Removes all stanzas."""
        for section in self.sections():
            del self[section]

    def add_section(self, section: str) -> None:
        """Adds a stanza without keys, at the end; RefusedError if it is there already."""
        name, section = encode(section), canonical(section)
        with self._changing() as handle:
            if section in self._data().names:
                raise RefusedError(f"stanza {section!r} is there already", 22, self._file())
            # A stanza is made with its first key, and stays when that goes.
            handle.run(_lib.set_value, name, b"-", None)
            handle.run(_lib.remove_key, name, b"-")
            self._data().add(section)

    def set(self, section: str, option: str, value: Optional[str]) -> None:
        """Makes this the only value of the key, in a stanza that must be there; None as there."""
        self[section][option] = value

    def remove_option(self, section: str, option: str) -> bool:
        """Removes the key; whether there was one. MissingError if there is no such stanza."""
        table = self[section]
        existed = option in table
        if existed:
            del table[option]
        return existed

    def remove_section(self, section: str) -> bool:
        """Removes the stanza; whether there was one."""
        existed = section in self
        if existed:
            del self[section]
        return existed

    # --- Comments

    def comments(self) -> List[str]:
        """The file's own: its first lines, up to the first that is no comment."""
        return self._handle.texts(_lib.get_comments, None, None)

    def add_comment(self, text: str) -> None:
        """Adds one behind these; "#" may be missing in the text."""
        self._handle.run(_lib.add_file_comment, encode(text))

    def remove_comments(self) -> None:
        """Removes these."""
        self._handle.run(_lib.remove_comments, None, None)

    # --- Texts and files

    def read(self, filenames: Union[Path, Iterable[Path]], encoding: Optional[str] = None
             ) -> List[Path]:
        """Reads these files, later ones over earlier ones; files that aren't there are left out.

        The first one that is read into an empty Config without a file becomes its file, comments
        and hidden values with it. Gives the list of those that were read. `encoding` is for
        callers of configparser: text is UTF-8.
        """
        if isinstance(filenames, (str, bytes, os.PathLike)):
            filenames = [filenames]
        found: List[Path] = []
        for name in filenames:
            try:
                other = Config._of(
                    Handle.open(encode_path(name), "safe", 10, self._handle.dialect)
                )
            except NotFoundError:
                continue
            self._take(other)
            found.append(name)
        return found

    def read_file(self, f: Iterable[str], source: Optional[str] = None) -> None:
        """Reads the lines of a text file, over what is there."""
        self.read_string("".join(f))

    def read_string(self, string: str, source: Optional[str] = None) -> None:
        """Reads a text, over what is there: a key gets the values that it has in the text.

        DataError for bad data, RefusedError for a key that is hidden here; nothing is changed then.
        """
        self._take(Config._of(_handle_of(string, self._handle.dialect)))

    def read_dict(self, dictionary: Mapping[str, Mapping[str, Values]], source: str = "") -> None:
        """Sets the keys of these stanzas, which are made if need be, or changes nothing.

        RefusedError where values are hidden, of a key here or of a Section in the dictionary.
        """
        tried = {canonical(section): _tried(section, content, self._handle.dialect)
                 for section, content in dictionary.items()}
        with self._changing():
            for section, listed in tried.items():
                if section in self._data().names:
                    self[section]._refuse_hidden(listed)
            for section, listed in tried.items():
                if section not in self._data().names:
                    self.add_section(section)
                self[section]._write(listed)

    def _take(self, other: "Config") -> None:
        mine, theirs = self._handle, other._handle
        if not self and not self.comments() and self._file() is None and not mine.is_modified():
            self._handle = theirs
            mine.close()
            return
        content = {name: _copied(other[name]) for name in other}
        if other._data().hidden:
            raise RefusedError("hidden values would become plain ones", 22, other._file())
        self.read_dict(content)

    def dumps(self) -> str:
        """The text of a file with all that is here but the hidden values."""
        return self._handle.text(_lib.store_bytes)

    def write(self, fp: TextIO, space_around_delimiters: bool = True) -> None:
        """Writes dumps() to an open text file. store() is the safe way to change a file."""
        fp.write(self.dumps())

    @property
    def path(self) -> Optional[str]:
        """The file that it was opened with or first stored to, or None."""
        return self._file()

    @property
    def dialect(self) -> Optional[Dialect]:
        """The switches of its dialect; None: it is the library's own."""
        terms = self._handle.dialect
        return None if terms is None else terms.said

    @property
    def modified(self) -> bool:
        """Whether something was changed since the last load or store."""
        return self._handle.is_modified()

    def store(self, path: Optional[Path] = None, *, wait: Optional[float] = 10) -> None:
        """Writes all to the file, or to the one at `path`, in the mode that it was opened with.

        Waits up to `wait` seconds for the file's lock; None waits for ever. What another process
        has stored since this Config was loaded is lost: update() is the way to change a file that
        others change too. LockedError, FileError; StateError in an update of that file, which
        couldn't be taken back any more.
        """
        self._handle.store(None if path is None else encode_path(path), wait)

    def close(self) -> None:
        """Ends the object: all else raises StateError from now on. Nothing is stored."""
        self._handle.close()

    def __enter__(self) -> "Config":
        return self

    def __exit__(self, *failure: object) -> None:
        self.close()


def open(
    path: Path,
    *,
    wait: Optional[float] = 10,
    mode: str = "safe",
    dialect: AnyDialect = None,
) -> Config:
    """Loads a file.

    `dialect` is the name of a preset (see dialects()) or a Dialect; it is never guessed. Of one
    that isn't None, hidden values can't be had.

    Waits up to `wait` seconds while somebody writes to it; None waits for ever. `mode` is what a
    store() does about failures: "safe" leaves the old or the new content even after a crash,
    "checked" reports each failure, "plain" looks at none.

    FileError (NotFoundError, DeniedError), LockedError, DataError; NotFoundError also for a preset
    that isn't there, RefusedError for switches that clash.
    """
    return Config._of(Handle.open(encode_path(path), mode, wait, checked(dialect)))


def _handle_of(text: Union[str, bytes], dialect: Optional[_lib.DialectTerms]) -> Handle:
    if not isinstance(text, bytes):
        text = text.encode("utf-8", "surrogateescape")
    return Handle.of_bytes(text, dialect)


def loads(text: Union[str, bytes], *, dialect: AnyDialect = None) -> Config:
    """A Config of this text, without a file. DataError for bad data; a dialect as for open()."""
    return Config._of(_handle_of(text, checked(dialect)))


def dumps(
    content: Mapping[str, Mapping[str, Values]], *, dialect: AnyDialect = None
) -> str:
    """The text of a file with these stanzas. A list as value gives a key several values.

    Hidden values of a Config are left out; for a Section that has some: RefusedError. A Config has
    its own text if no dialect is named.
    """
    if isinstance(content, Config) and dialect is None:
        return content.dumps()
    with Config(dialect=dialect) as config:
        config.read_dict(content)
        return config.dumps()


class Update:
    """An update of a file: see update()."""

    def __init__(
        self, path: Path, wait: Optional[float], mode: str, create: bool, dialect: AnyDialect
    ) -> None:
        self._path = encode_path(path)
        self._dialect = checked(dialect)
        self._wait = wait
        self._mode = mode
        self._create = create
        self._config: Optional[Config] = None
        self._made: Optional[Tuple[int, int]] = None

    def __enter__(self) -> Config:
        if self._config is not None:
            raise StateError("this update is open already")
        check_opening(self._mode, self._wait)
        tries = 10
        while self._config is None:
            try:
                made = create_file(self._path) if self._create else None
                self._config = self._begun()
            except NotFoundError:
                # Whoever made it may have taken it away again; but a link may lead nowhere.
                tries -= 1
                if not self._create or tries == 0:
                    raise
        self._made = made
        return self._config

    def _begun(self) -> Config:
        handle = Handle.open(self._path, self._mode, self._wait, self._dialect)
        try:
            handle.begin(self._wait)
        except BaseException:
            handle.close()
            raise
        return Config._of(handle)

    def _remove_made(self, handle: Handle) -> None:
        """Takes away the file that this update made, while the lock keeps others from it.

        Who waits for the lock finds the name gone. In a forked child the lock is the parent's.
        """
        made, self._made = self._made, None
        if made is None or not handle.is_updating():
            return
        try:
            found = os.lstat(self._path)
            if (found.st_dev, found.st_ino, found.st_size) == (*made, 0):
                os.unlink(self._path)
        except OSError:
            pass  # nobody needs it to go, and the failure that led here counts

    def __exit__(self, kind: object, failure: object, trace: object) -> None:
        config, self._config = self._config, None
        if config is None:
            raise StateError("this update isn't open")
        try:
            if kind is None:
                config._handle.commit()
                self._made = None
        finally:
            self._remove_made(config._handle)
            # What isn't committed is taken back.
            config.close()


def update(
    path: Path,
    *,
    wait: Optional[float] = 10,
    mode: str = "safe",
    create: bool = False,
    dialect: AnyDialect = None,
) -> Update:
    """Changes a file so that no other writer comes between:

        with zbase.update("service.conf") as f:
            f["log"]["level"] = "debug"

    At the beginning the file is locked, which waits up to `wait` seconds (None: for ever), and
    read. At the end it is stored, in the mode that open() tells, and the lock goes. After an
    exception the file is what it was. `create` makes a file that isn't there, empty; after an
    exception that is taken away again. `dialect` is that of the file, as for open().

    The update belongs to the thread that entered it. In others, what it gave raises StateError.
    """
    return Update(path, wait, mode, create, dialect)
