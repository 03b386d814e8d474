"""prove-dialects peers: random files, read by the programs that own their dialects and by the
library."""
import collections
import configparser
import ctypes
import glob
import io
import json
import os
import random
import re
import shutil
import subprocess
import tempfile

from dialectlib import Opened, Refused, preset
from dialectrules import BLANKS, Bad, Rules, fold
from dialecttexts import SIGNS, WORDS, Taste, random_text


class Peer:
    """A reader. read() gives for each text what it holds, {(stanza, key): [value, ...]} without
    empty values, None for those of a key that stands alone; or, as a string, why it is refused."""

    preset = None
    taste = Taste()
    classes = ()  # (what differs by design, whether it does so here)

    def is_here(self):
        return True

    def read(self, texts):
        return [self.read_one(text) for text in texts]

    def ours(self, content):
        """What the library holds, as read() tells it."""
        return {(stanza, key): values for stanza, keys in content.items()
                for key, values in keys.items()}


def put(found, stanza, key, value):
    """Adds a value; None is none at all, and counts only where no other is."""
    known = found.get((stanza, key))
    if value is None:
        found[stanza, key] = known or None
    elif (stanza, key) not in found or known == []:
        found[stanza, key] = [value] if value else []
    elif value:
        found[stanza, key] = (known or []) + [value]


def is_utf8(text):
    try:
        text.decode("utf-8")
        return True
    except UnicodeDecodeError:
        return False


def parts_of(rules, text):
    try:
        return rules.parts(text)
    except Bad:
        return []


class Case:
    """A text, and what the library and the dialect's owner say of it."""

    def __init__(self, peer, text, ours, theirs):
        self.peer, self.text, self.ours, self.theirs = peer, text, ours, theirs
        self.refused_here, self.refused_there = isinstance(ours, str), isinstance(theirs, str)
        # The line that the library refuses.
        self.bad_line = None
        if self.refused_here:
            number = int(re.match("[0-9]+, line ([0-9]+)", ours).group(1))
            self.bad_line = (text.split(b"\n") + [b""])[number - 1].strip(BLANKS)
        self.rules = Rules(preset(peer.preset))
        self.parts = [] if self.refused_here else parts_of(self.rules, text)

    def is_alike_joined(self, joint, is_odd, change):
        """Whether both say the same once lines are joined as the owner does."""
        answer = library_read(preset(self.peer.preset), joined(self.text, joint, is_odd))
        if isinstance(answer, str):
            return self.refused_there
        answer = {key: values and [value.replace(b"\1", b"\\") for value in values]
                  for key, values in self.peer.ours(answer).items()}
        return Case(self.peer, self.text, answer, self.theirs).is_alike(change)

    def has_again(self):
        """Whether a stanza has several headers."""
        names = [part.stanza for part in self.parts if part.kind == "header"]
        return len(names) != len(set(names))

    def is_same(self):
        return self.ours == self.theirs or self.refused_here and self.refused_there

    def has(self, pattern):
        return re.search(pattern, self.text, re.M) is not None

    def has_entry(self, test):
        return any(part.kind == "entry" and test(part) for part in self.parts)

    def has_header(self, pattern):
        """One whose line, without blanks at its ends, has that."""
        return any(part.kind == "header" and re.search(pattern, part.lines[0].strip())
                   for part in self.parts)

    def is_alike(self, change):
        """Whether the answers are the same once each value is changed so."""
        def changed(answer):
            return {key: [new for new in map(change, values or ()) if new] or None
                    for key, values in answer.items()}
        return not (self.refused_here or self.refused_there) and (
            changed(self.ours) == changed(self.theirs))


