"""Random texts in a dialect, most of them good, for scripts/prove-dialects."""
from dialectrules import (
    BACKSLASH, BLANK, COLON, EITHER, GIT_QUOTES, INDENT, JOINED, SHELL_QUOTES, SUBSECTIONS, Rules)

WORDS = [b"a", b"b", b"cd", b"1", b"0", b"yes", b"/bin/x", b"%s", b"\xc3\xa4", b"$x", b"x.y", b"-"]
SIGNS = [b"#", b";", b"=", b":", b'"', b"'", b"\\", b"[", b"]", b" ", b"  ", b"\t", b" #", b" ;",
         b"\\\\", b'\\"', b"\\n", b"\\t", b"\\ ", b"'x'", b'"x"', b'""', b"!", b"{", b"|", b"`"]


class Taste:
    """What the texts are made of; a peer that knows less narrows it."""

    def __init__(self, **others):
        self.stanzas = [b"s", b"S", b"t", b"u v", b"uv", b"t.x", b"global"]
        self.keys = [b"a", b"A", b"b", b"key", b"Key", b"k-l", b"c1"]
        self.odd_keys = [b"k l", b"kl", b"k.l", b"\xc3\xa4", b"a]", b"[a", b"a#b", b"a;b", b"a\\"]
        self.words, self.signs = WORDS, SIGNS
        self.blanks = [b" ", b" ", b"", b"", b"  ", b"\t", b" \t "]
        self.odd_blanks = [b"\v", b"\f", b"\r"]
        self.odd_lines = [b"[", b"[]", b"]", b"=", b"= x", b"x", b"[s", b"[s] x", b"[ s ]", b"[s]]",
                          b"\\", b'"', b"[s \"b\"]x", b"[a \"b]", b"\0", b"\xef\xbb\xbf", b"<x>"]
        self.header_tails = self.key_tails = True  # comments behind headers and keys alone
        self.ahead = 0.5  # of the texts may have entries ahead of all headers, where these can be
        self.tame = 0.5  # of the texts have nothing odd
        self.__dict__.update(others)


