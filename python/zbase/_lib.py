"""The C interface of libzbase.so.6, as the classes of this package call it.

Every call goes through a Handle, which keeps what C can't know: that Python has closed the object,
that the process has forked, that an update belongs to another thread. So no pointer reaches the
library that isn't good. Nothing but the walk over presets calls back from C: an exception couldn't
get through there.
"""

import ctypes
import errno
import math
import os
import re
import stat
import sys
import threading
import time
import weakref
from itertools import repeat
from typing import (
    Any,
    Callable,
    Dict,
    List,
    Mapping,
    NamedTuple,
    Optional,
    Set,
    Tuple,
    TypeVar,
)

from ._errors import (
    DataError,
    Error,
    LockedError,
    MissingError,
    RefusedError,
    StateError,
    file_error,
)



def _library_name() -> str:
    """ZBASE_LIBRARY, in the tree of the sources alone: where this package is installed, no
    environment may put other code into the programs that use it."""
    sources = os.path.join(os.path.dirname(__file__), os.pardir, "CMakeLists.txt")
    named = os.environ.get("ZBASE_LIBRARY") if os.path.exists(sources) else None
    return named or "libzbase.so.6"


_library = ctypes.CDLL(_library_name())


class _LastError(ctypes.Structure):
    """ZPROP_error."""

    _fields_ = [
        ("number", ctypes.c_int),
        ("file", ctypes.c_char_p),
        ("line", ctypes.c_int),
        ("text", ctypes.c_char_p),
    ]


class _Dialect(ctypes.Structure):
    """ZDialect."""

    _fields_ = [("size", ctypes.c_size_t)] + [
        (switch, ctypes.c_uint)
        for switch in ("comments", "divider", "tails", "bare", "continued", "quotes", "repeated",
                       "names", "headers", "orphans", "values", "lines")
    ]


def _function(name: str, result: Any, *arguments: Any, family: str = "Prop") -> Any:
    function = getattr(_library, f"zstz{family}{name}_6_0")
    function.restype = result
    function.argtypes = arguments
    return function


_int = ctypes.c_int
_ulong = ctypes.c_ulong
_text = ctypes.c_char_p
_handle = ctypes.c_void_p
_block = ctypes.c_void_p
_size = ctypes.c_size_t
_out = ctypes.POINTER(ctypes.c_void_p)
_texts = ctypes.POINTER(ctypes.c_char_p)
_err = ctypes.POINTER(ctypes.c_int)

_setup = _function("Setup", _int, _int)
_last_error = _function("LastError", _int, ctypes.POINTER(_LastError))
_last_errno = _function("LastErrno", _int)
_dialect = ctypes.POINTER(_Dialect)
_open_with = _function("OpenDialect", _int, _out, _text, _int, _dialect, _ulong, _int, _ulong)
_open_bytes = _function("OpenDialectBytes", _int, _out, _text, _size, _dialect, _ulong)
_Preset = ctypes.CFUNCTYPE(_int, ctypes.c_void_p, _text, _text)
_get_preset = _function("_get", _int, _text, _dialect, family="Dialect")
_preset_of = _function("_ofFile", _int, _text, _out, _out, family="Dialect")
_each_preset = _function("_forEach", _int, _Preset, ctypes.c_void_p, family="Dialect")
_clash = _function("_clash", None, _dialect, _texts, _texts, family="Dialect")
_is_bare = _function("IsBare", _int, _handle, _text, _text, _err)
_close = _function("Close", None, _handle)
_free = _function("Free", None, _block)
_free_list = _function("FreeStanzas", None, _texts)
_begin = _function("Begin", _int, _handle, _ulong)
_commit = _function("Commit", _int, _handle)
_rollback = _function("Rollback", _int, _handle)
_watch_open = _function("Watch_open", _int, _handle, _out)
_watch_process = _function("Watch_process", _int, _handle, ctypes.c_void_p, ctypes.c_void_p, _err)
_watch_close = _function("Watch_close", _int, _handle)
_watch_fd = _function("Watch_fd", _int, _handle)
_is_modified = _function("IsModified", _int, _handle)
_path = _function("Path", _text, _handle)
_store = _function("Store", _int, _handle, _text)