def joined(text, joint, is_odd):
    """A text whose continued lines are one each, as its owner joins them: with this in place of the
    backslash, where there is an odd number of them or any. Comments among them are skipped if the
    joint isn't empty. What isn't joined has no backslash at its end but the byte 1. Lines that the
    owner only warns of go away."""
    lines, more = [], None
    for line in text.removesuffix(b"\n").split(b"\n"):
        is_comment = line.lstrip(BLANKS)[:1] in (b"#", b";")
        if is_comment and (more is None or joint):
            if more is None:
                lines.append(line)
            continue
        line = line.removesuffix(b"\r")
        if not is_odd:  # the owner has no blanks at a line's end, and looks at what it has so far
            line, more = ((more or b"") + line).rstrip(BLANKS), b""
        count = len(line) - len(line.rstrip(b"\\"))
        line = (more or b"") + line[:len(line) - count] + b"\1" * count
        if count % 2 if is_odd else count:
            more = line[:-1].replace(b"\1", b"\\") + joint
        else:
            lines.append(line)
            more = None
    if more is not None:
        count = len(more) - len(more.rstrip(b"\\"))
        count += not is_odd and text[-1:] != b"\n"
        lines.append(more.rstrip(b"\\") + b"\1" * count)
    # Neither owner refuses a file for a line without =.
    return b"\n".join(line for line in lines if line.strip(BLANKS)[:1] in (b"", b"#", b";", b"[")
                      or b"=" in line)


def only_there(pattern):
    """Refused by the library alone, for a line that fits that."""
    return lambda case: case.refused_here and not case.refused_there and re.search(
        pattern, case.bad_line) is not None


def only_here(test):
    """Refused by the owner alone."""
    return lambda case: case.refused_there and not case.refused_here and test(case)


def differs_by_blanks(case):
    """Whether both say the same, or differ in other explained ways, once there are spaces in place
    of strange blanks."""
    text = re.sub(rb"[\v\f]|\r(?!\n)", b" ", case.text)
    if text == case.text:
        return False
    other = Case(case.peer, text, our_answer(case.peer, text), case.peer.read([text])[0])
    return other.is_same() or reason_of(other) is not None


# What differs the same way from several owners.
STRANGE_BLANKS = ("other blanks than space and tab, which the owner takes for text or line ends",
                  differs_by_blanks)
NULS = ("a NUL or byte-order mark, which is bad data here", lambda case: case.refused_here and
        case.has(rb"\0|\xef\xbb\xbf"))


class Files(Peer):
    """A reader of files, one process for each."""

    program = None

    def is_here(self):
        return shutil.which(self.program) is not None

    def read(self, texts):
        folder = tempfile.mkdtemp(dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)
        try:
            path = os.path.join(folder, "f")
            answers = []
            for text in texts:
                with open(path, "wb") as out:
                    out.write(text)
                answers.append(self.read_file(path))
            return answers
        finally:
            shutil.rmtree(folder)

    def run(self, *arguments):
        return subprocess.run(arguments, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              check=False)


# ---------------------------------------------------------------- git


class Git(Files):
    """git config --list -z --file"""

    preset, program = "git", "git"
    taste = Taste(stanzas=[b"s", b"S", b"t", b"u-v", b"t.x", b"t.X"], odd_blanks=[b"\r", b"\v"],
                  key_tails=False)

    classes = (
        ("a blank within a value, of which git before 2.46 makes a space",
         lambda case: case.is_alike(lambda value: value.translate(
             bytes.maketrans(BLANKS, b" " * len(BLANKS))))),
        ("names of other characters than git allows", only_here(
            lambda case: case.has_entry(lambda part: not re.fullmatch(rb"[A-Za-z][-A-Za-z0-9]*",
                                                                      part.key))
            or case.has_header(rb"^\[(?![-.A-Za-z0-9]+(\]|\s+\"))"))),
        ("a key alone ahead of all headers", only_there(rb"^[-a-zA-Z0-9]+$")),
        ("a comment behind a key alone", only_here(lambda case: case.has_entry(
            lambda part: part.value is None and case.rules.tail(part.lines[0].strip())
            < len(part.lines[0].strip())))),
        ("an entry behind a header, on its line", only_there(rb"^\[.*\]")),
        STRANGE_BLANKS, NULS)

    def read_file(self, path):
        done = self.run("git", "config", "--list", "-z", "--file", path)
        if done.returncode != 0:
            return done.stderr.decode("utf-8", "replace")
        found = {}
        for entry in done.stdout.split(b"\0")[:-1]:
            name, has_value, value = entry.partition(b"\n")
            put(found, b"", name, value if has_value else None)
        return found

    def ours(self, content):
        rules = Rules(preset("git"))
        return {(b"", rules.same_stanza(stanza) + b"." + fold(key)): values
                for stanza, keys in content.items() for key, values in keys.items()}


