"""The process that uses the module stays as it was: locale, environment, signals, descriptors."""

import os
import unittest

from support import FolderTest

PROGRAM = """
import ctypes, locale, os, signal, sys, threading
wanted = sys.argv[1]
if wanted:
    locale.setlocale(locale.LC_ALL, wanted)
libc = ctypes.CDLL(None)
libc.strtod.restype, libc.uselocale.restype = ctypes.c_double, ctypes.c_void_p
libc.getenv.restype = ctypes.c_char_p

def state():
    with open("/proc/self/status") as status:
        masks = [line for line in status if line.startswith(("SigBlk", "SigIgn", "SigCgt"))]
    return (locale.setlocale(locale.LC_ALL), locale.localeconv(), libc.uselocale(None),
            dict(os.environ), libc.getenv(b"QELDIR"), masks,
            {number: signal.getsignal(number) for number in signal.valid_signals()},
            sorted(os.listdir("/proc/self/fd")), libc.strtod(b"1,5", None), float("1.5"),
            os.umask(0o22), os.getcwd(), os.strerror(2), threading.active_count(),
            sys.getswitchinterval(), sys.getrecursionlimit())

before = state()
import zbase
with zbase.update("service.conf") as f:
    f["log"]["ratio"] = "0x1"
    f["log"]["ratio"] = "1.5e1"
    f["log"]["\\u00e4"] = "\\u00f6"
conf = zbase.open("service.conf")
assert conf["log"].getfloat("ratio") == 15.0 and conf["log"]["\\u00e4"] == "\\u00f6"
with zbase.watch(conf) as watch:
    watch.process()
try:
    zbase.open("none")
except FileNotFoundError as failure:
    assert failure.errno == 2
    assert "No such file" in failure.text
conf.close()
for was, now in zip(before, state()):
    assert was == now, (was, now)
assert wanted != "de_DE.UTF-8" or before[8] == 1.5
print("same")
"""


class Host(FolderTest):
    def test_nothing_of_the_process_changes(self):
        locales = os.path.join(os.environ["ZBASE_BUILD"], "locales")
        environment = {name: value for name, value in os.environ.items()
                       if name != "QELDIR" and not name.startswith("LC_") and name != "LANG"}
        for name in ("", "C", "de_DE.UTF-8", "en_US.ISO-8859-1", "ja_JP.EUC-JP"):
            with self.subTest(locale=name):
                said = self.run_program(PROGRAM, name, env={**environment, "LOCPATH": locales,
                                                            "LC_ALL": name or "C.UTF-8"})
                self.assertEqual(said, "same\n")


if __name__ == "__main__":
    unittest.main()
