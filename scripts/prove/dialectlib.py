"""The library's C interface, as far as scripts/prove-dialects calls it."""
import ctypes
import os

HERE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BUILD = os.environ.get("ZBASE_BUILD", os.path.join(HERE, "build/64"))
STRICT = 2  # ZPCACHE_STRICT
SWITCHES = ("comments", "divider", "tails", "bare", "continued", "quotes", "repeated", "names",
            "headers", "orphans", "values", "lines")


class Dialect(ctypes.Structure):
    _fields_ = [("size", ctypes.c_size_t), *((name, ctypes.c_uint) for name in SWITCHES)]


class LastError(ctypes.Structure):
    _fields_ = [("number", ctypes.c_int), ("file", ctypes.c_char_p), ("line", ctypes.c_int),
                ("text", ctypes.c_char_p)]


_int, _text, _handle, _size = ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p, ctypes.c_size_t
_out, _dialect = ctypes.POINTER(ctypes.c_void_p), ctypes.POINTER(Dialect)
_library = ctypes.CDLL(os.path.join(BUILD, "libzbase.so"))


def _function(name, result, *arguments):
    function = getattr(_library, "zstz%s_6_0" % name)
    function.restype, function.argtypes = result, arguments
    return function


_free = _function("PropFree", None, ctypes.c_void_p)
_close = _function("PropClose", None, _handle)
_last_error = _function("PropLastError", _int, ctypes.POINTER(LastError))
_get_dialect = _function("Dialect_get", _int, _text, _dialect)
_of_file = _function("Dialect_ofFile", _int, _text, _out, _out)
_clash = _function("Dialect_clash", None, _dialect, ctypes.POINTER(_text), ctypes.POINTER(_text))
_open = _function("PropOpenDialect", _int, _out, _text, _int, _dialect, ctypes.c_ulong, _int,
                  ctypes.c_ulong)
_open_bytes = _function("PropOpenDialectBytes", _int, _out, _text, _size, _dialect, ctypes.c_ulong)
_store = _function("PropStore", _int, _handle, _text)
_store_bytes = _function("PropStoreBytes", _int, _handle, _out, ctypes.POINTER(_size))
_entries = _function("PropGetEntries", _int, _handle, _out, ctypes.POINTER(_size))
_is_bare = _function("PropIsBare", _int, _handle, _text, _text, ctypes.POINTER(_int))
_changes = {name: _function("Prop" + name, _int, _handle, *[_text] * count) for name, count in (
    ("SetStringValue", 3), ("AddStringValue", 3), ("RemoveKey", 2), ("RemoveStanza", 1),
    ("SetBare", 2), ("AddFileComment", 1), ("AddStanzaComment", 2), ("AddLineComment", 3),
    ("RemoveComments", 2))}

# Presets are those of the tree, whatever the machine has.
os.environ.update(XDG_DATA_DIRS=os.path.join(HERE, "share"), XDG_CONFIG_HOME="/nonexistent")
# By putenv, so that the library sees it.
if _function("PropSetup", _int, _int)(1) != 0:
    raise OSError("text can't be set up")


class Refused(Exception):
    """What a call has met: its result, the line (0: none) and the text."""

    def __init__(self, result):
        last = LastError()
        _last_error(ctypes.byref(last))
        self.result, self.line, self.text = result, last.line, last.text or b""
        super().__init__("%d, line %d: %s" % (
            result, last.line, self.text.decode("utf-8", "backslashreplace")))


def _check(result):
    if result != 0:
        raise Refused(result)


def _taken(block, length=None):
    """The bytes of a block that is ours to free."""
    taken = ctypes.string_at(block) if length is None else ctypes.string_at(block, length.value)
    _free(block)
    return taken


def preset(name):
    dialect = Dialect()
    _check(_get_dialect(name.encode(), ctypes.byref(dialect)))
    return dialect


def any_dialect(dice):
    """One whose switches are random and can go together."""
    most = {"comments": 3, "divider": 3, "tails": 3, "bare": 1, "continued": 3, "quotes": 2,
            "repeated": 2, "names": 4, "headers": 3, "orphans": 1, "values": 2, "lines": 1}
    first, second = ctypes.c_char_p(), ctypes.c_char_p()
    while True:
        dialect = Dialect(ctypes.sizeof(Dialect), *(dice.randint(0, most[name])
                                                    for name in SWITCHES))
        _clash(ctypes.byref(dialect), ctypes.byref(first), ctypes.byref(second))
        if first.value is None:
            return dialect


def preset_of(path):
    """The name of the preset whose patterns the path fits, or None."""
    name, pattern = ctypes.c_void_p(), ctypes.c_void_p()
    _check(_of_file(os.fsencode(path), ctypes.byref(name), ctypes.byref(pattern)))
    _free(pattern)
    return _taken(name).decode() if name.value else None


class Opened:
    """A text in a dialect, null for the library's own: bytes, or the file at a path. To be used in
    a `with`."""

    def __init__(self, dialect, text=b"", path=None):
        self._handle = ctypes.c_void_p()
        handle = ctypes.byref(self._handle)
        dialect = None if dialect is None else ctypes.byref(dialect)
        if path is None:
            _check(_open_bytes(handle, text, len(text), dialect, STRICT))
        else:
            _check(_open(handle, os.fsencode(path), 2, dialect, STRICT, 1, 10000))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        _close(self._handle)

    def change(self, name, *arguments):
        _check(_changes[name](self._handle, *arguments))

    def store(self):
        _check(_store(self._handle, None))

    def text(self):
        """What a store would write."""
        block, length = ctypes.c_void_p(), ctypes.c_size_t()
        _check(_store_bytes(self._handle, ctypes.byref(block), ctypes.byref(length)))
        return _taken(block, length)

    def content(self):
        """{stanza: {key: [value, ...]}} in the order of the file; None for the values of a key
        that stands there alone."""
        block, length = ctypes.c_void_p(), ctypes.c_size_t()
        _check(_entries(self._handle, ctypes.byref(block), ctypes.byref(length)))
        content, keys, values = {}, None, None
        stanza = None
        for part in _taken(block, length).split(b"\0")[:-1]:
            kind, text = part[:1], part[1:]
            if kind == b"[":
                stanza, keys = text, content.setdefault(text, {})
            elif kind == b".":
                values = keys[text] = []
                if self.is_bare(stanza, text):
                    values = keys[text] = None
            else:
                values.append(text)
        return content

    def is_bare(self, stanza, key):
        error = ctypes.c_int()
        return _is_bare(self._handle, stanza, key, ctypes.byref(error)) != 0