# ---------------------------------------------------------------- configparser


class Configparser(Peer):
    """ConfigParser(interpolation=None, default_section=...), all else as it comes: strict, with
    both dividers and comment characters, no comments behind values, no keys alone."""

    preset = "configparser"
    options = {}
    taste = Taste(keys=[b"a", b"B", b"key", b"K-l", *(b"k%d" % number for number in range(40))],
                  header_tails=False)
    classes = (
        ("a key twice, which has two values here", only_here(
            lambda case: case.theirs.startswith("DuplicateOption"))),
        ("a [ without ], which begins a key for the owner", only_there(rb"^\[[^]]*$")),
        ("more behind a header, which the owner takes to the line's last ]",
         lambda case: case.has(rb"^\s*\[.*\].*\S")),
        STRANGE_BLANKS, NULS)

    def read_one(self, text):
        parser = configparser.RawConfigParser(default_section=None, **self.options)
        try:
            parser.read_file(io.TextIOWrapper(io.BytesIO(text), "utf-8", "surrogateescape"))
        except (configparser.Error, AttributeError) as failure:
            return "%s: %s" % (type(failure).__name__, failure)

        def encoded(name):
            return name.encode("utf-8", "surrogateescape")

        found = {}
        for stanza in parser.sections():
            for key, value in parser.items(stanza):
                put(found, encoded(stanza), encoded(key), encoded(value))
        return found

    def ours(self, content):
        return {(stanza, fold(key)): values for stanza, keys in content.items()
                for key, values in keys.items()}


def has_late_comment(text):
    """Whether a comment's sign begins none, and another one on its line does: Python looks at the
    first place of each sign, then at the second, and takes the first comment that it finds so."""
    return re.search(rb"[^\s#]#.*\s;|[^\s;];.*\s#", text) is not None


class Supervisord(Configparser):
    """RawConfigParser(inline_comment_prefixes=(";", "#"), strict=False), which is what
    supervisor's class of options passes to it."""

    preset = "supervisord"
    taste = Taste(header_tails=False)
    classes = (*Configparser.classes, (
        "a sign that begins no comment ahead of ones that do, of which the owner takes a later",
        lambda case: has_late_comment(case.text)))
    options = {"inline_comment_prefixes": (";", "#"), "strict": False}


class Fail2ban(Supervisord):
    """RawConfigParser(inline_comment_prefixes=";"), which is what Fail2ban's client makes."""

    preset = "fail2ban"
    options = {"inline_comment_prefixes": (";",)}


class Pylint(Supervisord):
    """RawConfigParser(inline_comment_prefixes=("#", ";")), which is what Pylint makes."""

    preset = "pylint"
    options = {"inline_comment_prefixes": ("#", ";")}


# ---------------------------------------------------------------- systemd


