"""What the tests share: folders of their own, and other processes."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


class FolderTest(unittest.TestCase):
    """A test in a folder of its own, with the example in it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(folder.name)
        shutil.copy(ROOT / "examples" / "service.conf", ".")

    def start(self, program):
        """Starts a Python program, which tells by a line on its output how far it is."""
        process = subprocess.Popen([sys.executable, "-c", program], text=True,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        for end in (process.wait, process.stdin.close, process.stdout.close, process.kill):
            self.addCleanup(end)
        self.assertTrue(process.stdout.readline())
        return process

    def run_program(self, program, *arguments, **options):
        """Runs one to its end; it must end well and complain of nothing."""
        done = subprocess.run([sys.executable, "-X", "dev", "-c", program, *arguments],
                              stderr=subprocess.PIPE, text=True, **options)
        self.assertEqual((done.returncode, done.stderr), (0, ""))

    def hold_lock(self):
        """Another process with an update of service.conf open, until it gets a line."""
        return self.start("import zbase\nwith zbase.update('service.conf') as f:\n"
                          "    f['log']['level'] = 'held'\n    print('holds', flush=True)\n"
                          "    input()\n")
