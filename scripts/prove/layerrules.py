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


def lines_of(content):
    """("header", name), ("entry", key, value), ("bad",) or None for each line."""
    lines = content.split(b"\n")
    for line in lines[:-1] if lines[-1] == b"" else lines:
        line = line.strip()
        if line == b"" or line.startswith(b"#"):
            yield None
        elif line.startswith(b"[") and b"]" in line:
            yield "header", line[1 : line.index(b"]")]
        elif b"=" in line:
            key, _, value = line.partition(b"=")
            yield "entry", key.strip(), value.strip()
        else:
            yield ("bad",)


def entries_of(content):
    """[(stanza, key, value, line)]; or the number of the first bad line."""
    entries, seen, stanza = [], set(), None
    for number, parts in enumerate(lines_of(content), 1):
        if parts is None:
            continue
        if parts[0] == "bad" or (parts[0] == "entry" and stanza is None):
            return number
        if parts[0] == "header":
            stanza = parts[1]
            if stanza in seen:
                return number
            seen.add(stanza)
        else:
            entries.append((stanza, parts[1], parts[2], number))
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


def values_of(read, terms):
    values = {}
    for found, entries in read:
        fresh = set()
        for stanza, key, value, line in entries:
            which = stanza, key
            if terms.flags & COLLECT:
                if not value:
                    values[which] = []
            elif which not in fresh:
                values[which] = []
                fresh.add(which)
            values.setdefault(which, [])
            if value:
                values[which].append((value, found, line))
    return values


def expected(tree, terms, prefix):
    """What the program is to print, the values with their origins, and the files with entries."""
    files = find(tree, terms, prefix)
    read = []
    for found in files:
        if found.state == "counts":
            entries = entries_of(found.node.content)
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
        answer.append("V %s %s" % (shown(stanza), shown(key)))
        for value, found, line in values[stanza, key]:
            answer.append("v %s %s %d" % (shown(value), shown(found.shown), line))
    for found, entries in read:
        for stanza, key, value, line in entries:
            mine = values[stanza, key]
            counts = (value, found, line) in mine if value else not mine
            texts = shown(stanza), shown(key), shown(value), shown(found.shown)
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
