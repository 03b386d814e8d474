"""layerrules: a small model of what src/Z/config/disk/zlayerterms.h says: which files of a tree
count, what values they give, and where each stands. scripts/prove-layers has it beside the library.
"""
import os
import re
import sys

MAY_BE_EMPTY, NEEDS_MAIN, COLLECT, SKIP_BAD, REFUSE_SHADOWED = 1, 2, 8, 16, 64
ENOENT, ENOTDIR, EISDIR, ELOOP = 2, 20, 21, 40
NULL = "/dev/null"


class File:
    def __init__(self, content):
        self.content = content


class Link:
    def __init__(self, target):
        self.target = target  # as if the tree were all there is


class Failure(Exception):
    def __init__(self, error):
        super().__init__(error)
        self.error = error


class Tree:
    """What stands where, and how a path is followed: nothing leads out of it."""

    def __init__(self):
        self.top = {}

    def follow(self, path, last=True):
        """The node a path leads to, and its place; NULL for a link's way to that."""
        parts, here, links = path.split("/")[::-1], [], 0
        node = self.top
        while parts:
            part = parts.pop()
            if part in ("", "."):
                if not isinstance(node, dict):
                    raise Failure(ENOTDIR)
                continue
            if not isinstance(node, dict):
                raise Failure(ENOTDIR)
            if part == "..":
                here = here[:-1]
                node = self.at(here)
                continue
            if links and here + [part] == ["dev"] and parts == ["null"]:
                return NULL, NULL
            if part not in node:
                raise Failure(ENOENT)
            if isinstance(node[part], Link) and (parts or last):
                links += 1
                if links > 40:
                    raise Failure(ELOOP)
                target = node[part].target
                if target.startswith("/"):
                    here, node = [], self.top
                parts += target.split("/")[::-1]
                continue
            here, node = here + [part], node[part]
        return node, "/" + "/".join(here)

    def at(self, parts):
        node = self.top
        for part in parts:
            node = node[part]
        return node

    def leads_to(self, path, node):
        try:
            return self.follow(path)[0] is node
        except Failure:
            return False

    def place_of(self, path):
        """Where it stands, or would; None where there is no way."""
        place = ""
        parts = path.strip("/").split("/")
        for index, part in enumerate(parts[:-1]):
            try:
                folder, place = self.follow(place + "/" + part)
            except Failure as failure:
                above = self.follow(place or "/")[0]
                if failure.error != ENOENT or part in above:
                    return None
                return place.rstrip("/") + "/" + "/".join(parts[index:])
            if not isinstance(folder, dict):
                return None
        return place.rstrip("/") + "/" + parts[-1]

    def put(self, path, node):
        """Where it stands then; None where something stands already or there is no way."""
        place = self.place_of(path)
        if place is None:
            return None
        folder = self.top
        for part in place[1:].split("/")[:-1]:
            folder = folder.setdefault(part, {})
        name = place[place.rindex("/") + 1 :]
        if name in folder:
            return None
        folder[name] = node
        return place


# ---------------------------------------------------------------- a file's text


class Dialect:
    """What src/Z/config/dialect/zdialect.h says of some presets, and the library's own grammar."""

    def __init__(self, name, **switches):
        self.name, self.comments, self.dividers = name, b"#", b"="
        self.bare = self.indent = self.backslash = self.merges = self.numbers = False
        self.orphans = self.resets = self.folds_keys = False
        self.__dict__.update(switches)

    def which(self, stanza, key):
        return stanza, key.lower() if self.folds_keys else key


OWN = Dialect("-")
BOTH = {"comments": b"#;"}
DIALECTS = [
    Dialect("systemd", **BOTH, backslash=True, merges=True, resets=True),
    Dialect("systemd-network", **BOTH, backslash=True, numbers=True, resets=True),
    Dialect("lax", **BOTH, dividers=b"=:", bare=True, merges=True, orphans=True),
    Dialect("configparser", **BOTH, dividers=b"=:", indent=True, folds_keys=True),
]


def is_comment(line, dialect):
    return line.strip()[:1] in [dialect.comments[i : i + 1] for i in range(len(dialect.comments))]


def goes_on(line):
    line = line[:-1] if line.endswith(b"\r") else line
    return (len(line) - len(line.rstrip(b"\\"))) % 2 == 1


def indent_of(line):
    return len(line) - len(line.lstrip())


