"""The exceptions of the module. All are of the family of Error, and of a standard class besides."""

import errno as _errno
from typing import Any, Optional, Tuple


class Error(Exception):
    """Something that libzbase refused or failed to do.

    number  the library's message number, or the result of the call if there is none
    file    the file that it is about, or None
    line    for bad data the line of the file, from 1; else 0
    text    what failed and why, or the bad line or value
    """

    number: int
    file: Optional[str]
    line: int
    text: str

    def __init__(
        self, text: str, number: int = 0, file: Optional[str] = None, line: int = 0
    ) -> None:
        Exception.__init__(self, text)
        self.text = text
        self.number = number
        self.file = file
        self.line = line

    def __str__(self) -> str:
        if self.file is None:
            return f"line {self.line}: {self.text}" if self.line else self.text
        return f"{self.file}:{self.line}: {self.text}" if self.line else f"{self.file}: {self.text}"

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.text, self.number, self.file, self.line)


class FileError(Error, OSError):
    """A file can't be opened, read, locked or written. `errno` tells why."""

    def __init__(
        self,
        text: str,
        number: int = 0,
        file: Optional[str] = None,
        line: int = 0,
        errno: Optional[int] = None,
    ) -> None:
        OSError.__init__(self, errno, text, file)
        Error.__init__(self, text, number, file, line)

    def __reduce__(self) -> Tuple[Any, ...]:
        return type(self), (self.text, self.number, self.file, self.line, self.errno)


class NotFoundError(FileError, FileNotFoundError):
    """There is no such file."""


class DeniedError(FileError, PermissionError):
    """The file's permissions bar it."""


class LockedError(FileError, TimeoutError):
    """Somebody else held the file's lock all the time that the call would wait."""


class DataError(Error, ValueError):
    """What a file or a text holds is no stanza file, or a value is no number or truth."""


class RefusedError(Error, ValueError):
    """A name, value or comment that a file couldn't give back; nothing was changed."""


class MissingError(Error, KeyError):
    """There is no such stanza or key, or it has no value where one is needed."""


class StateError(Error, RuntimeError):
    """The object can't do this now.

    It is closed; or it was made before a fork, and this is the child; or another thread has an
    update open in it, or this one, which stores it at its end; or it has no file; or this process
    uses the library in another codeset.
    """


def file_error(
    text: str, number: int, file: Optional[str], error: Optional[int]
) -> FileError:
    """The exception of a failed system call."""
    if error in (_errno.EAGAIN, _errno.EACCES) and text.startswith("fcntl()"):
        return LockedError(text, number, file, 0, _errno.ETIMEDOUT)
    kinds = {
        _errno.ENOENT: NotFoundError,
        _errno.EACCES: DeniedError,
        _errno.EPERM: DeniedError,
    }
    kind = FileError if error is None else kinds.get(error, FileError)
    return kind(text, number, file, 0, error)
