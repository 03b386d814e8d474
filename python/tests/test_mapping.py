"""Config and Section: what they read, change, refuse and raise."""

import configparser
import errno
import io
import math
import os
import pickle
import random
import subprocess
import unittest

import zbase
from support import FolderTest


class Reading(FolderTest):
    def test_numbers(self):
        conf = zbase.loads("[s]\nempty =\n")
        section = conf["s"]
        cases = [  # value, as a whole number, as a real one, as a truth; None: refused
            ("0", 0, 0.0, False), ("1", 1, 1.0, True), ("-5", -5, -5.0, None),
            ("+7", 7, 7.0, None), ("0750", 0o750, 750.0, None), ("0x1F", 31, None, None),
            ("08", None, 8.0, None), ("1_0", None, None, None), ("1.5", None, 1.5, None),
            ("1,5", None, None, None), ("-1e3", None, -1000.0, None), ("inf", None, math.inf, None),
            ("9223372036854775807", 2**63 - 1, 2.0**63, None),
            ("9223372036854775808", None, 2.0**63, None), ("YES", None, None, True),
            ("off", None, None, False), ("\u0661", None, None, None), ("maybe", None, None, None),
        ]
        for value, *wanted in cases:
            section["k"] = value
            for getter, answer in zip((section.getint, section.getfloat, section.getboolean),
                                      wanted):
                with self.subTest(value=value, getter=getter.__name__):
                    if answer is None:
                        self.assertRaises(zbase.DataError, getter, "k")
                    else:
                        self.assertEqual(getter("k"), answer)
        for getter in (conf.getint, conf.getfloat, conf.getboolean):
            for place in (("s", "empty"), ("s", "none"), ("none", "k")):
                self.assertRaises(KeyError, getter, *place)
                self.assertIsNone(getter(*place, fallback=None))

    def test_every_byte_survives(self):
        odd = bytes(set(range(1, 256)) - set(b"\n\r"))
        self.write("odd.conf", b"[\xff]\nplain = 1\nk\xe4y = x" + odd + b"x\nk\xe4y = \xfe\n")
        name, key = "\udcff", "k\udce4y"
        with zbase.update("odd.conf") as f:
            values = f[name].getall(key)
            f[name]["plain"] = "2"
            f[name]["copy"] = values[0]
        text = self.read("odd.conf")
        self.assertEqual(text.count(b"= x" + odd + b"x\n"), 2)
        self.assertIn(b"plain = 2\n", text)
        self.assertEqual(values[1], "\udcfe")
        self.assertEqual(zbase.loads(zbase.loads(text).dumps())[name].getall(key), values)

    def test_hidden_values(self):
        subprocess.run([os.path.join(os.environ["ZBASE_BUILD"], "examples", "readme_cpp")],
                       check=True, stdout=subprocess.DEVNULL,
                       env={**os.environ, "QELDIR": "/opt/Quillmere/nls/QEL"})
        with zbase.open("service.conf") as conf:
            self.assertEqual(conf["mail"]["password"], "swordfish")
            self.assertEqual([key for key in conf["mail"] if conf["mail"].hidden(key)],
                             ["password"])
            self.assertNotIn("swordfish", conf.dumps())
            for change in (lambda: conf["mail"].__setitem__("password", "x"),
                           lambda: conf["mail"].setall("password", ["x"]),
                           lambda: zbase.loads("[a]\nb=1\n").read("service.conf")):
                self.assertRaises(ValueError, change)
        fresh = zbase.Config()
        fresh.read(["missing.conf", "service.conf"])
        self.assertEqual((fresh["mail"]["password"], fresh.path), ("swordfish", "service.conf"))
        with zbase.update("service.conf") as f:
            del f["mail"]["password"]
        self.assertNotIn("password", zbase.open("service.conf")["mail"])

    def test_errors(self):
        self.write("bad.conf", b"[a]\nb = 1\n\nno entry\n")
        self.write("long.conf", b"[a]\nb = " + b"x" * 9000 + b"\n")
        os.mkdir("folder")
        conf = zbase.loads("[a]\nb = x\n")
        cases = [
            (lambda: zbase.open("none"), zbase.FileError, FileNotFoundError, errno.ENOENT, "none"),
            (lambda: zbase.open("folder"), zbase.FileError, OSError, errno.EISDIR, "folder"),
            (lambda: conf.store("none/x"), zbase.FileError, OSError, errno.ENOENT, "none"),
            (lambda: zbase.open("bad.conf"), zbase.DataError, ValueError, 4, "bad.conf"),
            (lambda: zbase.open("long.conf"), zbase.DataError, ValueError, 2, "long.conf"),
            (lambda: zbase.loads("[a]\nb\n"), zbase.DataError, ValueError, 2, None),
            (lambda: zbase.loads("[a]\nb = 1\nc = \0\n"), zbase.DataError, ValueError, 3, None),
            (lambda: conf["x"], zbase.MissingError, KeyError, 0, None),
            (lambda: conf["a"]["x"], zbase.MissingError, KeyError, 0, None),
            (conf.store, zbase.StateError, RuntimeError, 0, None),
        ]
        for number, (call, kind, builtin, where, file) in enumerate(cases):
            with self.subTest(number), self.assertRaises(kind) as caught:
                call()
            failure = caught.exception
            for error in (failure, pickle.loads(pickle.dumps(failure))):
                self.assertIsInstance(error, (kind, builtin))
                self.assertIsInstance(error, builtin)
                place = error.errno if isinstance(error, OSError) else error.line
                self.assertEqual((place, error.file, str(error)), (where, file, str(failure)))
                self.assertTrue(error.text)