def parts_of(content, dialect):
    """(number of the first line, the lines, what they say): None, ("header", name),
    ("entry", key, value), ("bare", key) or ("bad",)."""
    lines = content.split(b"\n")
    lines = lines[:-1] if lines[-1] == b"" else lines
    at = 0
    while at < len(lines):
        first, at = at, at + 1
        line = lines[first].strip()
        if line == b"" or is_comment(line, dialect):
            says = None
        elif line.startswith(b"[") and b"]" in line:
            says = "header", line[1 : line.index(b"]")]
        else:
            divider = min((line.index(c) for c in dialect.dividers if c in line), default=None)
            if divider is None:
                says = ("bare", line) if dialect.bare else ("bad",)
            else:
                key, value = line[:divider].strip(), line[divider + 1 :].strip()
                if dialect.indent:
                    value, at = indented(lines, first, value, dialect)
                if dialect.backslash and goes_on(lines[first]):
                    value, at = continued(lines, first, value, dialect)
                says = ("entry", key, value) if key and value is not None else ("bad",)
        yield first + 1, lines[first:at], says


def indented(lines, first, value, dialect):
    """The value with the lines that belong to it, and the line behind them."""
    end, blanks = first + 1, b""
    for at in range(first + 1, len(lines)):
        text = lines[at].strip()
        if text == b"":
            blanks += b"\n"
        elif not is_comment(text, dialect):
            if indent_of(lines[at]) <= indent_of(lines[first]):
                break
            value += blanks + b"\n" + text
            end, blanks = at + 1, b""
    return value, end


def continued(lines, first, value, dialect):
    value, at = value[:-1] + b" ", first + 1
    while at < len(lines):
        line = lines[at][:-1] if lines[at].endswith(b"\r") else lines[at]
        at += 1
        if is_comment(line, dialect):
            continue
        if not goes_on(line):
            return (value + line).strip(), at
        value += line[:-1] + b" "
    return None, first + 1


def entries_of(content, dialect):
    """[(stanza, key, value, line)], the value None where there is no divider; or the number of the
    first bad line."""
    entries, seen, stanza = [], {}, b"" if dialect.orphans else None
    for number, _, says in parts_of(content, dialect):
        if says is None:
            continue
        if says[0] == "bad" or (says[0] != "header" and stanza is None):
            return number
        if says[0] == "header":
            stanza = says[1]
            seen[stanza] = seen.get(stanza, 0) + 1
            if seen[stanza] > 1 and dialect.numbers:
                stanza += b"#%d" % seen[stanza]
            elif seen[stanza] > 1 and not dialect.merges:
                return number
        else:
            entries.append((stanza, says[1], says[2] if says[0] == "entry" else None, number))
    return entries


# ---------------------------------------------------------------- the rules


class Found:
    def __init__(self, kind, place, prefix):
        self.kind, self.place, self.shown = kind, place, prefix + place
        self.state, self.node, self.bad = None, None, None


class Terms:
    def folder(self, root, drop_ins):
        folder = root + ("/" + self.project if self.project else "")
        return folder + ("/" + self.main + ".d" if drop_ins else "")

    @property
    def main(self):
        return self.name + self.suffix

    def is_drop_in(self, name):
        return not name.startswith(".") and not name.endswith("~") and name.endswith(self.suffix)


def judge(tree, found):
    """What has become of a file that nothing hides."""
    try:
        node, _ = tree.follow(found.place)
    except Failure as failure:
        found.state, found.bad = "bad", failure.error
        return
    if node == NULL or (isinstance(node, File) and not node.content and found.kind != "extra"):
        found.state = "masks"
    elif isinstance(node, File):
        found.state, found.node = "counts", node
    else:
        found.state, found.bad = "bad", EISDIR


def hide(files):
    for found in files[:-1]:
        found.state = "hidden"


def find(tree, terms, prefix):
    mains, folders, drop_ins = [], [], []
    for root in terms.roots:
        main = Found("main", terms.folder(root, False) + "/" + terms.main, prefix)
        try:
            tree.follow(main.place, last=False)
            mains.append(main)
        except Failure as failure:
            if failure.error == ELOOP:
                mains.append(main)
        place = terms.folder(root, True)
        folder = Found("folder", place, prefix)
        try:
            node, _ = tree.follow(place)
            if not isinstance(node, dict):
                raise Failure(ENOTDIR)
            for name in node:
                if terms.is_drop_in(name):
                    found = Found("drop-in", place + "/" + name, prefix)
                    drop_ins.append((os.fsencode(name), found))
        except Failure as failure:
            # A file or a loop in its place is no folder that isn't there.
            try:
                is_other = tree.follow(place)[0] is not None
            except Failure as again:
                is_other = again.error == ELOOP
            if is_other:
                folder.state, folder.bad = "bad", failure.error
                folders.append(folder)
    hide(mains)
    drop_ins.sort(key=lambda pair: pair[0])  # keeps the order of the roots
    for name in {name for name, _ in drop_ins}:
        hide([found for other, found in drop_ins if other == name])
    files = mains + folders + [found for _, found in drop_ins]
    for place in terms.extra:
        extra = Found("extra", place, terms.base)
        files.append(extra)
    for found in files:
        if found.state is None:
            judge(tree, found)
    last = {}
    for found in files:
        if found.state == "counts":
            if id(found.node) in last:
                last[id(found.node)].state = "repeated"
            last[id(found.node)] = found
    return files


