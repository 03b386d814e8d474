"""Updates: locks, waits, threads, forks, and objects that are used when they can't be."""

import ctypes
import errno
import gc
import os
import signal
import subprocess
import sys
import threading
import unittest
from concurrent.futures import ThreadPoolExecutor
from unittest import mock

import zbase
from support import FolderTest

# All that an object can be asked for.
CALLS = [
    lambda c: c["log"], lambda c: c.get("log", "level"), lambda c: c.getint("log", "keep"),
    len, list, lambda c: "log" in c, lambda c: c.items("log"), lambda c: c.options("log"),
    lambda c: c.set("log", "level", "x"), lambda c: c.add_section("new"),
    lambda c: c.remove_section("log"), lambda c: c.comments(), lambda c: c.add_comment("#"),
    lambda c: c.remove_comments(), lambda c: c.dumps(), lambda c: c.store(),
    lambda c: c.store("other"), lambda c: c.read_string("[a]\nb=1\n"), lambda c: c.modified,
    lambda c: c.clear(), lambda c: zbase.watch(c), lambda c: c.__setitem__("n", {"a": "1"}),
]
SECTION_CALLS = [
    lambda s: s["level"], lambda s: s.get("level"), lambda s: s.getfloat("keep"), len, list,
    lambda s: s.getall("level"), lambda s: s.__setitem__("level", "x"), lambda s: s.comments(),
    lambda s: s.add("level", "x"), lambda s: s.setall("level", ["x"]), lambda s: s.add_comment("#"),
    lambda s: s.__delitem__("level"), lambda s: s.remove_comments("level"), lambda s: s.clear(),
    lambda s: s.hidden("level"), lambda s: "level" in s,
]


