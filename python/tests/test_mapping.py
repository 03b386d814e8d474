"""Config and Section: what they read, change, refuse and raise."""

import configparser
import errno
import io
import math
import os
import pickle
import random
import subprocess
from pathlib import Path

import zbase
from support import FolderTest

NUMBERS = [  # value, as a whole number, as a real one, as a truth; None: refused
    ("0", 0, 0.0, False), ("1", 1, 1.0, True), ("-5", -5, -5.0, None), ("+7", 7, 7.0, None),
    ("0750", 0o750, 750.0, None), ("0x1F", 31, None, None), ("08", None, 8.0, None),
    ("1_0", None, None, None), ("1.5", None, 1.5, None), ("1,5", None, None, None),
    ("-1e3", None, -1000.0, None), ("inf", None, math.inf, None), ("YES", None, None, True),
    (str(2**63 - 1), 2**63 - 1, 2.0**63, None), (str(2**63), None, 2.0**63, None),
    ("off", None, None, False), ("\u0661", None, None, None),
]


class Mapping(FolderTest):
    def test_numbers(self):
        conf = zbase.loads("[s]\nempty =\n")
        section = conf["s"]
        for value, *answers in NUMBERS:
            section["k"] = value
            for kind, answer in zip(("int", "float", "boolean"), answers):
                with self.subTest(value=value, kind=kind):
                    if answer is None:
                        with self.assertRaises(zbase.DataError):
                            getattr(section, "get" + kind)("k")
                    else:
                        self.assertEqual(getattr(section, "get" + kind)("k"), answer)
                        self.assertEqual(getattr(conf, "get" + kind)("s", "k"), answer)
        for place in (("s", "empty"), ("s", "none"), ("none", "k")):
            self.assertRaises(KeyError, conf.getint, *place)
            self.assertIsNone(conf.getint(*place, fallback=None))

    def test_every_byte_survives(self):
        odd = bytes(set(range(1, 256)) - set(b"\n\r"))
        Path("odd.conf").write_bytes(b"[\xff]\nplain = 1\nk\xe4y = x" + odd + b"x\nk\xe4y = \xfe\n")
        with zbase.update("odd.conf") as f:
            section = f["\udcff"]
            section["plain"] = "2"
            section["copy"] = section.getall("k\udce4y")[0]
        text = Path("odd.conf").read_bytes()
        self.assertEqual((text.count(b"= x" + odd + b"x\n"), text.count(b"= 2\n")), (2, 1))
        self.assertEqual(zbase.loads(zbase.loads(text).dumps())["\udcff"]["k\udce4y"], "\udcfe")
        split, conf = "\udcc3\udca4", zbase.loads("[s]\n")  # bytes of one character
        conf["s"][split] = "\u00e4"
        conf["s"].add(split, split)
        conf.read_dict({split: {split: ["\u00e4", split]}})
        self.assertEqual(conf, zbase.loads(conf.dumps()))

    def test_hidden_values(self):
        subprocess.run([os.path.join(os.environ["ZBASE_BUILD"], "examples", "readme_cpp")],
                       check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "QELDIR": "/opt/Quillmere/nls/QEL"})
        conf, mail = zbase.Config(), "mail"
        conf.read(["missing.conf", "service.conf"])
        self.assertEqual((conf[mail]["password"], conf.path), ("swordfish", "service.conf"))
        self.assertEqual([key for key in conf[mail] if conf[mail].hidden(key)], ["password"])
        self.assertNotIn("swordfish", conf.dumps())
        for change in (lambda: conf.set(mail, "password", "x"),
                       lambda: conf[mail].setall("password", ["x"]),
                       lambda: conf.read_string("[new]\nk = 1\n[mail]\npassword = x\n"),
                       lambda: conf[mail].update({"to": "x"}, password="x"),
                       lambda: conf["log"].update(conf[mail]),
                       lambda: conf.__setitem__("copy", conf[mail]),
                       lambda: zbase.Config().read_dict(conf),
                       lambda: zbase.loads("[a]\nb=1\n").read("service.conf")):
            self.assertRaises(ValueError, change)
        self.assertEqual((conf.modified, conf), (False, zbase.open("service.conf")))

    def test_errors(self):
        Path("bad.conf").write_bytes(b"[a]\nb = 1\n\nno entry\n")
        Path("long.conf").write_bytes(b"[a]\nb = " + b"x" * 9000 + b"\n")
        conf = zbase.loads("[a]\nb = x\n")
        cases = [
            (lambda: zbase.open("none"), zbase.FileError, FileNotFoundError, errno.ENOENT, "none"),
            (lambda: zbase.open("."), zbase.FileError, OSError, errno.EISDIR, "."),
            (lambda: conf.store("none/x"), zbase.FileError, OSError, errno.ENOENT, "none"),
            (lambda: zbase.open("bad.conf"), zbase.DataError, ValueError, 4, "bad.conf"),
            (lambda: zbase.open("long.conf"), zbase.DataError, ValueError, 2, "long.conf"),
            (lambda: zbase.loads("[a]\nb = 1\nc = \0\n"), zbase.DataError, ValueError, 3, None),
            (lambda: conf["x"], zbase.MissingError, KeyError, 0, None),
            (lambda: conf["a"]["x"], zbase.MissingError, KeyError, 0, None),
            (conf.store, zbase.StateError, RuntimeError, 0, None),
            (zbase.update("none/x", create=True).__enter__, zbase.NotFoundError, FileNotFoundError,
             errno.ENOENT, "none/x"),
            (lambda: zbase.update("a\0b", create=True), zbase.RefusedError, ValueError, 0, None),
        ]
        for number, (call, kind, builtin, where, file) in enumerate(cases):
            with self.subTest(number), self.assertRaises(kind) as caught:
                call()
            error = pickle.loads(pickle.dumps(caught.exception))
            self.assertIsInstance(error, builtin)
            place = error.errno if isinstance(error, OSError) else error.line
            self.assertEqual((place, error.file, str(error)), (where, file, str(caught.exception)))

    def test_against_a_model(self):
        for seed in range(5):
            chance, conf, model = random.Random(seed), zbase.Config(), {}
            for step in range(400):
                s, k, v = (f"{name}{chance.randrange(4)}" for name in ("s", "k", "v"))
                act = chance.randrange(18)
                keys = model.setdefault(s, {})
                if s not in conf:
                    conf.add_section(s)
                if act == 0:
                    conf[s], model[s] = {k: [v, "y"], "z": ""}, {k: [v, "y"], "z": []}
                elif act == 1:
                    del conf[s], model[s]
                elif act == 2:
                    conf._handle.tables = None  # what Python keeps is what the library has
                elif act < 7:
                    conf[s][k], keys[k] = v, [v]
                elif act < 11:
                    conf[s].add(k, v)
                    keys[k] = keys.get(k, []) + [v] * (v not in keys.get(k, []))
                elif act < 14:
                    conf[s].setall(k, [v, "x", v])
                    keys[k] = [v, "x"]
                else:
                    self.assertEqual(conf.remove_option(s, k), keys.pop(k, None) is not None)
                self.assertEqual({name: {key: conf[name].getall(key) for key in conf[name]}
                                  for name in conf}, model, (seed, step))
            self.assertEqual(zbase.loads(conf.dumps()), conf)

    def test_refusals_change_nothing(self):
        conf = zbase.open("service.conf")
        before, log = conf.dumps(), conf["log"]
        texts = ["a\nb", "a\rb", "a\0b", " a ", "x" * 8190, "\ud800"]
        for text in texts + ["a=b", "#a", "[a", ""]:
            self.assertRaises(ValueError, log.__setitem__, text, "v")
            self.assertRaises(ValueError, conf.__setitem__, "log", {"new": "1", text: "v"})
        for text in texts:
            for change in (lambda: log.__setitem__("level", text), lambda: log.add("level", text),
                           lambda: log.setall("level", ["fine", text]),
                           lambda: log.add_comment("#" + text + text, "level"),
                           lambda: conf.read_dict({"log": {"x": "1"}, "new": {"k": text}}),
                           lambda: conf.__setitem__("new", {"fine": "1", "bad": ["1", text]})):
                with self.subTest(text=text[:9]):
                    self.assertRaises(ValueError, change)
        for name in ("a]b", "", "a\nb", "\0", "log"):
            self.assertRaises(ValueError, conf.add_section, name)
        self.assertRaises(TypeError, log.__setitem__, "level", 5)
        self.assertRaises(ValueError, conf.read_string, "[new]\nk = 1\n[broken")
        self.assertEqual((conf.dumps(), conf.modified, zbase.loads(before)), (before, False, conf))

    def test_comments(self):
        conf = zbase.loads("# 1\n\n[s]\nx = 1\n# 2\nk = 1\n")
        places = [(conf,), (conf["s"],), (conf["s"], "k")]
        for number, (thing, *key) in enumerate(places):
            thing.add_comment(f"a{number}", *key)
        self.assertEqual([thing.comments(*key) for thing, *key in places],
                         [["# 1", "#a0"], ["#a1"], ["# 2", "#a2"]])
        for thing, *key in places:
            thing.remove_comments(*key)
        self.assertEqual([thing.comments(*key) for thing, *key in places], [[], [], []])
        self.assertRaises(KeyError, conf["s"].add_comment, "x", "none")


    @staticmethod
    def script(conf):
        """What scripts do, and what they see of it."""
        conf.read_string("[b]\nx = 1\ny = no\n\n[a]\nz = 2.5\nlong = a = b\n")
        conf.read_string("[b]\nx = 2\n")
        conf.read_dict({"c": {"k": "v"}, "a": {"z": "3.5"}})
        conf.add_section("d")
        conf.set("d", "e", "f")
        conf["d"]["g"] = "h"
        a, b = conf["a"], conf["b"]
        seen = [
            conf.sections(), conf.options("b"), conf.has_section("a"), conf.has_section("q"),
            conf.has_option("a", "z"), conf.has_option("q", "z"), conf.get("b", "x", raw=True),
            conf.get("b", "q", fallback="f"), conf.get("q", "q", fallback=None), b.getint("q", 4),
            conf.getint("b", "x"), conf.getfloat("a", "z"), conf.getboolean("b", "y"), b.get("q"),
            conf.getint("b", "q", fallback=7), conf.items("a"), "z" in a, b.get("q", "f"), len(a),
            b.getint("q"), dict(a.items()), b.name, conf.remove_option("d", "e"), a.pop("long"),
            conf.remove_option("d", "e"), a.setdefault("new", "1"), conf.remove_section("c"),
            conf.remove_section("c"), a.parser is conf]
        conf["e"] = {"one": "1"}
        conf["e"].update(two="2", three="3")
        text = io.StringIO()
        conf.write(text)
        again = type(conf)()
        again.read_file(io.StringIO(text.getvalue()))
        del conf["e"], a["z"]
        seen += [[(s, again.items(s)) for s in again.sections()], conf.sections(), list(a)]
        for wrong in (lambda: conf["q"], lambda: a["q"], lambda: conf.getint("b", "y")):
            try:
                wrong()
            except (KeyError, ValueError) as failure:
                seen.append(isinstance(failure, KeyError))
        return seen

    def test_scripts_see_what_configparser_shows(self):
        self.assertEqual(self.script(zbase.Config()), self.script(configparser.RawConfigParser()))
