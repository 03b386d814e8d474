"""Files of other programs, in their dialects."""

import os
from dataclasses import fields, replace
from pathlib import Path

import zbase
from support import FolderTest
from zbase import Dialect

PHP = Dialect(comments="semicolon", bare=True, quotes="shell", repeated="merged", orphans=True,
              values="last")
GIT = Dialect(bare=True, quotes="git", names="folded", headers=("subsections",))

CHANGES = [  # dialect, text, what is done, the text then; None: refused
    (PHP, "; c\na = 'x'\n[s]\n", lambda f: f[""].update(a="y", b="; z"),
     "; c\na = 'y'\nb = ; z\n[s]\n"),
    (PHP, "[s]\na = 1\n", lambda f: f["s"].setall("a", ["1", "2"]), None),
    (PHP, "[s]\na = 1\n", lambda f: f["s"].__setitem__("a", None), "[s]\na\n"),
    (PHP, "[s]\na\nb = 2\n", lambda f: f.__setitem__("t", f["s"]),
     "[s]\na\nb = 2\n\n[t]\na\nb = 2\n"),
    (Dialect(), "[s]\na = 1\n", lambda f: f["s"].update(a=None), None),
    (GIT, "[A \"b\"]\nKey = 1\n", lambda f: f["a.b"].add("KEY", "2"),
     "[A \"b\"]\nKey = 1\nKey = 2\n"),
    (GIT, "[A]\nKey = 1\nx = 2\n", lambda f: f.__setitem__("a", {"KEY": "3"}), "[A]\nKey = 3\n"),
    (GIT, "[A]\nKey = 1\n", lambda f: f.remove_option("a", "kEY"), "[A]\n"),
    (GIT, "[A]\nKey = 1\n[b]\nx = 1\n", lambda f: f.__delitem__("a"), "[b]\nx = 1\n"),
    (GIT, "[A]\nKey = 1\n", lambda f: f.add_section("a"), None),
    (replace(GIT, headers=(), names="folded-keys"), "[A]\nK = 1\n",
     lambda f: f.read_string("[a]\nk = 2\n[A]\nk = 3"), "[A]\nK = 3\n\n[a]\nk = 2\n"),
    (replace(PHP, names="folded-blanks"), "[My Section]\nmax size = 1\n",
     lambda f: f.set("mysection", "MAXSIZE", " x"), "[My Section]\nmax size = \" x\"\n"),
]


class Dialects(FolderTest):
    def test_changes_keep_the_rest(self):
        for dialect, text, change, wanted in CHANGES:
            with self.subTest(text=text, wanted=wanted):
                Path("f").write_text(text)
                conf = zbase.loads(text, dialect=dialect)
                if wanted is None:
                    self.assertRaises(zbase.RefusedError, change, conf)
                    self.assertEqual(conf.dumps(), text)
                    continue
                change(conf)
                with zbase.update("f", dialect=dialect) as f:
                    change(f)
                self.assertEqual((Path("f").read_text(), conf.dumps()), (wanted, wanted))
                # What Python remembers of it is what a load gives.
                again = zbase.open("f", dialect=dialect)
                self.assertEqual({s: dict(conf[s]) for s in conf},
                                 {s: dict(again[s]) for s in again})

    def test_presets(self):
        found = zbase.dialects()
        self.assertEqual(list(found), sorted(found))
        self.assertGreater(set(found), {"php", "systemd", "git"})
        for name in found:
            text = zbase.dumps({"s": {"k": "v"}}, dialect=name)
            self.assertEqual(zbase.loads(text, dialect=Dialect.preset(name))["s"]["k"], "v")
        self.assertEqual(zbase.dialect_of("/etc/systemd/system.conf"), "systemd")
        self.assertIsNone(zbase.dialect_of("none.of.these"))
        Path("zbase/dialects").mkdir(parents=True)
        Path("zbase/dialects/mine.conf").write_text("# Ours.\n[dialect]\nvalues = ever\n")
        os.environ["XDG_CONFIG_HOME"] = os.getcwd()
        self.addCleanup(os.environ.pop, "XDG_CONFIG_HOME")
        self.assertEqual(zbase.dialects()["mine"], "Ours.")
        self.assertRaises(zbase.DataError, zbase.loads, "", dialect="mine")

    def test_refusals(self):
        self.assertRaises(zbase.NotFoundError, zbase.loads, "", dialect="nobody's")
        self.assertRaises(zbase.RefusedError, zbase.open, "service.conf", dialect="a/b")
        self.assertRaises(TypeError, zbase.loads, "", dialect=1)
        clash = Dialect(continued="indent", divider="blank")
        with self.assertRaisesRegex(zbase.RefusedError, "can't go with a blank"):
            zbase.loads("", dialect=clash)
        for field in fields(Dialect):
            if isinstance(field.default, (str, tuple)):
                self.assertRaises(ValueError, Dialect, **{field.name: "no such word"})
        with self.assertRaises(zbase.DataError) as bad:
            zbase.loads("[s]\n\nk : v\n", dialect="systemd")
        self.assertEqual(bad.exception.line, 3)

    def test_watch(self):
        Path("f").write_text("[s]\na: 1\n")
        with zbase.open("f", dialect=Dialect(divider="colon", bare=True)) as conf:
            watch = zbase.watch(conf)
            Path("f").write_text("[s]\na: 2\n")
            changes = watch.process() or watch.process()
            self.assertEqual([(c.option, c.after) for c in changes], [("a", ["2"])])
