"""The process that uses the module stays as it was: locale, environment, signals, descriptors."""

import os
import shutil

from support import ROOT, FolderTest

PROGRAM = """
import ctypes, locale, os, signal, sys, threading
if sys.argv[1]:
    locale.setlocale(locale.LC_ALL, sys.argv[1])
libc = ctypes.CDLL(None)
libc.strtod.restype, libc.uselocale.restype = ctypes.c_double, ctypes.c_void_p
libc.getenv.restype = ctypes.c_char_p

def state():
    with open("/proc/self/status") as status:
        masks = [line for line in status if line.startswith(("SigBlk", "SigIgn", "SigCgt"))]
    return (libc.strtod(b"1,5", None), float("1.5"), locale.setlocale(locale.LC_ALL),
            locale.localeconv(), libc.uselocale(None), dict(os.environ), libc.getenv(b"QELDIR"),
            masks, [signal.getsignal(number) for number in signal.valid_signals()],
            sorted(os.listdir("/proc/self/fd")), os.umask(0o22), os.getcwd(),
            os.strerror(2), threading.active_count())

before = state()
assert sys.argv[1] != "de_DE.UTF-8" or before[0] == 1.5
import zbase
with zbase.update("service.conf") as f:
    f["log"]["ratio"] = "1.5e1"
    f["log"]["\\u00e4"] = "\\u00f6"
conf = zbase.open("service.conf")
assert conf["log"].getfloat("ratio") == 15.0 and conf["log"]["\\u00e4"] == "\\u00f6"
with zbase.watch(conf) as watch:
    watch.process()
try:
    zbase.open("none")
except FileNotFoundError as failure:
    assert failure.errno == 2 and "No such file" in failure.text
conf.close()
for was, now in zip(before, state()):
    assert was == now, (was, now)
"""


class Host(FolderTest):
    def test_nothing_of_the_process_changes(self):
        locales = os.path.join(os.environ["ZBASE_BUILD"], "locales")
        environment = {**os.environ, "LOCPATH": locales, "LC_ALL": "C.UTF-8"}
        environment.pop("QELDIR", None)
        for name in ("", "C", "de_DE.UTF-8", "en_US.ISO-8859-1", "ja_JP.EUC-JP"):
            with self.subTest(locale=name):
                self.run_program(PROGRAM, name, env=environment)

    def test_only_the_sources_heed_a_library_of_the_environment(self):
        shutil.copytree(ROOT / "python" / "zbase", "installed/zbase")
        self.run_program("import zbase", env={**os.environ, "PYTHONPATH": "installed",
                                              "ZBASE_LIBRARY": "none"})