# What Handle.run takes; the first argument is the handle's own.
set_value = _function("SetStringValue", _int, _handle, _text, _text, _text)
add_value = _function("AddStringValue", _int, _handle, _text, _text, _text)
set_bare = _function("SetBare", _int, _handle, _text, _text)
remove_key = _function("RemoveKey", _int, _handle, _text, _text)
remove_stanza = _function("RemoveStanza", _int, _handle, _text)
add_file_comment = _function("AddFileComment", _int, _handle, _text)
add_stanza_comment = _function("AddStanzaComment", _int, _handle, _text, _text)
add_line_comment = _function("AddLineComment", _int, _handle, _text, _text, _text)
remove_comments = _function("RemoveComments", _int, _handle, _text, _text)
# What Handle.ask, .block and .texts take.
get_int64 = _function("GetInt64Value", ctypes.c_int64, _handle, _text, _text, _int, _err)
get_double = _function("GetDoubleValue", ctypes.c_double, _handle, _text, _text, _int, _err)
get_entries = _function("GetEntries", _int, _handle, _out, ctypes.POINTER(_size))
store_bytes = _function("StoreBytes", _int, _handle, _out, ctypes.POINTER(_size))
get_comments = _function("GetComments", _int, _handle, _text, _text, ctypes.POINTER(_texts))

_view = ctypes.pythonapi.PyMemoryView_FromMemory
_view.restype = ctypes.py_object
_view.argtypes = (_block, ctypes.c_ssize_t, _int)
_READ = 0x100  # PyBUF_READ

_SETUP_UTF8 = 1
_OPEN_UPDATE = 2
_STRICT_AND_KEEP_LINES = 2 | 4
STORE_MODES = {"plain": 0, "checked": 1, "safe": 2}
_ERR_VALUE, _ERR_MISSING, _ERR_LOCKED, _ERR_UNSAVED, _ERR_NO_UPDATE = 53, 54, 60, 61, 62
_ERR_SETUP = 63
_NO_MEMORY, _BAD_PARAMETER, _ACCESS_FAILED, _BAD_DATA = 1, 22, 43, 44

_T = TypeVar("_T")

# Interrupts come through between two calls, so none waits for longer.
_SLICE = 0.1
_PAUSE = 0.02

# ---------------------------------------------------------------- text


def encode(text: str) -> bytes:
    """Text as it goes to C: surrogate escapes become the bytes that they stand for."""
    if not isinstance(text, str):
        raise TypeError(f"text is needed, not {type(text).__name__}")
    encoded = text.encode("utf-8", "surrogateescape")
    if b"\0" in encoded:
        raise RefusedError("text can't hold a NUL", _BAD_PARAMETER)
    return encoded


def encode_path(path: Any) -> bytes:
    """A path as it goes to C."""
    encoded = os.fsencode(path)
    if b"\0" in encoded:
        raise RefusedError("a path can't hold a NUL", _BAD_PARAMETER)
    return encoded


def decode(text: bytes) -> str:
    """Text as it comes from C: bytes that are no UTF-8 become surrogate escapes."""
    return text.decode("utf-8", "surrogateescape")


def canonical(text: str) -> str:
    """Text as the library gives it back: of escapes that are UTF-8 together, the character."""
    return decode(encode(text))


# ---------------------------------------------------------------- failures