class Updates(FolderTest):
    def refused(self, conf, section):
        """Nothing can be done with these, and nothing was."""
        for calls, target in ((CALLS, conf), (SECTION_CALLS, section)):
            for number, call in enumerate(calls):
                with self.subTest(number, of=type(target).__name__):
                    self.assertRaises(zbase.StateError, call, target)

    def in_thread(self, work):
        """Does it in another thread, and raises what it raises."""
        with ThreadPoolExecutor(1) as pool:
            pool.submit(work).result()

    def in_child(self, work):
        """Does it in a forked child, which gives 0 if it comes to the end."""
        child = os.fork()
        if child == 0:
            try:
                work()
                os._exit(0)
            except BaseException as failure:
                print(repr(failure), file=sys.stderr, flush=True)
                os._exit(1)
        self.assertEqual(os.waitpid(child, 0)[1], 0)

    def test_many_processes_lose_nothing(self):
        program = ("import zbase\n"
                   "for _ in range(25):\n"
                   "    with zbase.update('count.conf', create=True, wait=None) as f:\n"
                   "        if 's' not in f: f.add_section('s')\n"
                   "        f['s']['n'] = str(f['s'].getint('n', 0) + 1)\n")
        processes = [subprocess.Popen([sys.executable, "-c", program]) for _ in range(4)]
        self.assertEqual([process.wait() for process in processes], [0] * 4)
        self.assertEqual(zbase.open("count.conf")["s"].getint("n"), 100)

    def test_what_fails_is_taken_back(self):
        before = self.read("service.conf")
        with self.assertRaises(ZeroDivisionError), zbase.update("service.conf") as f:
            f["log"]["level"] = "x"
            raise ZeroDivisionError
        self.assertEqual(self.read("service.conf"), before)
        with self.assertRaises(zbase.FileError) as caught:
            with zbase.update("service.conf") as f:
                f["log"]["level"] = "x"
                self.write("new.conf", b"[editor]\n")
                os.rename("new.conf", "service.conf")
        self.assertEqual(caught.exception.errno, errno.ESTALE)
        self.assertEqual(self.read("service.conf"), b"[editor]\n")
        with zbase.update("service.conf", wait=0) as f:
            self.assertEqual(f.sections(), ["editor"])
        self.refused(f, zbase.Section(f, "editor"))
        self.assertRaises(FileNotFoundError, zbase.update("none.conf").__enter__)
        self.assertFalse(os.path.exists("none.conf"))

    def test_locks(self):
        conf = zbase.open("service.conf")
        conf["log"]["level"] = "mine"
        handle = zbase._lib.Handle.open(b"service.conf", "safe", 0)
        holder = self.hold_lock()
        for call in (lambda: handle.begin(0.15), zbase.update("service.conf", wait=0).__enter__,
                     lambda: conf.store(wait=0),
                     lambda: zbase.open("service.conf", wait=0.05)):
            with self.assertRaises(zbase.LockedError) as caught:
                call()
            self.assertIsInstance(caught.exception, TimeoutError)
            self.assertEqual(caught.exception.errno, errno.ETIMEDOUT)
        # The wait ends by what another thread of this process does.
        releaser = threading.Thread(target=lambda: holder.communicate("\n"))
        releaser.start()
        with zbase.update("service.conf", wait=None) as f:
            self.assertEqual(f["log"]["level"], "held")
        handle.begin(0)
        handle.close()
        releaser.join()

    def test_an_interrupt_ends_the_wait(self):
        holder = self.hold_lock()
        waiter = self.start("import zbase\n"
                            "attempt = zbase._lib._open_with\n"
                            "def tell(*arguments):\n"
                            "    print('waits', flush=True)\n"
                            "    return attempt(*arguments)\n"
                            "zbase._lib._open_with = tell\n"
                            "try:\n"
                            "    zbase.update('service.conf', wait=None).__enter__()\n"
                            "except KeyboardInterrupt:\n"
                            "    print('interrupted', zbase.loads('[a]\\n').sections())\n")
        self.assertEqual(waiter.stdout.readline(), "waits\n")
        waiter.send_signal(signal.SIGINT)
        said, complaints = waiter.communicate()
        self.assertEqual((said.replace("waits\n", ""), complaints), ("interrupted ['a']\n", ""))
        holder.communicate("\n")

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
        with zbase.update("service.conf", wait=0) as f:
            self.assertEqual(f["log"]["level"], "info")

    def test_other_threads(self):
        with zbase.update("service.conf") as f:
            section = f["log"]
            self.in_thread(lambda: self.refused(f, section))
            self.in_thread(lambda: self.assertRaises(zbase.StateError, f.close))
            section["level"] = "mine"
        self.assertEqual(zbase.open("service.conf")["log"]["level"], "mine")
        # Without an update they share an object.
        conf = zbase.open("service.conf")
        threads = [threading.Thread(target=lambda n=n: [conf["log"].__setitem__(f"k{n}", str(i))
                                                        for i in range(200)]) for n in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([conf["log"][f"k{n}"] for n in range(4)], ["199"] * 4)
        self.assertEqual(dict(zbase.loads(conf.dumps())["log"]), dict(conf["log"]))

    def test_updates_that_nobody_ends(self):
        kept = []

        def begin_and_end_the_thread():
            kept.append(zbase.update("service.conf", wait=0).__enter__())
            kept[-1]["log"]["level"] = "x"

        self.in_thread(begin_and_end_the_thread)
        self.refused(kept[0], zbase.Section(kept[0], "log"))
        # What another thread drops ends with the thread that began it.
        ready, dropped = threading.Event(), threading.Event()

        def begin_and_wait():
            kept[:] = [zbase.update("service.conf", wait=0).__enter__()]
            ready.set()
            dropped.wait()

        thread = threading.Thread(target=begin_and_wait)
        thread.start()
        ready.wait()
        kept.clear()
        dropped.set()
        thread.join()
        zbase.update("service.conf", wait=0).__enter__().close()
        with zbase.update("service.conf", wait=0) as f:
            self.assertEqual(f["log"]["level"], "info")

    def test_forked_children(self):
        conf, watch = zbase.open("service.conf"), zbase.watch("service.conf")
        section = conf["log"]

        def in_child():
            for call in CALLS:
                self.assertRaises(zbase.StateError, call, conf)
                self.assertRaises(zbase.StateError, call, f)
            for call in SECTION_CALLS:
                self.assertRaises(zbase.StateError, call, section)
            for call in (watch.process, watch.fileno, lambda: next(iter(watch))):
                self.assertRaises(zbase.StateError, call)
            self.assertRaises(zbase.LockedError, zbase.update("service.conf", wait=0).__enter__)
            for thing in (conf, f, watch):
                thing.close()
            with zbase.update("other.conf") as mine:
                mine["a"]["b"] = str(mine["a"].getint("b") + 1)

        self.write("other.conf", b"[a]\nb = 1\n")
        with zbase.update("service.conf") as f:
            self.in_child(in_child)
            # A child that another thread has forked.
            self.in_thread(lambda: self.in_child(in_child))
            f["log"]["level"] = "parent"
        self.assertEqual(zbase.open("service.conf")["log"]["level"], "parent")
        self.assertEqual(zbase.open("other.conf")["a"]["b"], "3")

    def test_after_close_and_at_exit(self):
        conf = zbase.open("service.conf")
        section, watch = conf["log"], zbase.watch(conf)
        conf.close()
        conf.close()
        self.refused(conf, section)
        for call in (watch.process, watch.fileno, lambda: next(iter(watch))):
            self.assertRaises(zbase.StateError, call)
        watch.close()
        # In finalisers, some of them after modules have gone, and with a thread in a call.
        self.run_program(
            "import threading, zbase\n"
            "class Last:\n"
            "    def __init__(self, conf): self.conf, self.zbase = conf, zbase\n"
            "    def __del__(self):\n"
            "        for call in (lambda: self.conf['log']['level'], self.conf.dumps,\n"
            "                     lambda: self.conf['log'].__setitem__('level', 'x'),\n"
            "                     lambda: self.zbase.open('service.conf'), self.conf.close):\n"
            "            try: call()\n"
            "            except self.zbase.StateError: pass\n"
            "conf = zbase.open('service.conf')\n"
            "closed = zbase.open('service.conf'); closed.close()\n"
            "cycle = [Last(conf), Last(closed), zbase.watch('service.conf')]\n"
            "cycle.append(cycle); zbase.last = Last(zbase.open('service.conf'))\n"
            "entered = zbase.update('service.conf'); f = entered.__enter__()\n"
            "threading.Thread(target=zbase.update('service.conf', wait=None).__enter__,\n"
            "                 daemon=True).start()\n")
        zbase.update("service.conf", wait=0).__enter__().close()

    def test_nothing_is_left_behind(self):
        class Mallinfo(ctypes.Structure):
            _fields_ = [(name, ctypes.c_size_t) for name in (
                "arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks", "fsmblks", "uordblks",
                "fordblks", "keepcost")]

        libc = ctypes.CDLL(None)
        if not hasattr(libc, "mallinfo2"):
            self.skipTest("needs mallinfo2")
        libc.mallinfo2.restype = Mallinfo
        self.write("bad.conf", b"[a]\nbad\n")

        def work():
            conf = zbase.open("service.conf")
            list(conf["log"].items())
            for _ in range(20):
                conf.comments()
            watch = zbase.watch(conf)
            watch.process()
            for wrong in (lambda: zbase.open("bad.conf"), lambda: zbase.loads("["),
                          lambda: conf["log"].add("level", "\n"), lambda: zbase.open("none"),
                          lambda: zbase.watch(zbase.loads("")),
                          lambda: zbase.update("none").__enter__()):
                self.assertRaises(zbase.Error, wrong)
            zbase.update("service.conf").__enter__().close()
            zbase.update("service.conf").__enter__()

        def in_use():
            gc.collect()
            info = libc.mallinfo2()
            return info.uordblks + info.hblkhd

        for _ in range(10):
            work()
        descriptors, before = os.listdir("/proc/self/fd"), in_use()
        for _ in range(100):
            work()
        self.assertEqual(len(os.listdir("/proc/self/fd")), len(descriptors))
        # A handle alone would be a kilobyte, a hundred times.
        self.assertLess(in_use() - before, 50_000)


if __name__ == "__main__":
    unittest.main()
