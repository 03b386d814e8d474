"""Watch: what other processes, and other objects of this one, change in a file."""

import os
import select
from typing import Callable, Iterator, List, NamedTuple, Optional, Union

from ._config import Config, Path, _split, open as _open
from ._errors import DataError, Error, FileError, StateError
from ._lib import Tables, WatchHandle


class Change(NamedTuple):
    """One difference between what a file was and what it is.

    kind     "added", "deleted" or "modified"
    section  the stanza
    option   the key, or None where a stanza came or went
    before   the values that the key had, none for a new one
    after    the values that it has, none for one that is gone
    """

    kind: str
    section: str
    option: Optional[str]
    before: List[str]
    after: List[str]


def _differences(before: Tables, after: Tables) -> Iterator[Change]:
    for section in {**after.names, **before.names}:
        if section not in before.names:
            yield Change("added", section, None, [], [])
        old = before[section] if section in before.names else {}
        new = after[section] if section in after.names else {}
        for option in {**new, **old}:
            was, now = old.get(option), new.get(option)
            if was != now:
                kind = "added" if was is None else "deleted" if now is None else "modified"
                yield Change(kind, section, option, _split(was or ""), _split(now or ""))
        if section not in after.names:
            yield Change("deleted", section, None, [], [])


class Watch:
    """A watch on a file: see watch(). `config` is what the file holds, kept up to date."""

    def __init__(
        self,
        source: Union[Config, Path],
        on_failure: Optional[Callable[[Error], object]] = None,
    ) -> None:
        self._on_failure = on_failure
        self._owns = not isinstance(source, Config)
        self.config = source if isinstance(source, Config) else _open(source)
        if self.config.path is None:
            raise StateError("this object has no file to watch", 22)
        self._handle = WatchHandle(self.config._handle)

    def fileno(self) -> int:
        """A descriptor that is readable when process() has something to do."""
        return self._handle.fileno()

    def process(self) -> List[Change]:
        """Looks, without waiting, whether the file has changed; if so, config shows it.

        Nothing is seen, and the next call looks again, while config has unsaved changes or a
        writer holds the file. DataError, FileError: config is what it was then.
        """
        handle = self.config._handle
        handle.entries()
        with handle.lock:
            before = self.config._data()
            if not self._handle.process():
                return []
            handle.tables = None
            return list(_differences(before, self.config._data()))

    def __iter__(self) -> Iterator[Change]:
        """Waits for changes, for ever: until close(), an interrupt, or an error of process().

        With on_failure, DataError and FileError end no loop.
        """
        ready = select.poll()
        descriptors = self._handle.descriptors()
        try:
            for descriptor in descriptors:
                ready.register(descriptor, select.POLLIN)
            while self._handle.is_open():
                yield from self._looked()
                ready.poll()
        finally:
            for descriptor in descriptors:
                os.close(descriptor)

    def _looked(self) -> List[Change]:
        try:
            return self.process()
        except (DataError, FileError) as failure:
            if self._on_failure is None:
                raise
            self._on_failure(failure)
            return []

    def close(self) -> None:
        """Ends the watch, in any thread; a loop over it ends too, as when its Config is closed.

        Again: nothing.
        """
        self._handle.close()
        if self._owns:
            self.config.close()

    def __enter__(self) -> "Watch":
        return self

    def __exit__(self, *failure: object) -> None:
        self.close()


def watch(
    source: Union[Config, Path], *, on_failure: Optional[Callable[[Error], object]] = None
) -> Watch:
    """Tells what others change in a file, or in the file of a Config, which is kept up to date:

        for change in zbase.watch("service.conf"):
            print(change.kind, change.section, change.option, change.after)

    For a loop of your own it has a descriptor, fileno(), and process(): give it to a selector, or
    to asyncio as loop.add_reader(watch.fileno(), on_change).

    The file may be rewritten or replaced, as editors do. Where one writes in place, the loop may
    find a line that is half written, and ends with its DataError. With `on_failure` it calls that
    with each DataError and FileError, in the thread of the loop, and goes on: config is what it
    was, and the next change of the file is looked at again.

    StateError for a Config without a file, FileError without descriptors.
    """
    return Watch(source, on_failure)