def _failure(result: int) -> Exception:
    """The exception for a call that gave this result.

    A finaliser or signal handler that ran since then may have made calls of its own; the result
    alone has to do where they have cleared what the call had met.
    """
    last = _LastError()
    number = _last_error(ctypes.byref(last)) or result
    code = _last_errno() or None
    file = os.fsdecode(last.file) if last.file else None
    text = f"failed with result {result}" if last.text is None else decode(last.text)
    if number == _NO_MEMORY:
        return MemoryError(text)
    if result in (_ERR_UNSAVED, _ERR_NO_UPDATE, _ERR_SETUP):
        return StateError(text, number, file)
    if result == _ERR_LOCKED:
        return LockedError(text, number, file, 0, errno.ETIMEDOUT)
    if result == _ERR_MISSING:
        return MissingError(text, number, file)
    if number == _BAD_DATA:
        return DataError(f"bad line: {text}", number, file, last.line)
    if result == _ERR_VALUE:
        return DataError(f"bad value: {text}", number, file)
    if number == _ACCESS_FAILED:
        return file_error(text, number, file, code)
    if number == _BAD_PARAMETER:
        return RefusedError(text, number, file)
    return Error(text, number, file)


def _check(result: int) -> None:
    if result != 0:
        raise _failure(result)


# ---------------------------------------------------------------- dialects


def preset(name: bytes) -> Any:
    """The switches of the preset, as numbers."""
    _set_up()
    dialect = _Dialect()
    _check(_get_preset(name, ctypes.byref(dialect)))
    return dialect


def preset_of(path: bytes) -> Optional[bytes]:
    """The name of the preset for a path; None: there is none."""
    _set_up()
    name, pattern = ctypes.c_void_p(), ctypes.c_void_p()
    try:
        _check(_preset_of(path, ctypes.byref(name), ctypes.byref(pattern)))
        return None if name.value is None else ctypes.string_at(name.value)
    finally:
        _free(name)
        _free(pattern)


def presets() -> List[Tuple[bytes, bytes]]:
    """Name and description of each."""
    _set_up()
    found: List[Tuple[bytes, bytes]] = []
    failures: List[BaseException] = []

    def visit(_: object, name: bytes, description: bytes) -> int:
        try:
            found.append((name, description))
            return 0
        except BaseException as failure:  # an interrupt, which C would lose
            failures.append(failure)
            return 1

    result = _each_preset(_Preset(visit), None)
    if failures:
        raise failures[0]
    _check(result)
    return found


class DialectTerms(NamedTuple):
    """A dialect as handles take it."""

    said: Any  # the caller's
    numbers: Dict[str, int]
    # What makes stanzas alike, and keys, that it takes for the same; None: nothing has to.
    folding: Optional[Tuple[Callable[[str], str], Callable[[str], str]]]

    def has_bare(self) -> bool:
        """Whether there are keys without a divider."""
        return bool(self.numbers["bare"])

    def struct(self) -> Any:
        """For calls. RefusedError for switches that clash."""
        dialect = _Dialect(ctypes.sizeof(_Dialect), **self.numbers)
        first, second = ctypes.c_char_p(), ctypes.c_char_p()
        _clash(ctypes.byref(dialect), ctypes.byref(first), ctypes.byref(second))
        if first.value is not None and second.value is not None:
            raise RefusedError(f"{decode(first.value)} {decode(second.value)}", _BAD_PARAMETER)
        return ctypes.byref(dialect)


class FoldedDict(Dict[str, _T]):
    """A dictionary in which names are the same that fold alike; each keeps its first spelling."""

    __slots__ = ("_fold", "_spelled")

    def __init__(self, fold: Callable[[str], str], content: Mapping[str, _T] = {}) -> None:
        super().__init__()
        self._fold = fold
        self._spelled: Dict[str, str] = {}
        for name, value in content.items():
            self[name] = value

    def spelled(self, name: str) -> str:
        """How the name is spelled here; as it is, if it isn't here."""
        return self._spelled.get(self._fold(name), name)

    def __getitem__(self, name: str) -> _T:
        return super().__getitem__(self.spelled(name))

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and super().__contains__(self.spelled(name))

    def get(self, name: str, default: Any = None) -> Any:
        return super().get(self.spelled(name), default)

    def __setitem__(self, name: str, value: _T) -> None:
        super().__setitem__(self._spelled.setdefault(self._fold(name), name), value)

    def __delitem__(self, name: str) -> None:
        super().__delitem__(self.spelled(name))
        del self._spelled[self._fold(name)]


