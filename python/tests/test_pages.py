"""What docstrings and pages show at the prompt of Python is what happens."""

import doctest

import zbase
from support import ROOT, FolderTest


class Pages(FolderTest):
    def test_pages(self):
        for page in ("README.md", "docs/from-configparser.md", "python/zbase/__init__.py"):
            with self.subTest(page):
                text = (ROOT / page).read_text("utf-8").replace("\n```", "\n\n")
                example = doctest.DocTestParser().get_doctest(text, {}, page, page, 0)
                said = []
                result = doctest.DocTestRunner().run(example, out=said.append)
                self.assertGreater(result.attempted, 0)
                self.assertEqual("".join(said), "")
