"""What src/Z/config/dialect/zdialect.h says, as a small model for scripts/prove-dialects: which
lines a text has, what they say, and what an edit leaves alone. Speed is no aim."""

HASH, SEMICOLON = 1, 2
EQUALS, COLON, EITHER, BLANK = range(4)
NO_TAILS, TAILS, TAILS_ANYWHERE, HASH_TAILS, SEMICOLON_TAILS = range(5)
ONE_LINE, INDENT, BACKSLASH, JOINED = range(4)
PLAIN, GIT_QUOTES, SHELL_QUOTES = range(3)
NOT_REPEATED, MERGED, NUMBERED = range(3)
EXACT, FOLDED, FOLDED_BLANKS, FOLDED_KEYS, FOLDED_STANZAS = range(5)
ALL_VALUES, LAST_VALUE, RESET_VALUES = range(3)
SUBSECTIONS, HEADER_TAILS = 1, 2

BLANKS = b" \t\v\f\r"
LONGEST = 8191  # bytes of a short line, its end counted


class Bad(Exception):
    """Bad data; `line` counts from 1."""

    def __init__(self, line, why):
        super().__init__("line %d %s" % (line, why))
        self.line = line


class Part:
    """Some lines that belong together: kind is blank, comment, header or entry. `stanza` is the
    name as content() has it, null ahead of all; `value` is null for a key that stands alone."""

    def __init__(self, kind, lines, stanza, key=None, value=None):
        self.kind, self.lines, self.stanza, self.key, self.value = kind, lines, stanza, key, value


def without_end(line):
    line = line[:-1] if line.endswith(b"\n") else line + b"\0"
    return line[:-1] if line.endswith((b"\r", b"\0")) else line


def fold(text):
    return bytes(c + 32 if 65 <= c <= 90 else c for c in text)


