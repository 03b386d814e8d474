"""What docstrings and pages show at the prompt of Python is what happens."""

import doctest
import os
import unittest

import zbase
from support import ROOT, FolderTest


class Pages(FolderTest):
    def test_pages(self):
        for page in ("README.md", "docs/from-configparser.md", "python/zbase/__init__.py"):
            with self.subTest(page):
                text = self.read(os.path.join(ROOT, page)).decode().replace("\n```", "\n\n")
                example = doctest.DocTestParser().get_doctest(text, {}, page, page, 0)
                said = []
                result = doctest.DocTestRunner().run(example, out=said.append)
                self.assertGreater(result.attempted, 0)
                self.assertEqual("".join(said), "")

    def test_everything_public_is_told_of(self):
        for name in zbase.__all__:
            thing = getattr(zbase, name)
            members = vars(thing).items() if isinstance(thing, type) else ()
            for what, member in [(name, thing), *members]:
                if callable(member) and not what.startswith("_"):
                    self.assertTrue(member.__doc__, f"{name}.{what}")


if __name__ == "__main__":
    unittest.main()
