"""Updates: locks, waits, threads, forks, and objects that are used when they can't be."""

import ctypes
import errno
import gc
import math
import os
import signal
import subprocess
import sys
import threading
import traceback
from concurrent.futures import ThreadPoolExecutor
from unittest import mock
from pathlib import Path

import zbase
from support import FolderTest

# All that objects can be asked for.
CALLS = ("c['log']", "c.get('log', 'level')", "len(c)", "list(c)", "c.set('log', 'level', 'x')",
         "c.add_section('new')", "c.clear()", "c.remove_section('log')", "c.comments()",
         "c.add_comment('#')", "c.remove_comments()", "c.dumps()", "c.store()", "c.store('other')",
         "c.modified", "c.read_string('[a]')", "zbase.watch(c)", "len(s)", "list(s)", "s.clear()",
         "s['level']", "s.getint('keep')", "s.getall('level')", "s.add('level', 'x')",
         "s.setall('level', 'x')", "s.pop('level')", "s.comments()", "s.hidden('level')")
WATCH_CALLS = ("w.process()", "w.fileno()", "next(iter(w))")
# It tells when a first attempt to get a lock has ended.
WAITER = ("import zbase\nattempt = zbase._lib._open_with\ndef tell(*arguments):\n"
          "    result = attempt(*arguments)\n    print('waits', flush=True)\n    return result\n"
          "zbase._lib._open_with = tell\n")