class Rules:
    def __init__(self, dialect):
        self.d = dialect
        comments = dialect.comments or HASH
        self.marks = b"#" * (comments & HASH) + b";" * (comments >> 1)

    # ---------------------------------------------------------------- names

    def same(self, name):
        name = fold(name)
        return name.translate(None, BLANKS) if self.d.names == FOLDED_BLANKS else name

    def same_key(self, key):
        """What all spellings of a key have in common."""
        return key if self.d.names in (EXACT, FOLDED_STANZAS) else self.same(key)

    def are_stanzas_folded(self):
        return self.d.names not in (EXACT, FOLDED_KEYS)

    def same_stanza(self, name):
        if not self.are_stanzas_folded():
            return name
        if self.d.headers & SUBSECTIONS:
            section, dot, rest = name.partition(b".")
            return self.same(section) + dot + rest
        return self.same(name)

    # ---------------------------------------------------------------- lines

    def is_comment(self, line):
        return line[:1] != b"" and line[0] in self.marks

    def tail(self, text, before=b""):
        """Where a comment begins in what follows a divider, or in a key without one, behind these
        bytes."""
        before = before[-1] if before else 0
        for at, c in enumerate(text):
            if self.begins_tail(c, before):
                return at
            before = c
        return len(text)

    def begins_tail(self, c, before):
        if self.d.tails == HASH_TAILS:
            return c == 35
        if self.d.tails == SEMICOLON_TAILS:
            return c == 59 and before in BLANKS
        return c in self.marks and (self.d.tails == TAILS_ANYWHERE or (
            self.d.tails == TAILS and before in BLANKS))

    def parts(self, text):
        """All parts of the text; raises Bad at its first bad line."""
        lines = [line + b"\n" for line in text.split(b"\n")]
        lines[-1] = lines[-1][:-1]
        if lines[-1] == b"":
            lines.pop()
        self.lines = lines
        found, known, counts, stanza, at = [], {}, {}, None, 0
        while at < len(lines):
            first = at
            line = self.line(at)
            at += 1
            if line == b"":
                found.append(Part("blank", lines[first:at], stanza))
            elif self.is_comment(line):
                found.append(Part("comment", lines[first:at], stanza))
            elif line[:1] == b"[":
                name = self.header(line, at)
                same = self.same_stanza(name)
                if same in known and self.d.repeated == NOT_REPEATED:
                    raise Bad(at, "repeats a header")
                if same in known and self.d.repeated == NUMBERED:
                    counts[same] = counts.get(same, 1) + 1
                    name = known[same] + b"#%d" % counts[same]
                    same = self.same_stanza(name)
                stanza = known.setdefault(same, name)
                found.append(Part("header", lines[first:at], stanza))
            else:
                if stanza is None:
                    if not self.d.orphans:
                        raise Bad(at, "stands ahead of all headers")
                    stanza = known.setdefault(b"", b"")
                key, value, at = self.entry(line, at)
                found.append(Part("entry", lines[first:at], stanza, key, value))
        return found

    def line(self, index, first=None):
        """The line's text, once it is known to be one. Of a value that goes on by a backslash the
        first line is the bad one."""
        line, at = self.lines[index], index if first is None else first - 1
        if b"\0" in line:
            raise Bad(at + 1, "has a NUL")
        if self.d.lines == 0 and len(line) > LONGEST:
            raise Bad(at + 1, "is too long")
        if index == 0 and line.startswith(b"\xef\xbb\xbf"):
            raise Bad(at + 1, "has a byte-order mark")
        return without_end(line).strip(BLANKS)

    def header(self, line, number):
        inside, quote, _ = line[1:].partition(b'"')
        close = line.find(b"]")
        if (self.d.headers & SUBSECTIONS and quote and inside[-1:] != b""
                and inside[-1] in BLANKS and b"]" not in inside):
            section = inside.rstrip(BLANKS)
            if section == b"":
                raise Bad(number, "has no name")
            at, name = len(inside) + 2, self.section(section) + b"."
            while at < len(line) and line[at:at + 1] != b'"':
                if line[at:at + 1] == b"\\":
                    at += 1
                    if line[at:at + 1] not in (b'"', b"\\"):
                        raise Bad(number, "has a strange backslash")
                name += line[at:at + 1]
                at += 1
            if line[at:at + 2] != b'"]':
                raise Bad(number, "has no end")
            behind = line[at + 2:]
        else:
            if close < 0:
                raise Bad(number, "has no end")
            name, behind = line[1:close], line[close + 1:]
            if self.same_stanza(name) == b"":
                raise Bad(number, "has no name")
            if self.d.headers & SUBSECTIONS:
                name = self.section(name)
        behind = behind.lstrip(BLANKS)
        if self.d.headers & HEADER_TAILS and behind != b"" and not self.is_comment(behind):
            raise Bad(number, "has more behind it")
        return name

    def section(self, name):
        """[a.B] is a.b where names are folded."""
        first, dot, rest = name.partition(b".")
        return first + dot + (fold(rest) if self.are_stanzas_folded() else rest)

    # ---------------------------------------------------------------- entries

    def divider(self, text):
        marks = (b"=", b":", b"=:", BLANKS)[self.d.divider]
        return next((at for at in range(len(text)) if text[at] in marks), -1)

    def entry(self, line, at):
        """Key, value, and the line behind it."""
        said = line
        if self.d.bare:
            said = line[:self.tail(line)].rstrip(BLANKS)
        divider = self.divider(said)
        if self.d.divider == BLANK and divider >= 0:
            behind = said[divider:].lstrip(BLANKS)
            if self.tail(behind, b" ") == 0:  # a comment is no value
                said, divider = said[:divider], -1
        if divider < 0:
            if not self.d.bare:
                raise Bad(at, "has no divider")
            return said, None, at
        key = line[:divider].rstrip(BLANKS)
        if key == b"":
            raise Bad(at, "has no key")
        value = line[divider + 1:].lstrip(BLANKS)
        before = line[:len(line) - len(value)]
        if self.d.quotes == GIT_QUOTES:
            value, at = self.git_value(at, divider)
        elif self.d.quotes == SHELL_QUOTES and value[:1] in (b'"', b"'"):
            value = self.shell_value(value, at)
            if self.d.continued == INDENT and self.indented(b"", at)[1] != at:
                raise Bad(at, "goes on behind its quotes")
        elif self.d.continued == INDENT:
            value, at = self.indented(
                value[:self.tail(value, before)].rstrip(BLANKS), at)
        elif self.d.continued:
            value, at = self.continued(at, divider)
        else:
            value = value[:self.tail(value, before)].rstrip(BLANKS)
        return key, value, at

    def indented(self, value, at):
        def indent(number):
            text = without_end(self.lines[number])
            return len(text) - len(text.lstrip(BLANKS))

        own, end, gap = indent(at - 1), at, b""
        for number in range(at, len(self.lines)):
            line = self.line(number)
            if line == b"":
                gap += b"\n"
            elif not self.is_comment(line):
                if indent(number) <= own:
                    break
                value += gap + b"\n" + line[:self.tail(line)].rstrip(BLANKS)
                gap, end = b"", number + 1
        return value, end

    def continued(self, at, divider):
        text = without_end(self.lines[at - 1]).lstrip(BLANKS)
        first, value, before = at, b"", text[:divider + 1]
        text = text[divider + 1:]
        while True:
            tail = self.tail(text, before)
            count = len(text) - len(text.rstrip(b"\\"))
            if tail < len(text) or count == 0 or self.d.continued == BACKSLASH and count % 2 == 0:
                return (value + text[:tail]).strip(BLANKS), at
            value, before = value + text[:-1] + b" " * (self.d.continued == BACKSLASH), b""
            while True:
                if at == len(self.lines):
                    raise Bad(first, "goes on behind the last line")
                self.line(at, first)
                text = without_end(self.lines[at])
                at += 1
                if self.d.continued == JOINED or not self.is_comment(text.lstrip(BLANKS)):
                    break

    def git_value(self, at, divider):
        line = without_end(self.lines[at - 1]).lstrip(BLANKS)
        text = line[divider + 1:].lstrip(BLANKS)
        first, value, kept, inside = at, b"", 0, False
        before = line[len(line) - len(text) - 1]
        while text:
            c, text = text[:1], text[1:]
            if c == b'"':
                inside = not inside
                kept = len(value)
            elif c == b"\\" and text[:1] != b"":
                if text[:1] not in b'"\\ntb':
                    raise Bad(first, "has a strange backslash")
                value += {b"n": b"\n", b"t": b"\t", b"b": b"\b"}.get(text[:1], text[:1])
                kept, text = len(value), text[1:]
            elif c == b"\\":
                if self.d.continued != JOINED:
                    raise Bad(first, "has a strange backslash")
                if at == len(self.lines):
                    raise Bad(first, "goes on behind the last line")
                self.line(at, first)
                text = without_end(self.lines[at])
                at, kept = at + 1, len(value)  # blanks ahead of it are inside then
                before = value[-1] if value else 32
                continue
            elif not inside and self.begins_tail(c[0], before):
                break
            elif inside or c[0] not in BLANKS or value != b"":
                value += c
                if inside or c[0] not in BLANKS:
                    kept = len(value)
            before = c[0]
        if inside:
            raise Bad(first, "has an open quote")
        return value[:kept], at

    def shell_value(self, text, number):
        quote, value, at = text[:1], b"", 1
        while text[at:at + 1] != quote:
            if at >= len(text):
                raise Bad(number, "has an open quote")
            if quote == b'"' and text[at:at + 1] == b"\\" and text[at + 1:at + 2] in (b'"', b"\\"):
                at += 1
            value += text[at:at + 1]
            at += 1
        behind = text[at + 1:]
        if behind[:self.tail(behind, quote)].strip(BLANKS) != b"":
            raise Bad(number, "has more behind its quotes")
        return value

    # ---------------------------------------------------------------- content

    def content(self, parts):
        """{stanza: {key: [value, ...]}}, None for a key that stands there alone."""
        content = {}
        for part in parts:
            if part.kind == "header" or part.kind == "entry":
                keys = content.setdefault(part.stanza, {})
            if part.kind != "entry":
                continue
            key = self.known_key(keys, part.key)
            if key is None:
                key = part.key
            known = None if self.d.values == LAST_VALUE else keys.get(key, [])
            if part.value is None:
                keys[key] = known or None
            elif part.value != b"":
                keys[key] = (known or []) + [part.value]
            elif known == [] or self.d.values != ALL_VALUES:
                keys[key] = []
        return content

    def known_key(self, keys, key):
        same = self.same_key(key)
        return next((known for known in keys if self.same_key(known) == same), None)