# ---------------------------------------------------------------- waiting

_Answer = TypeVar("_Answer")


def _deadline(wait: Optional[float]) -> float:
    if wait is not None and math.isnan(wait):
        raise ValueError("the wait must be a number of seconds")
    return math.inf if wait is None else time.monotonic() + wait


def check_opening(mode: str, wait: Optional[float]) -> None:
    """Refuses what can't be a mode or a wait."""
    _deadline(wait)
    if mode not in STORE_MODES:
        raise ValueError(f"the mode must be one of {', '.join(STORE_MODES)}")


def waiting(wait: Optional[float], attempt: Callable[[int], _Answer]) -> _Answer:
    """What attempt(milliseconds) gives once it doesn't raise LockedError, within `wait` seconds.

    None waits for ever. The attempts are short, so that an interrupt ends the wait.
    """
    end = _deadline(wait)
    while True:
        left = min(_SLICE, max(0.0, end - time.monotonic()))
        try:
            return attempt(math.ceil(left * 1000))
        except LockedError:
            if time.monotonic() >= end:
                raise


# ---------------------------------------------------------------- files


def create_file(path: bytes) -> Optional[Tuple[int, int]]:
    """Makes an empty file; its device and number, or None if there is one already."""
    try:
        # Without a descriptor: closing that would end the lock that another thread may have on it.
        os.mknod(path, stat.S_IFREG | 0o666)
        made = os.lstat(path)
        return made.st_dev, made.st_ino
    except FileExistsError:
        return None
    except OSError as failure:
        name, text = os.fsdecode(path), f"mknod(): {failure.strerror}"
        raise file_error(text, _ACCESS_FAILED, name, failure.errno) from None


# ---------------------------------------------------------------- threads and forks


class _ThreadUpdates:
    """The updates that a thread has open: only it can end them, at the latest when it ends."""

    def __init__(self) -> None:
        self.open: "weakref.WeakSet[Handle]" = weakref.WeakSet()
        # Pointers whose handles were finalised by another thread.
        self.orphans: List[int] = []
        self._process = os.getpid()

    def close_orphans(self) -> None:
        while self.orphans:
            _close(self.orphans.pop())

    def __del__(self, ends: Callable[[], bool] = sys.is_finalizing) -> None:
        # A forked child drops what other threads had ahead of all else.
        if ends() or self._process != os.getpid():
            return
        for handle in list(self.open):
            handle.close()
        self.close_orphans()


class _Thread(threading.local):
    def __init__(self) -> None:
        # Nothing else refers to it, so that it goes when the thread does.
        self.updates = _ThreadUpdates()


_thread = _Thread()
_handles: "weakref.WeakSet[Handle]" = weakref.WeakSet()


def _forget_in_child() -> None:
    """Locks and descriptors of the parent's handles are the parent's: the child lets them be."""
    _thread.updates.orphans.clear()
    _thread.updates.open.clear()
    for handle in list(_handles):
        handle.forget("this object was made before the fork, by the parent process")
        # A thread that isn't here may have held the old one.
        handle.lock = threading.RLock()


os.register_at_fork(after_in_child=_forget_in_child)


def _set_up() -> None:
    """Local text is UTF-8, and nothing of the process is touched."""
    _refuse_at_exit()
    _check(_setup(_SETUP_UTF8))


def _refuse_at_exit() -> None:
    # Threads that the interpreter has stopped may be in the middle of a call, lock and all.
    if sys.is_finalizing():
        raise StateError("the interpreter ends")


# Between the values of a key, and between the key and its values.
SEPARATOR = "\0="

# A stanza behind another in a block of zstzPropGetEntries.
_NEXT_STANZA = re.compile(rb"\0\[([^\0]*)")
_FIRST_STANZA = re.compile(rb"\[([^\0]*)")