class Values(dict):
    """The values of each key as (value, found, line), by folded names; the one value of a key
    without a divider is None."""

    def __init__(self):
        super().__init__()
        self.spelled = {}


def values_of(read, terms):
    values = Values()
    for found, entries in read:
        fresh = set()
        for stanza, key, value, line in entries:
            which = terms.dialect.which(stanza, key)
            values.spelled.setdefault(which, (stanza, key))
            is_first = which not in fresh
            fresh.add(which)
            resets = not value and (terms.dialect.resets or terms.flags & COLLECT)
            if resets or (is_first and not terms.flags & COLLECT):
                values[which] = []
            mine = [each for each in values.get(which, []) if each[0] is not None]
            if value or (value is None and not mine):
                mine.append((value, found, line))
            values[which] = mine
    return values


def expected(tree, terms, prefix):
    """What the program is to print, the values with their origins, and the files with entries."""
    files = find(tree, terms, prefix)
    read = []
    for found in files:
        if found.state == "counts":
            entries = entries_of(found.node.content, terms.dialect)
            if isinstance(entries, int):
                found.state, found.bad = "bad", -entries
            else:
                read.append((found, entries))
    for found in files:
        if found.state == "bad" and not terms.flags & SKIP_BAD:
            if found.bad < 0:
                return ["!data %d %s" % (-found.bad, shown(found.shown))], {}, []
            call = "opendir%28%29" if found.kind == "folder" else "fopen%28r%29"
            return ["!io %s %d %s" % (call, found.bad, shown(found.shown))], {}, []
    has_main = any(f.kind == "main" and f.state not in ("bad", "masks") for f in files)
    has_any = any(f.state != "bad" for f in files)
    if not has_main and (
        terms.flags & NEEDS_MAIN or not (has_any or terms.flags & MAY_BE_EMPTY)
    ):
        main = prefix + terms.folder(terms.roots[-1], False) + "/" + terms.main
        return ["!io fopen%28r%29 2 " + shown(main)], {}, []
    values = values_of(read, terms)
    answer = ["F %s %s" % (found.state, shown(found.shown)) for found in files]
    for stanza, key in sorted(values):
        answer.append("V %s %s" % tuple(map(shown, values.spelled[stanza, key])))
        for value, found, line in values[stanza, key]:
            answer.append("v - - 0" if value is None else
                          "v %s %s %d" % (shown(value), shown(found.shown), line))
    for found, entries in read:
        for stanza, key, value, line in entries:
            mine = values[terms.dialect.which(stanza, key)]
            counts = (value, found, line) in mine if value else not mine
            if value is None:
                counts = [each[0] for each in mine] == [None]
            texts = shown(stanza), shown(key), shown(value or b""), shown(found.shown)
            answer.append("E %s %s %s %s %d %d" % (*texts, line, counts))
    return answer, values, read


def shown(text):
    if isinstance(text, str):
        text = os.fsencode(text)
    return re.sub(rb"[^A-Za-z0-9_./]", lambda c: b"%%%02X" % c[0][0], text).decode()


# ---------------------------------------------------------------- answers


def ask(program, question):
    program.stdin.write(question.encode() + b"\n")
    program.stdin.flush()
    answer = []
    while True:
        line = program.stdout.readline().decode()
        if not line:
            sys.exit("the program has ended, asked " + question)
        if line == ".\n":
            return answer
        answer.append(line.rstrip("\n"))


def in_order(answer):
    """Keys with their values in the order of their names; of a failed load that alone."""
    failures = [line for line in answer if line.startswith("!")]
    if failures:
        return failures
    keys, rest = [], []
    for line in answer:
        if line.startswith("V"):
            keys.append([line])
        elif line.startswith("v"):
            keys[-1].append(line)
        else:
            rest.append(line)
    first = [line for line in rest if line.startswith("F")]
    by_name = sorted(keys, key=lambda key: key[0])
    return first + [line for key in by_name for line in key] + rest[len(first):]
