"""What docstrings and pages show at the prompt of Python is what happens."""

import doctest
import importlib
import os
import pkgutil
import unittest

import zbase
from support import FolderTest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")


class Pages(FolderTest):
    def run_examples(self, example):
        self.assertTrue(example.examples, example.name)
        said = []
        doctest.DocTestRunner().run(example, out=said.append)
        self.assertEqual("".join(said), "")

    def test_docstrings(self):
        modules = [zbase] + [importlib.import_module(f"zbase.{module.name}")
                             for module in pkgutil.iter_modules(zbase.__path__)]
        examples = [example for module in modules
                    for example in doctest.DocTestFinder(exclude_empty=True).find(module)
                    if example.examples]
        for example in examples:
            self.run_examples(example)

    def test_pages(self):
        for page in ("README.md", "docs/from-configparser.md"):
            with self.subTest(page), open(os.path.join(ROOT, page), encoding="utf-8") as file:
                text = "".join("\n" if line.startswith("```") else line for line in file)
                self.run_examples(doctest.DocTestParser().get_doctest(text, {}, page, page, 0))

    def test_everything_public_is_told_of(self):
        for name in zbase.__all__:
            thing = getattr(zbase, name)
            members = vars(thing).items() if isinstance(thing, type) else ()
            for what, member in [(name, thing), *members]:
                if callable(member) and not what.startswith("_"):
                    self.assertTrue(member.__doc__, f"{name}.{what}")


if __name__ == "__main__":
    unittest.main()