class Changing(FolderTest):
    def test_against_a_model(self):
        for seed in range(5):
            chance = random.Random(seed)
            conf, model = zbase.Config(), {}
            for step in range(400):
                s, k, v = (f"{name}{chance.randrange(4)}" for name in ("s", "k", "v"))
                act = chance.randrange(7)
                with self.subTest(seed=seed, step=step, act=act):
                    keys = model.setdefault(s, {})
                    if s not in conf:
                        conf.add_section(s)
                    if act == 0:
                        conf[s][k], keys[k] = v, [v]
                    elif act == 1:
                        conf[s].add(k, v)
                        keys[k] = keys.get(k, []) + [v] * (v not in keys.get(k, []))
                    elif act == 2:
                        self.assertEqual(conf.remove_option(s, k), keys.pop(k, None) is not None)
                    elif act == 3 and chance.randrange(4) == 0:
                        self.assertTrue(conf.remove_section(s))
                        del model[s]
                    elif act == 4:
                        conf[s].setall(k, [v, "x", v])
                        keys[k] = [v, "x"]
                    elif act == 5 and chance.randrange(4) == 0:
                        conf[s] = {k: [v, "y"], "z": ""}
                        model[s] = {k: [v, "y"], "z": []}
                    elif act == 6:
                        conf._handle.tables = None  # what Python keeps is what the library has
                    self.assertEqual({name: {key: conf[name].getall(key) for key in conf[name]}
                                      for name in conf}, model)
            again = zbase.loads(conf.dumps())
            self.assertEqual([(s, k, again[s].getall(k)) for s in again for k in again[s]],
                             [(s, k, conf[s].getall(k)) for s in conf for k in conf[s]])

    def test_refusals_change_nothing(self):
        conf = zbase.open("service.conf")
        before = conf.dumps()
        log = conf["log"]
        texts = ["a\nb", "a\rb", "a\0b", " a ", "a\t", "x" * 8190, "\ud800"]
        for text in texts + ["a=b", "#a", "[a", ""]:
            with self.subTest(key=text[:9]):
                self.assertRaises(ValueError, log.__setitem__, text, "v")
                self.assertRaises(ValueError, conf.__setitem__, "log", {"new": "1", text: "v"})
        for text in texts:
            with self.subTest(value=text[:9]):
                for change in (lambda: log.__setitem__("level", text),
                               lambda: log.add("level", text),
                               lambda: log.setall("level", ["fine", text]),
                               lambda: log.add_comment("#" + text + text, "level"),
                               lambda: conf.read_dict({"log": {"x": "1"}, "new": {"k": text}}),
                               lambda: conf.__setitem__("new", {"fine": "1", "bad": ["1", text]})):
                    self.assertRaises(ValueError, change)
        for text in ["a]b", "", "a\nb", "\0"]:
            self.assertRaises(ValueError, conf.add_section, text)
        self.assertRaises(ValueError, conf.add_section, "log")
        self.assertRaises(ValueError, log.add, "level", "")
        for value in (5, None, b"x"):
            self.assertRaises(TypeError, log.__setitem__, "level", value)
        self.assertRaises(ValueError, conf.read_string, "[new]\nk = 1\n[broken")
        self.assertEqual((conf.dumps(), conf.modified, dict(log)),
                         (before, False, dict(zbase.loads(before)["log"])))

    def test_new_keys_go_behind_their_samples(self):
        conf = zbase.loads("[a]\nx = 1\n# y = 1\n\nz = 1\n[b]\n")
        conf["a"]["y"] = "1"
        conf["a"].add("new", "1")
        self.assertEqual(zbase.loads(conf.dumps()).options("a"), ["x", "y", "z", "new"])

    def test_comments(self):
        conf = zbase.open("service.conf")
        log, listener = conf["log"], conf["listener"]
        self.assertEqual(conf.comments()[0],
                         "# Heron, the label printing service of the warehouse.")
        self.assertEqual(listener.comments(),
                         ["# Where clients connect; one address a line."])
        self.assertEqual(log.comments("keep"), ["# Days."])
        conf.add_comment("# The file's.")
        log.add_comment("the stanza's")
        log.add_comment("# A month.", "keep")
        self.assertEqual(log.comments(), ["#the stanza's"])
        self.assertEqual(log.comments("keep"), ["# Days.", "# A month."])
        self.assertEqual(len(conf.comments()), 3)
        conf.remove_comments()
        log.remove_comments()
        log.remove_comments("keep")
        self.assertEqual((conf.comments(), log.comments(), log.comments("keep")), ([], [], []))
        self.assertRaises(KeyError, log.add_comment, "x", "none")
        self.assertNotIn("none", log)