class Systemd(Peer):
    """config_parse() of the library that systemd's programs share, with its values as they go to
    the parsers of single settings."""

    preset = "systemd"
    taste = Taste(header_tails=False)
    classes = (
        ("lines without =, which the owner skips, and joints elsewhere than in values",
         lambda case: case.is_alike_joined(b" ", True, bytes)),
        ("more behind a header, for which the owner refuses the file but for a last ]",
         lambda case: case.has(rb"^\s*\[.*\].*\S")),
        ("a quote or backslash in a header's name", only_here(
            lambda case: case.has_header(rb"[\"'\\]"))),
        ("a line without a key or =, which the owner warns of and skips", only_there(
            rb"^(=|[^=]*$)")),
        ("a header that goes on in the next line", only_there(rb"^\[.*\\$")),
        ("entries ahead of all headers, which the owner skips", lambda case: only_there(rb"")(case)
         and not case.has(rb"(?s)^\s*\[.*" + re.escape(case.bad_line))),
        ("what is no UTF-8", only_here(lambda case: not is_utf8(case.text))),
        STRANGE_BLANKS, NULS)

    def __init__(self):
        places = glob.glob("/usr/lib/*/systemd/libsystemd-shared-*.so") + glob.glob(
            "/lib/systemd/libsystemd-shared-*.so")
        self.library = ctypes.CDLL(places[0]) if places else None
        if self.library is None:
            return
        text, number, pointer = ctypes.c_char_p, ctypes.c_int, ctypes.c_void_p
        parse = ctypes.CFUNCTYPE(number, text, text, ctypes.c_uint, text, ctypes.c_uint, text,
                                 number, text, pointer, pointer)
        lookup = ctypes.CFUNCTYPE(number, pointer, text, text, ctypes.POINTER(pointer),
                                  ctypes.POINTER(number), ctypes.POINTER(pointer), pointer)
        self.take = parse(self.take_setting)
        self.find = lookup(self.find_setting)
        self.library.config_parse.argtypes = [text, text, pointer, text, lookup, pointer, number,
                                              pointer, pointer]
        self.library.log_set_max_level(0)
        self.c = ctypes.CDLL(None)
        self.c.fmemopen.restype = pointer
        self.c.fmemopen.argtypes = [text, ctypes.c_size_t, text]
        self.c.fclose.argtypes = [pointer]

    def is_here(self):
        return self.library is not None

    def find_setting(self, _table, _stanza, _key, function, kind, data, _user):
        function[0], kind[0], data[0] = ctypes.cast(self.take, ctypes.c_void_p).value, 0, None
        return 1

    def take_setting(self, _unit, _file, _line, stanza, line, key, _kind, value, _data, _user):
        self.settings.append((stanza, line, key, value))
        return 0

    def read_one(self, text):
        self.settings = []
        stream = self.c.fmemopen(text, len(text), b"r") if text else None
        if stream is None:
            return {}
        result = self.library.config_parse(None, b"f", stream, None, self.find, None, 0, None,
                                           None)
        self.c.fclose(stream)
        if result < 0:
            return "%d" % result
        found, names = {}, {}
        for stanza, line, key, value in self.settings:
            if stanza is None:
                continue
            name = self.name(names, stanza, line)
            if value == b"":  # the parsers of settings with several values forget these
                found[name, key] = []
            put(found, name, key, value)
        return found

    def name(self, _names, stanza, _line):
        return stanza


class Network(Systemd):
    """The same, with the line of each header."""

    preset = "systemd-network"

    def name(self, names, stanza, line):
        lines = names.setdefault(stanza, [])
        if line not in lines:
            lines.append(line)
        number = lines.index(line)
        return stanza + (b"#%d" % (number + 1) if number else b"")

    def ours(self, content):
        """The owner doesn't tell of stanzas without entries."""
        counts, found = collections.Counter(), {}
        for stanza, keys in content.items():
            name = re.sub(rb"#[0-9]+$", b"", stanza)
            counts[name] += keys != {}
            number = b"#%d" % counts[name] if counts[name] > 1 else b""
            found.update(((name + number, key), values) for key, values in keys.items())
        return found


# ---------------------------------------------------------------- samba


def first_blanks(value):
    return re.sub(rb"(\s)\s+", rb"\1", value)


