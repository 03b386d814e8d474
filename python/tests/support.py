"""What the tests share: folders of their own, and other processes."""

import os
import subprocess
import sys
import tempfile
import unittest

EXAMPLE = os.path.join(os.path.dirname(__file__), "..", "..", "examples", "service.conf")


class FolderTest(unittest.TestCase):
    """A test in a folder of its own, with the example in it."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.addCleanup(os.chdir, os.getcwd())
        os.chdir(folder.name)
        with open(EXAMPLE, "rb") as example:
            self.write("service.conf", example.read())

    @staticmethod
    def write(path, content):
        with open(path, "wb") as file:
            file.write(content)

    @staticmethod
    def read(path):
        with open(path, "rb") as file:
            return file.read()

    def start(self, program, *arguments):
        """Starts a Python program, which tells by a line on its output how far it is."""
        process = subprocess.Popen(
            [sys.executable, "-X", "dev", "-c", program, *arguments],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.wait)
        for stream in (process.stdin, process.stdout, process.stderr):
            self.addCleanup(stream.close)
        self.addCleanup(process.kill)
        return process

    def run_program(self, program, *arguments, **options):
        """Runs one to its end; what it printed. It must end well and complain of nothing."""
        done = subprocess.run([sys.executable, "-X", "dev", "-c", program, *arguments],
                              capture_output=True, text=True, **options)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout + done.stderr)
        return done.stdout

    def hold_lock(self):
        """Another process with an update of service.conf open, until something is written to it."""
        holder = self.start("import zbase, sys\n"
                            "with zbase.update('service.conf') as f:\n"
                            "    f['log']['level'] = 'held'\n"
                            "    print('ready', flush=True)\n"
                            "    sys.stdin.readline()\n")
        self.assertEqual(holder.stdout.readline(), "ready\n")
        return holder