class Block:
    """A block that the library has made, given back when nobody refers to it any more.

    `view` must not outlive it.
    """

    __slots__ = ("_pointer", "view")

    def __init__(self, pointer: Optional[int], size: int) -> None:
        self._pointer = pointer
        self.view = _view(pointer, size, _READ) if pointer else memoryview(b"")

    def text(self, first: int, end: int) -> str:
        """The text of these bytes."""
        return str(self.view[first:end], "utf-8", "surrogateescape")

    def __del__(self, ends: Callable[[], bool] = sys.is_finalizing) -> None:
        pointer, self._pointer = getattr(self, "_pointer", None), None
        if pointer is not None and not ends():
            _free(pointer)


class Tables(Dict[str, Dict[str, str]]):
    """What a block of zstzPropGetEntries holds: a table of keys for each stanza.

    A table is made when it is asked for, since most programs ask for a few; the block stays as it
    is until then, for fresh memory is what costs. A key's values stay in one text, SEPARATOR
    between them: most have one, and ten thousand lists would cost more than all else.

    names   the stanzas in the order of the file, each with its place in the block
    hidden  the hidden keys of the tables that are made
    """

    __slots__ = ("_block", "_lock", "_fold_key", "names", "hidden")

    def __init__(
        self, block: Block, lock: "threading.RLock", dialect: Optional[DialectTerms]
    ) -> None:
        super().__init__()
        self._block = block
        self._lock = lock  # of the handle: who changes a table holds it
        folding = None if dialect is None else dialect.folding
        self._fold_key = None if folding is None else folding[1]
        self.names: Dict[str, Tuple[int, int]] = {} if folding is None else FoldedDict(folding[0])
        self.hidden: Set[Tuple[str, str]] = set()
        stanza = _FIRST_STANZA.match(block.view)
        if stanza is None:
            return
        name, first = decode(stanza[1]), stanza.end() + 2
        for stanza in _NEXT_STANZA.finditer(block.view):
            end, behind = stanza.span()
            self.names[name] = first, end
            name, first = decode(stanza[1]), behind + 2
        self.names[name] = first, len(block.view) - 1

    def spelled(self, name: str) -> str:
        """How the name of a stanza is spelled here."""
        return self.names.spelled(name) if isinstance(self.names, FoldedDict) else name

    def __missing__(self, name: str) -> Dict[str, str]:
        name = self.spelled(name)
        with self._lock:
            table = self.get(name)
            if table is None:
                self[name] = table = self._made(name)
            return table

    def _made(self, name: str) -> Dict[str, str]:
        first, end = self.names[name]
        text = self._block.text(first, end)
        entries = text.split("\0.") if text else []
        if "\0*" in text:
            self.hidden.update((name, e.partition("\0")[0]) for e in entries if "\0*" in e)
            entries = [entry.replace("\0*", SEPARATOR) for entry in entries]
        divided = map(str.partition, entries, repeat(SEPARATOR))
        made = {key: values for key, _, values in divided}
        return made if self._fold_key is None else FoldedDict(self._fold_key, made)

    def add(self, name: str) -> None:
        """A stanza without keys."""
        self.names[name] = (0, 0)
        self[name] = {} if self._fold_key is None else FoldedDict(self._fold_key)

    def remove(self, name: str) -> None:
        """A stanza and all of its keys."""
        name = self.spelled(name)
        del self.names[name]
        self.pop(name, None)
        self.hidden = {key for key in self.hidden if key[0] != name}