class LikeConfigparser(unittest.TestCase):
    @staticmethod
    def script(conf):
        """What scripts do, and what they see of it."""
        seen = []
        conf.read_string("[b]\nx = 1\ny = no\n\n[a]\nz = 2.5\nlong = a = b\n")
        conf.read_string("[b]\nx = 2\n")
        conf.read_dict({"c": {"k": "v"}, "a": {"z": "3.5"}})
        conf.add_section("d")
        conf.set("d", "e", "f")
        conf["d"]["g"] = "h"
        seen += [conf.sections(), conf.options("b"), conf.has_section("a"), conf.has_section("q"),
                 conf.has_option("a", "z"), conf.has_option("q", "z"), conf.get("b", "x"),
                 conf.get("b", "q", fallback="f"), conf.get("q", "q", fallback=None),
                 conf.getint("b", "x"), conf.getfloat("a", "z"), conf.getboolean("b", "y"),
                 conf.getint("b", "q", fallback=7), conf.items("a"), "z" in conf["a"],
                 conf["b"].get("q"), conf["b"].get("q", "f"), conf["b"].getint("q"),
                 conf["b"].getint("q", 4), conf["b"].getboolean("y"), dict(conf["a"].items()),
                 conf["d"].name, conf.remove_option("d", "e"), conf.remove_option("d", "e"),
                 conf.remove_section("c"), conf.remove_section("c"), len(conf["a"]),
                 conf.get("a", "long", raw=True), conf["a"].pop("long"),
                 conf["a"].setdefault("new", "1"), list(conf["a"]), conf["d"].parser is conf]
        conf["e"] = {"one": "1"}
        conf["e"].update(two="2", three="3")
        text = io.StringIO()
        conf.write(text)
        again = type(conf)()
        again.read_file(io.StringIO(text.getvalue()))
        seen += [[(s, again.items(s)) for s in again.sections()]]
        del conf["e"], conf["a"]["z"]
        seen += [conf.sections(), conf.options("a")]
        for wrong in (lambda: conf["q"], lambda: conf["a"]["q"], lambda: conf["q"]["q"]):
            try:
                wrong()
            except KeyError:
                seen.append("KeyError")
        try:
            conf["b"]["y"] = "many"
            conf["b"].getint("y")
        except ValueError:
            seen.append("ValueError")
        return seen

    def test_scripts_see_the_same(self):
        self.assertEqual(self.script(zbase.Config()), self.script(configparser.RawConfigParser()))


if __name__ == "__main__":
    unittest.main()