class Samba(Peer):
    """LoadParm of samba's own modules for Python, the parser of all its programs: it tells values
    of parameters that it knows."""

    preset = "samba"
    names = [b"comment", b"volume", b"preexec", b"magic output", b"magic script"]
    taste = Taste(
        stanzas=[b"s", b"S", b"t", b"u v", b"uv", b" u  V", b"t.x"],
        keys=[*names, b"Comment", b"vol ume", b"MAGICSCRIPT", b"pre\texec"],
        odd_keys=[b"zz:a", b"unknown", b"comm#ent", b"comment;"],
        words=[word for word in WORDS if word.isascii()])
    classes = (
        ("several blanks, of which the owner takes the first",
         lambda case: case.is_alike(first_blanks)),
        ("lines without =, which the owner skips, and joints elsewhere than in values",
         lambda case: case.is_alike_joined(b"", False, first_blanks)),
        ("a line without =, which the owner warns of and skips", only_there(rb"^[^=]*$")),
        STRANGE_BLANKS, NULS)
    program = """
import sys, os, json, samba.param
def read(text):
    open(sys.argv[1], "wb").write(bytes.fromhex(text))
    lp = samba.param.LoadParm()
    try:
        lp.load(sys.argv[1])
    except Exception as failure:
        return repr(failure)
    return {name.encode("utf-8", "surrogateescape").hex(): {
        key: (lp.get(key, name) or "").encode("utf-8", "surrogateescape").hex()
        for key in sys.argv[2:]} for name in lp.services()}
for line in sys.stdin:
    if os.fork() == 0:
        print(json.dumps(read(line.strip())), flush=True)
        os._exit(0)
    os.wait()
"""

    def is_here(self):
        return os.path.exists("/usr/lib/python3/dist-packages/samba/param.cpython-311-"
                              "x86_64-linux-gnu.so") or bool(
                                  glob.glob("/usr/lib/python3/dist-packages/samba/param*.so"))

    def read(self, texts):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(
                ["/usr/bin/python3", "-c", self.program, folder + "/smb.conf",
                 *(name.decode() for name in self.names)],
                input="\n".join(text.hex() for text in texts) + "\n", stdout=subprocess.PIPE,
                stderr=subprocess.DEVNULL, encoding="ascii", check=True)
        same = Rules(preset("samba")).same_key
        answers = []
        for line in done.stdout.splitlines():
            told = json.loads(line)
            if isinstance(told, dict):
                told = {(same(bytes.fromhex(stanza)), key.encode()): [bytes.fromhex(value)]
                        for stanza, keys in told.items() for key, value in keys.items() if value}
            answers.append(told)
        return answers

    def ours(self, content):
        """What stands ahead of all headers counts for all stanzas that don't say otherwise."""
        rules, found = Rules(preset("samba")), {}
        known = {rules.same_key(name): name for name in self.names}
        for stanza, keys in content.items():
            for key, values in [*content.get(b"", {}).items(), *keys.items()]:
                name = known.get(rules.same_key(key))
                if name and stanza:
                    found[stanza, name] = values
        return {(rules.same_key(stanza), name): values for (stanza, name), values in found.items()
                if values}


# ---------------------------------------------------------------- php


class Php(Files):
    """parse_ini_file(..., true, INI_SCANNER_NORMAL), which is how php.ini is read, with words that
    stand for nothing else."""

    preset, program = "php", "php"
    scanner = "INI_SCANNER_NORMAL"
    # A stanza that is there again would take the place of the first.
    stanzas = [b"s%d" % number for number in range(200)]
    odd = {"odd_keys": [b"k l", b"k.l", b"\xc3\xa4"], "header_tails": False,
           "odd_lines": [b"[", b"[]", b"= x", b"x", b"[s] x", b"\0"]}
    taste = Taste(stanzas=stanzas, signs=[b",", b"#"],
                  words=[b"a", b"b", b"cd", b"12", b"x.y", b"/bin/x", b"\xc3\xa4"], **odd)
    classes = (
        ("a value of several parts, in quotes and not, or of several lines",
         lambda case: case.has(rb"""=\s*([^"'\s;].*["']|".*"\s*[^;\s]|'[^']*'\s*[^;\s]""" +
                               rb"""|"[^"]*$|'[^']*$)""")),
        ("a stanza that is there again, which takes the place of the first",
         lambda case: case.has_again()),
        ("an indented header, for which the owner refuses the file", only_here(
            lambda case: case.has(rb"^\s+\["))),
        ("more behind a header, or no name in it", lambda case: case.has(
            rb"^\s*\[(\]|.*\][^;\r]+)")),
        ("an empty value's comment without a newline at its end", only_here(
            lambda case: case.has(rb"=\s*;[^\n]*\Z"))),
        ("a key alone behind itself with a value, which stays for the owner",
         lambda case: not case.refused_here and not case.refused_there and case.has_entry(
             lambda part: part.value is None and (part.stanza, part.key) in case.theirs)),
        ("a sign that is an operator for the owner", only_here(
            lambda case: case.has(rb"=.*[]\[=!(){}|&~^?]"))),
        STRANGE_BLANKS, NULS)

    def ours(self, content):
        return {key: values for key, values in super().ours(content).items()
                if values is not None}

    script = """
        while (($line = fgets(STDIN)) !== false) {
            $told = [];
            file_put_contents($argv[1], hex2bin(trim($line)));
            $found = @parse_ini_file($argv[1], true, %s);
            if ($found === false) { echo "false\\n"; continue; }
            foreach ($found as $name => $keys) {
                if (is_array($keys))
                    foreach ($keys as $key => $value)
                        $told[] = [bin2hex($name), bin2hex($key),
                                   is_array($value) ? null : bin2hex($value)];
                else
                    $told[] = ["", bin2hex($name), bin2hex($keys)];
            }
            echo json_encode($told), "\\n";
        }
    """

    def read(self, texts):
        with tempfile.TemporaryDirectory() as folder:
            done = subprocess.run(
                ["php", "-n", "-r", self.script % self.scanner, folder + "/f"],
                input="\n".join(text.hex() for text in texts) + "\n", stdout=subprocess.PIPE,
                encoding="ascii", check=True)
        answers = []
        for line in done.stdout.splitlines():
            told = json.loads(line)
            if told is False:
                answers.append("refused")
                continue
            found = {}
            for stanza, key, value in told:
                put(found, bytes.fromhex(stanza), bytes.fromhex(key),
                    None if value is None else bytes.fromhex(value))
            answers.append(found)
        return answers