class Handle:
    """An object of the library, and what Python knows of it.

    `lock` is held during each call, and by who changes the object and `tables` together. `tables`
    is what the object holds, or None until somebody asks; it goes when the handle does, so that
    whoever finds it needs no other test than that of the updater.
    """

    __slots__ = ("_pointer", "_process", "_gone", "_calls", "_home", "path", "lock", "updater",
                 "tables", "watches", "dialect", "_opened", "_dropped", "__weakref__")

    def __init__(self, pointer: int, dialect: Optional[DialectTerms]) -> None:
        # First what __del__ needs, for an interrupt may come in between.
        self._process = os.getpid()
        self.updater: Optional[int] = None  # the thread that has an update open
        self._home: Optional[List[int]] = None  # where that finds what others let go
        # The library's watches on it, which have to be closed ahead of it, and those of them that a
        # finaliser let go while the lock was another thread's.
        self._opened: Set[int] = set()
        self._dropped: List[int] = []
        self._pointer: Optional[int] = pointer
        self.dialect = dialect  # None: the library's own
        self._gone = "this object is closed"
        self._calls = 0  # a signal handler may find it in the middle of one
        path = _path(pointer)
        self.path: Optional[str] = os.fsdecode(path) if path else None
        self.lock = threading.RLock()
        self.tables: Optional[Tables] = None
        self.watches: "weakref.WeakSet[WatchHandle]" = weakref.WeakSet()
        _handles.add(self)

    @staticmethod
    def open(
        path: bytes, mode: str, wait: Optional[float], dialect: Optional[DialectTerms] = None
    ) -> "Handle":
        """A handle that has loaded the file."""
        _set_up()
        _thread.updates.close_orphans()
        check_opening(mode, wait)
        terms = None if dialect is None else dialect.struct()

        def attempt(milliseconds: int) -> Handle:
            out = ctypes.c_void_p()
            _check(
                _open_with(ctypes.byref(out), path, _OPEN_UPDATE, terms,
                           _STRICT_AND_KEEP_LINES, STORE_MODES[mode], milliseconds)
            )
            return Handle(out.value or 0, dialect)

        return waiting(wait, attempt)

    @staticmethod
    def of_bytes(content: bytes, dialect: Optional[DialectTerms] = None) -> "Handle":
        """A handle without a path."""
        _set_up()
        _refuse_nul(content)
        out = ctypes.c_void_p()
        terms = None if dialect is None else dialect.struct()
        _check(_open_bytes(ctypes.byref(out), content, len(content), terms,
                           _STRICT_AND_KEEP_LINES))
        return Handle(out.value or 0, dialect)

    # The pointer, for a call that begins now.
    def _live(self) -> int:
        pointer = self._pointer
        if pointer is None:
            raise StateError(self._gone)
        _refuse_at_exit()
        if self.updater is not None and self.updater != threading.get_ident():
            raise StateError("another thread has an update of this object open")
        return pointer

    def run(self, function: Any, *arguments: Any) -> None:
        """Makes a call that gives a result number."""
        self._live()
        with self.lock:
            self._close_dropped()
            self._calls += 1
            try:
                _check(function(self._live(), *arguments))
            finally:
                self._calls -= 1

    def ask(self, function: Any, stanza: bytes, key: bytes) -> Any:
        """Makes a call that gives an answer, or raises."""
        err = ctypes.c_int()
        answers: List[Any] = []

        def call(pointer: int) -> int:
            answers.append(function(pointer, stanza, key, 1, ctypes.byref(err)))
            return err.value

        self.run(call)
        return answers[0]

    def is_bare(self, stanza: bytes, key: bytes) -> bool:
        """Whether the key has no divider."""
        if self.dialect is None or not self.dialect.has_bare():
            return False
        err = ctypes.c_int()
        answers: List[int] = []

        def call(pointer: int) -> int:
            answers.append(_is_bare(pointer, stanza, key, ctypes.byref(err)))
            return err.value

        self.run(call)
        return answers[0] != 0

    def block(self, function: Any) -> Block:
        """The block that a call makes."""
        out, size = ctypes.c_void_p(), ctypes.c_size_t()
        try:
            self.run(function, ctypes.byref(out), ctypes.byref(size))
            block = Block(out.value, size.value)
            out.value = None
            return block
        finally:
            _free(out)

    def text(self, function: Any) -> str:
        """The same as a text."""
        block = self.block(function)
        return block.text(0, len(block.view))

    def texts(self, function: Any, *arguments: Any) -> List[str]:
        """The texts that a call makes a list of."""
        out = _texts()
        try:
            self.run(function, *arguments, ctypes.byref(out))
            texts: List[str] = []
            while out and out[len(texts)] is not None:
                texts.append(decode(out[len(texts)]))
            return texts
        finally:
            _free_list(out)

    def is_modified(self) -> bool:
        """Whether something was changed since the last load or store."""
        with self.lock:
            return bool(_is_modified(self._live()))

    def entries(self) -> Tables:
        """`tables`, made anew if need be."""
        self._live()
        made = self.tables
        if made is not None:
            return made
        with self.lock:
            self._live()
            if self.tables is None:
                self.tables = Tables(self.block(get_entries), self.lock, self.dialect)
            return self.tables

    def store(self, path: Optional[bytes], wait: Optional[float]) -> None:
        """Writes to this file, or to its own."""
        self._live()
        if path is None and self.path is None:
            raise StateError("this object has no file yet", _BAD_PARAMETER)
        if self.updater is not None and (path is None or self._is_own(path)):
            raise StateError("the update of this file stores it at its end", _BAD_PARAMETER,
                             self.path)

        def attempt(milliseconds: int) -> None:
            try:
                self.run(_store, path)
            except LockedError:
                # How long the library waits was said when the handle was opened.
                time.sleep(min(milliseconds / 1000, _PAUSE))
                raise

        waiting(wait, attempt)
        with self.lock:
            stored = _path(self._live())
            self.path = os.fsdecode(stored) if stored else None

    def _is_own(self, path: bytes) -> bool:
        own = os.fsencode(self.path or "")
        try:
            return path == own or os.path.samefile(path, own)  # through a link, too
        except OSError:
            return False

    def is_updating(self) -> bool:
        """Whether the calling thread has an update open."""
        return self.updater == threading.get_ident()

    def begin(self, wait: Optional[float]) -> None:
        """Begins an update, which is the calling thread's."""
        updates = _thread.updates
        updates.close_orphans()

        def attempt(milliseconds: int) -> None:
            self._live()
            with self.lock:
                pointer = self._live()
                if self.updater is not None:
                    raise StateError("an update of this object is open already")
                self.updater, self._home = threading.get_ident(), updates.orphans
                updates.open.add(self)
                try:
                    _check(_begin(pointer, milliseconds))
                except BaseException:
                    # An interrupt may have come right behind the call.
                    self._end_update()
                    raise
                finally:
                    self.tables = None

        waiting(wait, attempt)

    def _end_update(self) -> None:
        _rollback(self._pointer)
        self.updater = self._home = self.tables = None
        _thread.updates.open.discard(self)

    def commit(self) -> None:
        """Stores, and ends the update; one that fails is open still."""
        self.run(_commit)
        with self.lock:
            self._end_update()

    def rollback(self) -> None:
        """Ends the update of the calling thread without a store."""
        with self.lock:
            self._live()
            self._end_update()

    def close(self) -> None:
        """Ends the object, with an update that is open; again: nothing."""
        if self._pointer is None:
            return
        with self.lock:
            if self._pointer is None:
                return
            self._live()
            if self._calls:
                raise StateError("this object is in the middle of a call")
            for watch in list(self.watches):
                watch.close()
            self._close_watches()
            pointer = self._pointer
            self.forget("this object is closed")
            _close(pointer)

    def open_watch(self) -> int:
        """A watch on the file, of the library."""
        out = ctypes.c_void_p()
        with self.lock:
            self.run(_watch_open, ctypes.byref(out))
            self._opened.add(out.value or 0)
        return out.value or 0

    def close_watch(self, pointer: int) -> None:
        """Closes one, unless that has been done."""
        with self.lock:
            if pointer in self._opened:
                self._opened.remove(pointer)
                _watch_close(pointer)

    def drop_watch(self, pointer: int) -> None:
        """The same in a finaliser, which mustn't wait for a lock: now, or with the next call."""
        self._dropped.append(pointer)
        if self.lock.acquire(blocking=False):
            try:
                self._close_dropped()
            finally:
                self.lock.release()

    def _close_dropped(self) -> None:
        while self._dropped:
            self.close_watch(self._dropped.pop())

    def _close_watches(self) -> None:
        while self._opened:
            _watch_close(self._opened.pop())

    def forget(self, why: str) -> None:
        """Lets go of the object, without a call."""
        for watch in list(self.watches):
            watch.forget()
        self._pointer, self._gone = None, why
        self._opened.clear()
        self.tables = self.updater = self._home = None

    def is_of_this_process(self) -> bool:
        """Whether no fork lies between."""
        return self._process == os.getpid()

    def __reduce__(self) -> Any:
        raise TypeError("an object of the library can't be copied or pickled")

    def __del__(self, ends: Callable[[], bool] = sys.is_finalizing) -> None:
        pointer, self._pointer = getattr(self, "_pointer", None), None
        if pointer is None or ends() or not self.is_of_this_process():
            return
        self._close_watches()
        if self._home is not None and self.updater != threading.get_ident():
            self._home.append(pointer)
        else:
            _close(pointer)


