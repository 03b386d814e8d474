"""Watches: what others change is told, to loops, selectors and asyncio."""

import asyncio
import os
import selectors
import subprocess
import sys
import threading
import time
import unittest

import zbase
from support import FolderTest

CHANGE = ("import zbase\n"
          "with zbase.update('service.conf') as f:\n"
          "    f['log']['level'] = 'debug'\n"
          "    f['listener'].add('address', '::1')\n"
          "    del f['log']['keep'], f['mail']\n"
          "    f['new'] = {'a': '1'}\n")
WANTED = {
    ("modified", "log", "level", ("info",), ("debug",)),
    ("deleted", "log", "keep", ("30",), ()),
    ("modified", "listener", "address", ("127.0.0.1", "10.20.0.15"),
     ("127.0.0.1", "10.20.0.15", "::1")),
    ("deleted", "mail", "to", ("dock@warehouse.example",), ()),
    ("deleted", "mail", "server", ("mail.warehouse.example",), ()),
    ("deleted", "mail", None, (), ()),
    ("added", "new", None, (), ()),
    ("added", "new", "a", (), ("1",)),
}


def plain(changes):
    return {(c.kind, c.section, c.option, tuple(c.before), tuple(c.after)) for c in changes}


class Watching(FolderTest):
    def change(self):
        subprocess.run([sys.executable, "-c", CHANGE], check=True)

    def test_a_loop(self):
        with zbase.watch("service.conf") as watch:
            self.assertEqual(watch.process(), [])
            threading.Thread(target=self.change).start()
            seen = []
            for change in watch:
                seen.append(change)
                if len(seen) == len(WANTED):
                    break
            self.assertEqual(plain(seen), WANTED)
            self.assertEqual(watch.config["log"]["level"], "debug")
            os.remove("service.conf")
            self.write("service.conf", b"[log]\nlevel\n")
            with self.assertRaises(zbase.DataError):
                for change in watch:
                    self.fail(change)
            self.assertEqual(watch.config["log"]["level"], "debug")

    def test_selectors_and_unsaved_changes(self):
        conf = zbase.open("service.conf")
        with selectors.DefaultSelector() as selector, zbase.watch(conf) as watch:
            selector.register(watch, selectors.EVENT_READ)
            self.change()
            conf["log"]["level"] = "mine"
            selector.select()
            self.assertEqual(watch.process(), [])
            self.assertEqual(conf["log"]["level"], "mine")

    def test_asyncio(self):
        async def wait():
            with zbase.watch("service.conf") as watch:
                loop, done = asyncio.get_running_loop(), asyncio.Event()
                seen = []

                def changed():
                    seen.extend(watch.process())
                    if seen:
                        done.set()

                loop.add_reader(watch.fileno(), changed)
                await loop.run_in_executor(None, self.change)
                await done.wait()
                loop.remove_reader(watch.fileno())
                return seen

        self.assertEqual(plain(asyncio.run(wait())), WANTED)

    def test_a_close_ends_a_loop_in_another_thread(self):
        for source, end in (("service.conf", lambda watch: watch.close()),
                            (zbase.open("service.conf"), lambda watch: watch.config.close())):
            self.setUp()
            self.loop_until(zbase.watch(source), end)

    def loop_until(self, watch, end):
        begun, seen = threading.Event(), []

        def loop():
            changes = iter(watch)
            begun.set()
            seen.extend(changes)
            seen.append("ended")

        thread = threading.Thread(target=loop)
        thread.start()
        begun.wait()
        self.change()
        while len(seen) < len(WANTED):
            time.sleep(0.01)
        end(watch)
        thread.join()
        self.assertEqual((plain(seen[:-1]), seen[-1]), (WANTED, "ended"))


if __name__ == "__main__":
    unittest.main()