class PhpRaw(Php):
    """The same with INI_SCANNER_RAW."""

    scanner = "INI_SCANNER_RAW"
    taste = Taste(stanzas=Php.stanzas, **Php.odd)
    classes = (
        ("single quotes and backslashes, which this scanner keeps",
         lambda case: case.is_alike(lambda value: re.sub(
             rb"\\([\"\\])", rb"\1", re.sub(rb"^'(.*)'$", rb"\1", value)))),
        ("a ; within single quotes, which begins a comment for this scanner",
         lambda case: case.has(rb"'[^'\n]*;")),
        ("quotes behind the value's", lambda case: case.has(rb"""=\s*["'].*["'].*["']""")),
        *Php.classes)


# ---------------------------------------------------------------- key files


class Keyfile(Peer):
    """GLib's GKeyFile, with the values as they stand there (g_key_file_get_value)."""

    preset = "desktop"
    taste = Taste(header_tails=False)
    classes = (
        ("blanks behind a value, which the owner keeps",
         lambda case: case.is_alike(lambda value: value.rstrip(BLANKS))),
        ("more behind a header", only_here(lambda case: case.has_header(rb"\].+$"))),
        ("a key with a bracket", only_here(lambda case: case.has_entry(
            lambda part: re.search(rb"[][]", part.key)))),
        STRANGE_BLANKS, NULS)

    def __init__(self):
        try:
            self.glib = ctypes.CDLL("libglib-2.0.so.0")
        except OSError:
            self.glib = None
            return
        pointer, text = ctypes.c_void_p, ctypes.c_char_p
        names = ctypes.POINTER(text)
        for name, result, arguments in (
                ("new", pointer, []), ("free", None, [pointer]),
                ("load_from_data", ctypes.c_int, [pointer, text, ctypes.c_size_t, ctypes.c_int,
                                                  pointer]),
                ("get_groups", names, [pointer, pointer]),
                ("get_keys", names, [pointer, text, pointer, pointer]),
                ("get_value", pointer, [pointer, text, text, pointer])):
            function = getattr(self.glib, "g_key_file_" + name)
            function.restype, function.argtypes = result, arguments
        self.glib.g_strfreev.argtypes = [names]
        self.glib.g_free.argtypes = [pointer]

    def is_here(self):
        return self.glib is not None

    def names(self, names):
        taken = []
        while names[len(taken)] is not None:
            taken.append(names[len(taken)])
        self.glib.g_strfreev(names)
        return taken

    def read_one(self, text):
        glib, file = self.glib, self.glib.g_key_file_new()
        found = {}
        if not glib.g_key_file_load_from_data(file, text, len(text), 0, None):
            found = "refused"
        else:
            for stanza in self.names(glib.g_key_file_get_groups(file, None)):
                for key in self.names(glib.g_key_file_get_keys(file, stanza, None, None)):
                    value = glib.g_key_file_get_value(file, stanza, key, None)
                    taken = ctypes.string_at(value)
                    found[stanza, key] = [taken] if taken else []
                    glib.g_free(value)
        glib.g_key_file_free(file)
        return found


