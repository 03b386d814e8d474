"""prove-dialects models: random texts of each preset, changed at random through the C interface,
beside the model in dialectrules.py. Half of them are files, which each store writes and reads."""
import collections
import os
import random
import re
import tempfile

from dialectlib import SWITCHES, Opened, Refused, any_dialect, preset
from dialectrules import BLANKS, Bad, EXACT, NUMBERED, Rules, fold, without_end
from dialecttexts import Maker, Taste

PRESETS = ("configparser", "desktop", "fail2ban", "git", "lax", "mysql", "php", "pylint", "samba",
           "strict", "supervisord", "systemd", "systemd-network", "wireguard", "any")


class Story:
    """One text and what is done to it."""

    def __init__(self, dice, dialect, path):
        self.dice, self.rules = dice, Rules(dialect)
        self.maker = Maker(dice, dialect, Taste())
        self.dialect, self.text = dialect, self.maker.text()
        self.told, self.seen = [repr(self.text)], collections.Counter()
        self.path = path
        if path is not None:
            self.told.append("(a file)")
            with open(path, "wb") as out:
                out.write(self.text)

    def run(self):
        """What is wrong, or None."""
        try:
            parts = self.rules.parts(self.text)
        except Bad:
            parts = None
        try:
            opened = Opened(self.dialect, self.text, self.path)
        except Refused as refused:
            self.seen["refused texts"] += 1
            return None if parts is None else "refused: %s" % refused
        with opened:
            if parts is None:
                return "not refused"
            content = self.rules.content(parts)
            self.was = self.folded(content)
            if self.text_of(opened) != self.text:
                return "stored otherwise"
            for _ in range(self.dice.randint(1, 3)):
                touched, removed = set(), set()
                self.comments, self.has_fewer_comments = [], False
                for _ in range(self.dice.randint(1, 2)):
                    self.edit(opened, content, touched, removed)
                wrong, parts = self.stored(opened, content, parts, touched, removed)
                if wrong or parts is None:
                    return wrong
                if removed and self.path is None:
                    break  # bytes are stored nowhere: a stanza that comes back has its comments
        return None

    def text_of(self, opened):
        """What a store has written."""
        if self.path is None:
            return opened.text()
        opened.store()
        with open(self.path, "rb") as stored:
            return stored.read()

    # ---------------------------------------------------------------- edits

    def name(self, known):
        """One that is there, perhaps in another case, or another."""
        dice = self.dice
        if known and dice.random() < 0.75:
            name = dice.choice(list(known))
            if dice.random() < 0.2 and self.rules.d.names != EXACT:
                name = fold(name)
            return name
        odd = [b"", b" x", b"x=", b"#x", b"]", b"x\ny"]
        return dice.choice([b"new", b"n2", b"a b", b"x.y", b"Zz"] + odd * (dice.random() < 0.2))

    def value(self):
        dice = self.dice
        value = self.maker.value()
        if dice.random() < 0.2:
            value += dice.choice([b" ", b"\n", b"\n  x", b"\nx", b"\\", b"\t", b"\r",
                                  b"\n\n  y", b"\x01"])
        return dice.choice([value, value, b"", b" " + value, b"plain", b"two words"])

    def change(self, opened, name, arguments):
        """Whether the library takes it."""
        self.told.append("%s %r" % (name, arguments))
        try:
            opened.change(name, *arguments)
        except Refused as refused:
            self.told[-1] += " is refused: %s" % refused
            self.seen["refused edits"] += 1
            return False
        return True

    def comment(self, opened, content):
        """Adds or removes a comment, which changes no value."""
        dice = self.dice
        stanza = dice.choice(list(content))
        key = dice.choice(list(content[stanza]) or [None])
        text = dice.choice([b"", b" ", b"# ", b";", b"#"]) + dice.choice(
            [b"c", b"", b"a = 1", b"[s]", b"x \\", b"x\\", b'"', b"x\ny", b"\t", b"\xef\xbb\xbf"])
        name, *arguments = dice.choice([
            ("AddFileComment", text), ("AddStanzaComment", stanza, text),
            ("AddLineComment", stanza, key, text), ("RemoveComments", stanza, key),
            ("RemoveComments", stanza, None), ("RemoveComments", None, None)])
        if name == "AddLineComment" and key is None or name == "RemoveComments" and self.comments:
            return  # of a comment that comes and goes a blank line stays
        if not self.change(opened, name, arguments):
            return
        self.seen["comments"] += 1
        if name == "RemoveComments":
            self.has_fewer_comments = True
        else:
            self.comments.append(text.strip(BLANKS + b"#;"))

    def edit(self, opened, content, touched, removed):
        dice, rules = self.dice, self.rules
        if content and dice.random() < 0.15:
            self.comment(opened, content)
            return
        stanza = self.name(content)
        same = {rules.same_stanza(name): name for name in content}
        known = same.get(rules.same_stanza(stanza))
        keys = content.get(known, {})
        key, value = self.name(keys), self.value()
        name = dice.choice(["SetStringValue"] * 4 + ["AddStringValue"] * 2 + ["RemoveKey"] * 2 +
                           ["RemoveStanza", "SetBare"])
        arguments = {"RemoveStanza": [stanza], "RemoveKey": [stanza, key], "SetBare": [stanza, key]
                     }.get(name, [stanza, key, value])
        if not self.change(opened, name, arguments):
            return
        self.seen["edits"] += 1
        known_key = rules.known_key(keys, key)
        if name == "RemoveStanza":
            if known is not None:
                removed.add(known)
                del content[known]
                gone = rules.same_stanza(known)
                touched -= {name for name in touched if name[0] == gone}
            return
        touched.add((rules.same_stanza(stanza), rules.same_key(key)))
        if name == "RemoveKey":
            if known_key is not None:
                del keys[known_key]
            return
        keys = content.setdefault(stanza if known is None else known, {})
        known_key = key if known_key is None else known_key
        if name == "SetBare":
            keys[known_key] = None
        elif name == "SetStringValue":
            keys[known_key] = [value] if value else []
        elif value not in (keys.get(known_key) or []):
            keys[known_key] = (keys.get(known_key) or []) + [value]

    # ---------------------------------------------------------------- stores

    def stored(self, opened, content, before, touched, removed):
        """What is wrong with the store, and the parts of the new text."""
        try:
            text = self.text_of(opened)
        except Refused as refused:
            self.told.append("the store is refused: %s" % refused)
            self.seen["refused stores"] += 1
            return None, None
        self.told.append("-> %r" % text)
        self.seen["stores"] += 1
        try:
            parts = self.rules.parts(text)
            with Opened(self.dialect, text) as again:
                library = again.content()
        except (Bad, Refused) as bad:
            return "stored as bad data: %s" % bad, None
        for name in [name for name, keys in content.items() if not keys and not name]:
            del content[name]
        names = self.renumber(content)
        if library != self.rules.content(parts):
            return "library and model read %r and %r" % (library, self.rules.content(parts)), None
        if self.folded(library) != self.folded(content):
            return "%r should be %r" % (library, content), None
        if self.path is None and any(name != now for name, now in names.items()):
            return None, None  # the handle hasn't been stored
        if self.folded({name: keys for name, keys in opened.content().items() if keys or name}) != (
                self.folded(content)):
            return "in memory is %r" % opened.content(), None
        return self.last_lines(parts, content, touched) or (
            self.lines(before, parts, touched, removed, names)), parts

    def renumber(self, content):
        """Gives numbered stanzas the names that they have now: {old: new}."""
        counts, names = collections.Counter(), {name: name for name in content}
        if self.rules.d.repeated == NUMBERED:
            old = dict(content)
            content.clear()
            for name in names:
                first = re.sub(rb"(?<=.)#[0-9]+$", b"", name)
                same = self.rules.same_stanza(first)
                counts[same] += 1
                names[name] = first + (b"#%d" % counts[same] if counts[same] > 1 else b"")
                content[names[name]] = old[name]
        return names

    def last_lines(self, parts, content, touched):
        """Who reads only the last line of a key whose values have changed has to see the last."""
        rules, last, was = self.rules, {}, self.was
        self.was = self.folded(content)
        for part in parts:
            if part.kind == "entry":
                last[rules.same_stanza(part.stanza), rules.same_key(part.key)] = part.value
        for stanza, keys in content.items():
            for key, values in keys.items():
                name = rules.same_stanza(stanza), rules.same_key(key)
                has_changed = name in touched and values != was.get(name[0], {}).get(name[1])
                if has_changed and values and last[name] != values[-1]:
                    return "the last line of %r isn't its last value" % (name,)
        return None

    def folded(self, content):
        return {self.rules.same_stanza(stanza): {
            self.rules.same_key(key): values for key, values in keys.items()}
            for stanza, keys in content.items()}

    def lines(self, before, after, touched, removed, names):
        """Whether anything but what was touched has changed. A blank line may come with a new
        header or comment, and go with an old one or with the only entries ahead of all headers;
        comments of a stanza that is gone may stay."""
        rules = self.rules
        same = rules.same_stanza
        stayed = {same(names.get(name, name)) for name in {part.stanza for part in before
                                                           if part.stanza is not None} - removed}
        has_first = all(any(part.stanza == b"" for part in parts) for parts in (before, after))

        now = {same(name): same(name_now) for name, name_now in names.items()}
        keys = touched, {(now.get(stanza, stanza), key) for stanza, key in touched}

        def kept(parts):
            """(line, whether it needn't be there)"""
            lines, comments = [], []
            for part in parts:
                is_gone = parts is before and part.stanza in removed
                if part.kind == "entry" and (is_gone or (
                        same(part.stanza), rules.same_key(part.key)) in keys[parts is after]):
                    continue
                if part.kind == "header" and (
                        is_gone or parts is after and same(part.stanza) not in stayed):
                    if lines and lines[-1][0].strip() == b"":
                        lines[-1] = lines[-1][0], True
                    continue
                if part.kind == "comment":
                    is_other = self.has_fewer_comments if parts is before else (
                        part.lines[0].strip(BLANKS + b"#;\n") in self.comments)
                    if is_other:
                        comments.append(len(lines))
                    is_gone = is_gone or is_other
                is_gone = is_gone or part.kind == "blank" and part.stanza == b"" and not has_first
                # Behind the last line of all a carriage return may become part of a line's end.
                lines += [(without_end(line) if line.endswith(b"\n") else line.rstrip(b"\r"),
                           is_gone) for line in part.lines]
                if part.kind == "entry" and lines[-1][0] == b"":
                    lines[-1] = b"", True  # so that no backslash takes what follows
            for at in comments:
                for near in (at - 1, at + 1):
                    if 0 <= near < len(lines) and lines[near][0].strip() == b"":
                        lines[near] = lines[near][0], True
            return lines

        old, new = kept(before), kept(after)
        states = {(0, 0)}  # how far both can have been gone along
        while states:
            if (len(old), len(new)) in states:
                return None
            more = set()
            for i, k in states:
                if i < len(old) and k < len(new) and old[i][0] == new[k][0]:
                    more.add((i + 1, k + 1))
                if i < len(old) and old[i][1]:
                    more.add((i + 1, k))
                if k < len(new) and new[k][1]:
                    more.add((i, k + 1))
            states = more
        return "other lines: %r became %r" % (old, new)


def main(count, seed, only=(), show=3):
    failures = 0
    folder = tempfile.TemporaryDirectory(dir="/dev/shm" if os.access("/dev/shm", os.W_OK) else None)
    for name in PRESETS:
        if only and name not in only:
            continue
        dialect = None if name == "any" else preset(name)
        seen, wrong_ones = collections.Counter(), 0
        for number in range(count):
            path = os.path.join(folder.name, "f") if number % 2 else None
            dice = random.Random("%s-%s-%d" % (seed, name, number))
            story = Story(dice, dialect or any_dialect(dice), path)
            wrong = story.run()
            seen.update(story.seen)
            if wrong:
                wrong_ones += 1
                if wrong_ones <= show:
                    print("%s, text %d of seed %s" % (name, number, seed), ", ".join(
                        "%s %d" % (switch, getattr(story.dialect, switch)) for switch in SWITCHES),
                          *story.told, wrong, sep="\n  ")
        failures += wrong_ones
        print("%-16s %d texts: %s%s" % (
            name, count, ", ".join("%d %s" % (n, what) for what, n in sorted(seen.items())),
            ", %d WRONG" % wrong_ones if wrong_ones else ""))
    folder.cleanup()
    return 1 if failures else 0