class Updates(FolderTest):
    def refused(self, conf, watch=None):
        """Nothing can be done with these."""
        names = {"zbase": zbase, "c": conf, "s": zbase.Section(conf, "log"), "w": watch}
        for call in CALLS + (WATCH_CALLS if watch else ()):
            with self.assertRaises(zbase.StateError, msg=call):
                eval(call, names)

    def in_thread(self, work):
        with ThreadPoolExecutor(1) as pool:
            return pool.submit(work).result()

    def in_child(self, work):
        child = os.fork()
        if child == 0:
            try:
                work()
                os._exit(0)
            except BaseException:
                traceback.print_exc()
                os._exit(1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)

    def can_be_updated(self, level="info"):
        with zbase.update("service.conf", wait=0) as f:
            self.assertEqual(f["log"]["level"], level)

    def test_many_processes_lose_nothing(self):
        program = ("import zbase\nfor _ in range(25):\n"
                   "    with zbase.update('count.conf', create=True, wait=None) as f:\n"
                   "        if 's' not in f: f.add_section('s')\n"
                   "        f['s']['n'] = str(f['s'].getint('n', 0) + 1)\n")
        processes = [subprocess.Popen([sys.executable, "-c", program]) for _ in range(4)]
        self.assertEqual([process.wait() for process in processes], [0] * 4)
        self.assertEqual(zbase.open("count.conf")["s"].getint("n"), 100)

    def test_what_fails_is_taken_back(self):
        with self.assertRaises(ZeroDivisionError), zbase.update("service.conf") as f:
            f["log"]["level"] = "x"
            f.store("copy.conf")
            for path in (None, "service.conf", "./service.conf"):
                self.assertRaises(zbase.StateError, f.store, path)
            raise ZeroDivisionError
        self.refused(f)
        self.can_be_updated()
        with self.assertRaises(zbase.FileError) as caught, zbase.update("service.conf") as f:
            f["log"]["level"] = "x"
            Path("new.conf").write_bytes(b"[log]\nlevel = editor\n")
            os.rename("new.conf", "service.conf")
        self.assertEqual(caught.exception.errno, errno.ESTALE)
        self.can_be_updated("editor")

    def test_a_file_that_an_update_made_goes_with_it(self):
        update = zbase.update("new.conf", create=True)
        update.__enter__()
        self.in_child(lambda: update.__exit__(OSError, None, None))
        self.assertTrue(os.path.exists("new.conf"))
        waiter = self.start(WAITER + "with zbase.update('new.conf', create=True, wait=None): pass")
        update.__exit__(OSError, None, None)
        self.assertEqual(waiter.wait(), 0)
        for options in ({}, {"wait": math.nan}, {"mode": "odd"}):
            with self.assertRaises(ValueError), zbase.update("x", create=True, **options):
                raise ValueError
        self.assertEqual(sorted(os.listdir()), ["new.conf", "service.conf"])

    def test_locks_and_interrupts(self):
        conf = zbase.open("service.conf")
        handle = zbase._lib.Handle.open(b"service.conf", "safe", 0)
        holder = self.hold_lock()
        for call in (lambda: handle.begin(0.15), zbase.update("service.conf", wait=0).__enter__,
                     lambda: conf.store(wait=0)):
            with self.assertRaises(zbase.LockedError) as caught:
                call()
            self.assertIsInstance(caught.exception, TimeoutError)
            self.assertEqual(caught.exception.errno, errno.ETIMEDOUT)
        waiter = self.start(WAITER + "try: zbase.update('service.conf', wait=None).__enter__()\n"
                            "except KeyboardInterrupt: raise SystemExit(5)\n")
        waiter.send_signal(signal.SIGINT)
        self.assertEqual(waiter.wait(), 5)
        # This wait ends by what another thread of this process does.
        releaser = threading.Thread(target=lambda: holder.communicate("\n"))
        releaser.start()
        with zbase.update("service.conf", wait=None) as f:
            self.assertEqual(f["log"]["level"], "held")
        releaser.join()
        handle.begin(0)

    def test_an_interrupt_behind_a_call(self):
        def interrupted(name):
            def call_and_raise(*arguments):
                call(*arguments)
                raise KeyboardInterrupt

            call = getattr(zbase._lib, name)
            return mock.patch.object(zbase._lib, name, call_and_raise)

        conf = zbase.open("service.conf")
        dict(conf["log"])
        with interrupted("set_value"):
            self.assertRaises(KeyboardInterrupt, conf.set, "log", "level", "x")
        self.assertEqual(conf["log"]["level"], "x")
        with interrupted("_begin"):
            self.assertRaises(KeyboardInterrupt, zbase.update("service.conf").__enter__)
        self.can_be_updated()

    def test_threads(self):
        with zbase.update("service.conf") as f:
            self.in_thread(lambda: self.refused(f))
            self.in_thread(lambda: self.assertRaises(zbase.StateError, f.close))
        # Without an update they share an object.
        conf = zbase.open("service.conf")

        def count(name):
            for number in range(200):
                conf["log"][name] = str(number)

        with ThreadPoolExecutor(4) as pool:
            list(pool.map(count, "abcd"))
        self.assertEqual([conf["log"][name] for name in "abcd"], ["199"] * 4)
        self.assertEqual(zbase.loads(conf.dumps()), conf)

    def test_updates_that_nobody_ends(self):
        self.refused(self.in_thread(zbase.update("service.conf").__enter__))
        # What another thread drops ends with the thread that began it.
        with ThreadPoolExecutor(1) as pool:
            kept = [pool.submit(zbase.update("service.conf", wait=0).__enter__).result()]
            kept.clear()
            gc.collect()
        self.can_be_updated()

    def test_a_watch_that_nobody_has_is_closed_once(self):
        def close_both(pointer):
            closed.append(pointer)
            close(pointer)
            conf.close()

        conf, closed, close = zbase.open("service.conf"), [], zbase._lib._watch_close
        with mock.patch.object(zbase._lib, "_watch_close", close_both):
            zbase.watch(conf)
        self.assertEqual(len(closed), 1)

    def test_forked_children(self):
        conf, watch = zbase.open("service.conf"), zbase.watch("service.conf")

        def in_child():
            self.refused(conf, watch)
            self.refused(f)
            self.assertRaises(zbase.LockedError, zbase.update("service.conf", wait=0).__enter__)
            for thing in (conf, f, watch):
                thing.close()
            with zbase.update("other.conf") as mine:
                mine["a"]["b"] = str(mine["a"].getint("b") + 1)

        Path("other.conf").write_bytes(b"[a]\nb = 1\n")
        with zbase.update("service.conf") as f:
            self.in_child(in_child)
            self.in_thread(lambda: self.in_child(in_child))
            f["log"]["level"] = "parent"
        self.can_be_updated("parent")
        self.assertEqual(zbase.open("other.conf")["a"]["b"], "3")

    def test_after_close_and_at_exit(self):
        conf = zbase.open("service.conf")
        watch = zbase.watch(conf)
        conf.close()
        conf.close()
        self.refused(conf, watch)
        # In finalisers, some of them after modules have gone, and with a thread in a call.
        self.run_program(
            "import threading, zbase\n"
            "class Last:\n    def __init__(self, conf): self.conf, self.zbase = conf, zbase\n"
            "    def __del__(self):\n"
            "        for call in (lambda: self.conf['log']['level'], self.conf.dumps,\n"
            "                     lambda: self.conf.set('log', 'level', 'x'), self.conf.close,\n"
            "                     lambda: self.zbase.open('service.conf')):\n"
            "            try: call()\n            except self.zbase.StateError: pass\n"
            "conf = zbase.open('service.conf')\n"
            "closed = zbase.open('service.conf'); closed.close()\n"
            "cycle = [Last(conf), Last(closed), zbase.watch('service.conf')]\n"
            "cycle.append(cycle); zbase.last = Last(zbase.open('service.conf'))\n"
            "entered = zbase.update('service.conf'); f = entered.__enter__()\n"
            "threading.Thread(target=zbase.update('service.conf', wait=None).__enter__,\n"
            "                 daemon=True).start()\n")
        self.can_be_updated()

    def test_nothing_is_left_behind(self):
        libc = ctypes.CDLL(None)
        if not hasattr(libc, "mallinfo2"):
            self.skipTest("needs mallinfo2")
        libc.mallinfo2.restype = type("Mallinfo", (ctypes.Structure,), {
            "_fields_": [(f"field{number}", ctypes.c_size_t) for number in range(10)]})
        Path("bad.conf").write_bytes(b"[a]\nbad\n")

        def work():
            conf = zbase.open("service.conf")
            list(conf["log"].items())
            for _ in range(20):
                conf.comments()
            watch = zbase.watch(conf)
            watch.process()
            for wrong in (lambda: zbase.open("bad.conf"), lambda: zbase.loads("["),
                          lambda: conf["log"].add("level", "\n"), lambda: zbase.open("none"),
                          lambda: zbase.watch(zbase.loads(""))):
                self.assertRaises(zbase.Error, wrong)
            zbase.update("service.conf").__enter__().close()
            zbase.update("service.conf").__enter__()
            conf.close()

        def left():
            gc.collect()
            info = libc.mallinfo2()  # hblkhd and uordblks: bytes in use
            return len(os.listdir("/proc/self/fd")), info.field4 + info.field7

        for _ in range(10):
            work()
        descriptors, before = left()
        for _ in range(100):
            work()
        self.assertEqual(left()[0], descriptors)
        # A handle alone would be a kilobyte, a hundred times.
        self.assertLess(left()[1] - before, 50_000)