# ---------------------------------------------------------------- option files


class Mysql(Files):
    """my_print_defaults, once for each stanza that texts have."""

    preset, program = "mysql", "my_print_defaults"
    taste = Taste(stanzas=[b"s", b"t", b"t.x", b"u-v"], keys=[b"a", b"A", b"b", b"key", b"k-l"],
                  ahead=0.02)
    classes = (
        ("a backslash in a value, which the owner takes for the begin of a control character",
         lambda case: case.has(rb"=.*\\")),
        ("quotes, which for the owner are the value's first and last byte",
         lambda case: case.has(rb"""=.*["']""")),
        ("no key, or no name of a stanza", only_there(rb"^=|^\[\]")),
        ("entries ahead of all headers", only_here(
            lambda case: case.has_entry(lambda part: part.stanza == b""))),
        STRANGE_BLANKS, NULS)

    def read_file(self, path):
        found = {}
        for stanza in self.taste.stanzas:
            done = self.run("my_print_defaults", "--defaults-file=" + path, stanza)
            if done.returncode != 0:
                return done.stderr.decode("utf-8", "replace")
            for line in done.stdout.split(b"\n")[:-1]:
                key, has_value, value = line[2:].partition(b"=")
                found[stanza, key] = [value] * (value != b"") if has_value else None
        return found

    def ours(self, content):
        return super().ours({stanza: keys for stanza, keys in content.items()
                             if stanza in self.taste.stanzas or stanza == b""})


# ---------------------------------------------------------------- this library


class Own(Peer):
    """The library's own strict load, without a dialect."""

    preset = "strict"
    classes = (("a stanza without a name", only_there(rb"^\s*\[\]")),)

    def read_one(self, text):
        try:
            with Opened(None, text) as opened:
                return self.ours(opened.content())
        except Refused as refused:
            return str(refused)


PEERS = (Git, Configparser, Fail2ban, Pylint, Supervisord, Systemd, Network, Samba, Php, PhpRaw,
         Keyfile, Mysql, Own)


def library_read(dialect, text):
    try:
        with Opened(dialect, text) as opened:
            return opened.content()
    except Refused as refused:
        return str(refused)


def our_answer(peer, text):
    """What the library says of a text, as peer.read() tells it."""
    answer = library_read(preset(peer.preset), text)
    return answer if isinstance(answer, str) else peer.ours(answer)


def reason_of(case):
    """Why both differ, or None."""
    return next((name for name, differs in case.peer.classes if differs(case)), None)


def compare(peer, count, seed, show):
    dialect = preset(peer.preset)
    texts = [random_text(random.Random("%s-%s-%d" % (seed, peer.preset, number)), dialect,
                         peer.taste) for number in range(count)]
    seen = collections.Counter()
    unknown = 0
    for text, theirs in zip(texts, peer.read(texts)):
        case = Case(peer, text, our_answer(peer, text), theirs)
        seen["refused by both" if case.refused_here and case.refused_there else
             "refused here" if case.refused_here else
             "refused there" if case.refused_there else "read by both"] += 1
        if case.is_same():
            seen["alike"] += 1
            continue
        name = reason_of(case)
        if name is not None:
            seen["* " + name] += 1
            continue
        unknown += 1
        if unknown <= show:
            print("%s differs: %r\n  owner   %s\n  library %s" % (
                peer.preset, text, theirs, case.ours))
    print("%-16s %d files: %s%s" % (peer.preset, count, ", ".join(
        "%d %s" % (seen[kind], kind) for kind in (
            "alike", "read by both", "refused by both", "refused here", "refused there")),
        ", %d UNEXPLAINED" % unknown if unknown else ""))
    for kind in sorted(seen):
        if kind.startswith("* "):
            print("    %6d  %s" % (seen[kind], kind[2:]))
    return unknown


def main(count, seed, only=(), show=3):
    unknown = 0
    for make in PEERS:
        peer = make()
        if only and peer.preset not in only:
            continue
        if peer.is_here():
            unknown += compare(peer, count, seed, show)
        else:
            print("%-16s skipped: its owner isn't here" % peer.preset)
    print("wireguard and lax have no reader that tells values")
    return 1 if unknown else 0