class Maker:
    def __init__(self, dice, dialect, taste):
        self.dice, self.d, self.taste, self.rules = dice, dialect, taste, Rules(dialect)
        self.oddness = 0 if dice.random() < taste.tame else dice.choice([0.02, 0.1, 0.3])

    def is_odd(self):
        return self.dice.random() < self.oddness

    def blanks(self):
        return self.dice.choice(self.taste.odd_blanks if self.is_odd() else self.taste.blanks)

    def key(self):
        dice = self.dice
        return dice.choice(self.taste.odd_keys if self.is_odd() else self.taste.keys)

    def value(self):
        """The text behind a divider, without its end."""
        dice, d = self.dice, self.d
        words = [dice.choice(self.taste.words) for _ in range(dice.choice([0, 1, 1, 1, 2, 3]))]
        plain = dice.choice([b" ", b" ", b"", b"  ", b", "]).join(words)
        signs = self.oddness or dice.random() < 0.4
        if signs and d.quotes == 0 or self.is_odd():
            for _ in range(dice.randint(0, 3)):
                at = dice.randint(0, len(plain))
                plain = plain[:at] + dice.choice(self.taste.signs) + plain[at:]
        if d.quotes and dice.random() < 0.4:
            plain = self.quoted(plain)
        if d.quotes == GIT_QUOTES and dice.random() < 0.2:
            plain += dice.choice([b"\\n", b"\\t", b'\\"', b"\\\\", b"\\b"])
        if dice.random() < 0.2:
            mark = bytes([dice.choice(self.rules.marks)])
            plain += dice.choice([b" ", b"\t", b"  ", b" ", b""]) + mark + dice.choice(
                [b"", b" c", b" a = 1", b'"', b" x\\", mark, b" ' "])
        return plain

    def quoted(self, plain):
        dice = self.dice
        mark = b"'" if self.d.quotes == SHELL_QUOTES and dice.random() < 0.4 else b'"'
        inside = plain.translate(None, mark + b"\\") + dice.choice(
            [b"", b"", b"", b" ", b" #x", b";", b"'" if mark == b'"' else b'"', b"=", b"[x]",
             b'\\"' if mark == b'"' else b"", b"\\\\" if mark == b'"' else b"\\"])
        behind = b""
        if self.d.quotes == GIT_QUOTES:
            behind = dice.choice([b"", b"", b"x", b" y", b' ""', b' "z" '])
        return mark + inside + mark + behind

    def continuation(self, indent):
        """More lines for a value, each with the newline ahead of it."""
        dice, d, lines = self.dice, self.d, b""
        if d.continued == INDENT:
            while dice.random() < 0.5:
                kind = dice.random()
                if kind < 0.12:
                    lines += b"\n" + self.blanks()
                elif kind < 0.25:
                    lines += b"\n" + self.blanks() + self.comment()
                else:
                    deeper = indent + dice.choice([b" ", b"\t", b"    ", b"  "])
                    lines += b"\n" + deeper + (self.value() or b"x")
            return lines
        while d.continued in (BACKSLASH, JOINED) and dice.random() < 0.5:
            lines += dice.choice([b"\\", b" \\", b" \\"]) + b"\n"
            if dice.random() < 0.2 and (d.continued == BACKSLASH or self.is_odd()):
                lines += self.blanks() + self.comment() + b"\n"
            lines += self.blanks() + dice.choice(
                [b"x", b"y z", b"[t]", b"a = 1", b'"', b"x # y"] if self.oddness else [b"x", b"y"])
        return lines

    def comment(self):
        dice = self.dice
        return bytes([dice.choice(self.rules.marks)]) + dice.choice(
            [b"", b" c", b"a = 1", b"[s]", b" \\", b"\\", b' "'])

    def header(self):
        dice, d = self.dice, self.d
        name = dice.choice(self.taste.stanzas)
        if d.headers & SUBSECTIONS and dice.random() < 0.4:
            name = name.partition(b".")[0].replace(b" ", b"")
            name += dice.choice([b' "', b'\t"', b'  "']) + dice.choice(
                [b"x", b"X", b"a b", b"a.b", b'\\"', b"\\\\", b"]", b"#", b"", b"\xc3\xa4"]) + b'"'
        tail = b""
        if self.taste.header_tails and dice.random() < 0.2:
            tail = dice.choice([b" ", b"\t", b" "]) + self.comment()
        if self.is_odd():
            tail = dice.choice([b"x", b" k = v", b"]", b"#", b" \\"])
        return b"[" + name + b"]" + tail

    def entry(self, indent):
        dice, d, key = self.dice, self.d, self.key()
        if d.bare and dice.random() < 0.15:
            has_tail = self.taste.key_tails or self.is_odd()
            return key + dice.choice([b"", b"", b" ", b"\t"] + [b" #x", b" ; = x"] * has_tail)
        if d.divider == BLANK:
            return key + (self.blanks() or b" ") + (self.value() or b"x")
        mark = b":" if d.divider == COLON or d.divider == EITHER and dice.random() < 0.3 else b"="
        value = self.value()
        more = self.continuation(indent)
        return key + self.blanks() + mark + self.blanks() + value + more

    def text(self):
        dice, taste = self.dice, self.taste
        lines, has_header = [], self.d.orphans and dice.random() < taste.ahead
        for _ in range(dice.choice([0, 1, 3, 6, 10, 15])):
            indent = dice.choice([b"", b"", b"", b"\t", b"  ", b" "])
            kind = dice.random()
            if self.is_odd():
                lines.append(dice.choice(taste.odd_lines))
            elif kind < 0.1:
                lines.append(dice.choice([b"", b"", b" ", b"\t "]))
            elif kind < 0.2:
                lines.append(indent + self.comment())
            elif kind < 0.35 or not has_header:
                has_header = True
                lines.append((indent if dice.random() < 0.2 else b"") + self.header())
            else:
                if self.d.continued == INDENT and dice.random() < 0.8:
                    indent = b""
                lines.append(indent + self.entry(indent))
        text = b"\n".join(lines)
        if lines and dice.random() < 0.8:
            text += b"\n"
        ends = dice.random()
        if ends < 0.1:
            text = text.replace(b"\n", b"\r\n")
        elif ends < 0.15:
            text = text.replace(b"\n", b"\r\n", 2)
        return text


def random_text(dice, dialect, taste):
    return Maker(dice, dialect, taste).text()
