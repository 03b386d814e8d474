r"""Stanza files, the configuration that programs and people edit together, by libzbase.

Reading:

    >>> import zbase
    >>> conf = zbase.loads('''
    ... # Where clients connect.
    ... [listener]
    ... address = 127.0.0.1
    ... address = 10.20.0.15
    ... port = 8631
    ... ''')
    >>> conf["listener"].getint("port", fallback=80)
    8631
    >>> conf["listener"].getall("address")
    ['127.0.0.1', '10.20.0.15']
    >>> conf["listener"]["address"]
    '10.20.0.15'

Changing keeps comments, blank lines and the order of all else:

    >>> conf["listener"].add("address", "::1")
    >>> conf["log"] = {"level": "debug"}
    >>> print(conf.dumps(), end="")
    <BLANKLINE>
    # Where clients connect.
    [listener]
    address = 127.0.0.1
    address = 10.20.0.15
    address = ::1
    port = 8631
    <BLANKLINE>
    [log]
    level = debug

What a file couldn't give back is refused:

    >>> conf["log"]["level"] = "debug\n[listener]"
    Traceback (most recent call last):
    ...
    zbase.RefusedError: a value can't hold a line end

A file that others change too is changed in an update, which locks it, reads it anew and stores it,
or takes all back after an exception; and watch() tells what others change:

    with zbase.update("service.conf", wait=10) as f:
        f["log"]["level"] = "debug"

    for change in zbase.watch("service.conf"):
        print(change.kind, change.section, change.option)

Files of other programs are read and changed in their dialects, which are presets by name, see
dialects(), or switches of your own:

    >>> text = "[Service]\n; the daemon\nExecStart=/bin/d \\\n -v\n"
    >>> unit = zbase.loads(text, dialect="systemd")
    >>> unit["Service"]["ExecStart"]
    '/bin/d   -v'
    >>> mine = zbase.Dialect(comments=("semicolon",), divider="either", bare=True)
    >>> conf = zbase.loads("[net]\nport: 80 ; not a comment\nfast\n", dialect=mine)
    >>> conf["net"]["port"], conf["net"].is_bare("fast")
    ('80 ; not a comment', True)
    >>> conf["net"]["slow"] = None
    >>> print(conf.dumps(), end="")
    [net]
    port: 80 ; not a comment
    fast
    slow

Text is UTF-8; bytes that aren't come and go as surrogate escapes, and those that are UTF-8 together
as the character that they make, under which alone a name is found. The process's locale,
environment and signals are left alone. Objects belong to the process that made them: in a forked
child they raise StateError.
"""

from ._config import Config, Section, Update, dumps, loads, open, update
from ._dialect import Dialect, dialect_of, dialects
from ._errors import (
    DataError,
    DeniedError,
    Error,
    FileError,
    LockedError,
    MissingError,
    NotFoundError,
    RefusedError,
    StateError,
)
from ._watch import Change, Watch, watch

__version__ = "6.0"

__all__ = [
    "Change",
    "Config",
    "DataError",
    "DeniedError",
    "Dialect",
    "Error",
    "FileError",
    "LockedError",
    "MissingError",
    "NotFoundError",
    "RefusedError",
    "Section",
    "StateError",
    "Update",
    "Watch",
    "dialect_of",
    "dialects",
    "dumps",
    "loads",
    "open",
    "update",
    "watch",
]

for _name in __all__:
    # Where they stand is no business of those who read a traceback.
    if isinstance(globals()[_name], type):
        globals()[_name].__module__ = __name__
del _name
