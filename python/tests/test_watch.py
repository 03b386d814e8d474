"""Watches: what others change is told, to loops and to asyncio."""

import asyncio
import threading
import time
from pathlib import Path

import zbase
from support import FolderTest

CHANGE = ("import zbase\nwith zbase.update('service.conf') as f:\n"
          "    f['log']['level'] = 'debug'\n    f['listener'].add('address', '::1')\n"
          "    del f['log']['keep']\n    f['new'] = {'a': '1'}\n    del f['mail']\n")
WANTED = [
    ("added", "new", None, [], []), ("added", "new", "a", [], ["1"]),
    ("deleted", "log", "keep", ["30"], []), ("deleted", "mail", None, [], []),
    ("deleted", "mail", "server", ["mail.warehouse.example"], []),
    ("deleted", "mail", "to", ["dock@warehouse.example"], []),
    ("modified", "listener", "address", ["127.0.0.1", "10.20.0.15"],
     ["127.0.0.1", "10.20.0.15", "::1"]), ("modified", "log", "level", ["info"], ["debug"]),
]


def plain(changes):
    return sorted(map(tuple, changes), key=lambda change: (*change[:2], change[2] or ""))


class Watching(FolderTest):
    def test_loops_that_a_close_ends(self):
        for source, end in (("service.conf", lambda watch: watch.close()),
                            (zbase.open("service.conf"), lambda watch: watch.config.close())):
            self.setUp()
            watch, seen = zbase.watch(source), []

            def loop():
                seen.extend(watch)
                seen.append("ended")

            thread = threading.Thread(target=loop)
            thread.start()
            self.run_program(CHANGE)
            while len(seen) < len(WANTED):
                time.sleep(0.01)
            self.assertEqual(watch.config["log"]["level"], "debug")
            end(watch)
            thread.join()
            self.assertEqual((plain(seen[:-1]), seen[-1]), (WANTED, "ended"))

    def test_unsaved_changes_and_bad_data(self):
        with zbase.watch("service.conf") as watch:
            watch.config["log"]["level"] = "mine"
            self.run_program(CHANGE)
            self.assertEqual((watch.process(), watch.config["log"]["level"]), ([], "mine"))
        with zbase.watch("service.conf") as watch:
            Path("service.conf").write_bytes(b"[log]\nlevel\n")
            self.assertRaises(zbase.DataError, next, iter(watch))
            self.assertEqual(watch.config["log"]["level"], "debug")
        Path("service.conf").write_bytes(b"[log]\nlevel = 1\n")
        with zbase.watch("service.conf", on_failure=lambda failure: Path(
                "service.conf").write_bytes(b"[log]\nlevel = " + failure.text.encode())) as watch:
            Path("service.conf").write_bytes(b"[log]\nlevel\n")
            self.assertEqual(next(iter(watch)).after, ["bad line: level"])

    def test_asyncio(self):
        async def wait():
            with zbase.watch("service.conf") as watch:
                loop, seen = asyncio.get_running_loop(), asyncio.Queue()
                loop.add_reader(watch.fileno(),
                                lambda: [seen.put_nowait(change) for change in watch.process()])
                await loop.run_in_executor(None, self.run_program, CHANGE)
                changes = [await seen.get() for _ in WANTED]
                loop.remove_reader(watch.fileno())
                return changes

        self.assertEqual(plain(asyncio.run(wait())), WANTED)