def _refuse_nul(content: bytes) -> None:
    place = content.find(b"\0")
    if place >= 0:
        line = content.count(b"\n", 0, place) + 1
        raise DataError("bad line: it holds a NUL", _BAD_DATA, None, line)


class WatchHandle:
    """A watch of the library on the file of a handle, which it keeps alive."""

    def __init__(self, handle: Handle) -> None:
        self._handle = handle
        self._pointer: Optional[int] = None
        self._wake = self._woken = -1
        with handle.lock:
            self._pointer = handle.open_watch()
            handle.watches.add(self)
            # Who waits is woken by the end of the writing end.
            self._woken, self._wake = os.pipe()

    def _live(self) -> int:
        self._handle._live()
        if self._pointer is None:
            raise StateError("this watch is closed")
        return self._pointer

    def is_open(self) -> bool:
        """Whether nobody has closed it, or its handle."""
        return self._pointer is not None

    def fileno(self) -> int:
        """The descriptor to poll."""
        self._live()
        with self._handle.lock:
            return int(_watch_fd(self._live()))

    def descriptors(self) -> Tuple[int, int]:
        """Two to poll, which stay the caller's: that one, and one that ends with the watch."""
        self._live()
        with self._handle.lock:
            watched = os.dup(self.fileno())
            try:
                return watched, os.dup(self._woken)
            except BaseException:
                os.close(watched)
                raise

    def process(self) -> bool:
        """Whether the handle was loaded anew."""
        err = ctypes.c_int()
        counts: List[int] = []

        def call(_: int) -> int:
            counts.append(_watch_process(self._live(), None, None, ctypes.byref(err)))
            return err.value

        self._handle.run(call)
        return counts[0] > 0

    def close(self) -> None:
        """Ends the watch; again: nothing."""
        if self._pointer is None:
            return
        with self._handle.lock:
            pointer, self._pointer = self._pointer, None
            if pointer is not None:
                self._handle.close_watch(pointer)
            self._close_pipe()

    def _close_pipe(self) -> None:
        descriptors, self._wake, self._woken = (self._wake, self._woken), -1, -1
        for descriptor in descriptors:
            if descriptor >= 0:
                os.close(descriptor)

    def forget(self) -> None:
        """Lets go of the watch, without a call."""
        self._pointer = None
        self._close_pipe()

    def __reduce__(self) -> Any:
        raise TypeError("a watch can't be copied or pickled")

    def __del__(self, ends: Callable[[], bool] = sys.is_finalizing) -> None:
        # Weak references still lead here: who comes by one meanwhile must find it closed.
        pointer, self._pointer = getattr(self, "_pointer", None), None
        if pointer is not None and not ends() and self._handle.is_of_this_process():
            self._handle.drop_watch(pointer)
            self._close_pipe()
