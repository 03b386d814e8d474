"""layerchanges: random changes of layered configurations, and a small model of what
src/Z/config/ZLayers.h says of them: what becomes of the target, of all other files, and of the
values, and what is refused.
"""
import os

from layerrules import (
    COLLECT, REFUSE_SHADOWED, Failure, File, Link, ask, entries_of, expected, find, in_order,
    parts_of, shown, values_of)

NAMES = ["10", "20-a", "9", "B", "a", "\u00e4", "b\n c", " x", "%s*", "a.conf", "-"]
MARK = b"# Made for changed keys; removed with the last of them."


class Change:
    """What a caller does to an object with these values, and where it is to go."""

    def __init__(self, maker, values):
        dice, terms = maker.dice, maker.terms
        self.root = dice.choice(terms.roots) if dice.random() < 0.98 else "/other"
        self.drop_in = None
        if dice.random() < 0.65:
            self.drop_in = dice.choice(NAMES) + terms.suffix
            if dice.random() < 0.03:
                self.drop_in = dice.choice([".x" + terms.suffix, "x~", "a/b" + terms.suffix, ".."])
        folder = terms.folder(self.root, self.drop_in is not None)
        self.place = folder + "/" + (self.drop_in or terms.main)
        self.how = dice.choice(["update", "store"])
        self.before = {which: [v for v, _, _ in list_of] for which, list_of in values.items()}
        self.wanted = {which: list(texts) for which, texts in self.before.items()}
        self.words = []
        for _ in range(dice.choice([0, 1, 1, 1, 2, 3, 6])):
            self.make_one(dice, terms.dialect)
        self.dialect = terms.dialect
        self.keys = [which for which in {**self.before, **self.wanted}
                     if self.before.get(which) != self.wanted.get(which)]

    def make_one(self, dice, dialect):
        which = dice.choice([b"s", b"t", b"u v", b" s", b"new"]), dice.choice(
            [b"a", b"b", b"c", b"d e", b"new"])
        if self.wanted and dice.random() < 0.6:
            which = dice.choice(sorted(self.wanted))
        value = dice.choice([b"1", b"2", b"3", b"x = y", b"# no", b"[s]", b"\xc3\xa4 b", b"new"])
        word = dice.choice(["set", "set", "empty", "add", "add", "delete", "drop"]
                           + ["bare"] * dialect.bare)
        if word == "drop" and which[0]:  # that without a name goes key by key
            self.words.append("delete " + shown(which[0]))
            for other in [other for other in self.wanted if other[0] == which[0]]:
                del self.wanted[other]
            return
        word = {"drop": "delete"}.get(word, word)
        words = [{"empty": "set"}.get(word, word), shown(which[0]), shown(which[1])]
        if word == "delete":
            self.wanted.pop(which, None)
        elif word == "bare":
            self.wanted[which] = [None]
        elif word == "add":
            words.append(shown(value))
            list_of = self.wanted.setdefault(which, [])
            if list_of == [None]:
                list_of.clear()
            if value not in list_of:
                list_of.append(value)
        else:
            words.append(shown(value) if word == "set" else "")
            self.wanted[which] = [value] if word == "set" else []
        self.words.append(" ".join(words))

    def question(self, maker, which_object):
        before = "" if maker.has_prefix else maker.terms.base
        return "\t".join([maker.question(), which_object, self.how, shown(before + self.root),
                          shown(self.drop_in) if self.drop_in else "-", *self.words])

    def is_own(self, found):
        return found.place == self.place and found.kind in ("main", "drop-in")

    def is_refused(self, maker):
        """Whether the target can't be."""
        tree, terms, name = maker.tree, maker.terms, self.drop_in
        if self.root not in terms.roots:
            return True
        if name is not None and (not terms.is_drop_in(name) or "/" in name or "\n" in name):
            return True
        if not self.keys and self.how == "store":
            return False
        kind = "main" if name is None else "drop-in"
        files = find(tree, terms, "")
        own = [found for found in files if self.is_own(found)]
        namesakes = [found for found in files if found.kind == kind and not self.is_own(found)
                     and (name is None or found.place.endswith("/" + name))]
        if not own:
            return bool(namesakes) or tree.place_of(self.place) is None
        if own[0].state not in ("counts", "masks"):
            return True
        node = tree.follow(self.place)[0]
        is_link = isinstance(tree.follow(self.place, last=False)[0], Link)
        if is_link and (maker.has_prefix or own[0].state == "masks"):
            return True
        if own[0].state == "masks" and namesakes:
            return True
        if self.keys and sum(other is node for _, other in maker.files) > 1:
            return True  # a second hard link
        return isinstance(entries_of(node.content, terms.dialect), int)

    def stands_twice(self, maker):
        """Whether more is found, by links, than the target when it gets its first key."""
        tree, terms = maker.tree, maker.terms

        def places():
            return {found.place for found in find(tree, terms, "") if found.state != "masks"}

        before = places()
        place = tree.put(self.place, File(b"\n"))
        if place is not None:
            after = places()
            sync(tree, terms.base, place, on_disk(terms.base))
            return bool(after - before - {self.place})
        try:
            node = tree.follow(self.place)[0]
        except Failure:
            return False
        return isinstance(node, File) and not node.content and sum(
            tree.leads_to(found.place, node) for found in find(tree, terms, "")) > 1


def on_disk(base):
    """All that is there: bytes, a link's target as text, None for a folder."""
    there = {}
    for folder, folders, files in os.walk(os.fsencode(base)):
        for name in folders + files:
            path = os.path.join(folder, name)
            if os.path.islink(path):
                there[path] = os.fsdecode(os.readlink(path))
            elif os.path.isdir(path):
                there[path] = None
            else:
                with open(path, "rb") as opened:
                    there[path] = opened.read()
    return there


def others_lines(content, keys, dialect):
    """The lines of a file but blank ones and the entries of these keys; and how many of them stand
    ahead of each of these keys; in a dialect only of those with one value, for of several any may
    stay, and those without go ahead of others."""
    stanza, kept, ahead, others = b"", [], {}, set()
    for _, lines, says in parts_of(content, dialect):
        if says is not None and says[0] == "header":
            stanza = says[1]
        which = dialect.which(stanza, says[1]) if says and says[0] in ("entry", "bare") else None
        if which in keys:
            if which in ahead or not (says[0] == "entry" and says[2]):
                others.add(which)
            ahead.setdefault(which, len(kept))
        else:
            kept += [line for line in lines if line.strip()]
    if dialect.name != "-":
        ahead = {which: count for which, count in ahead.items() if which not in others}
    return kept, ahead


def target_faults(change, old, new):
    """What is wrong with the target's text, apart from its values."""
    fresh = {stanza for stanza, _ in change.keys}
    fresh -= {says[1] for _, _, says in parts_of(old or b"", change.dialect)
              if says and says[0] == "header"}
    new_lines = [b"[" + stanza + b"]" for stanza in fresh] + ([MARK] if old is None else [])
    left, places = others_lines(old or b"", change.keys, change.dialect)
    lines, new_places = others_lines(new, change.keys, change.dialect)
    for line in lines:
        if left and line in (left[0], *(line + b"\r" for line in left if len(left) == 1)):
            left.pop(0)  # the last one may have had no end
        elif line.strip() not in new_lines:
            return ["the target has a line more: %r" % line]
    moved = [which for which in places if new_places.get(which, places[which]) != places[which]]
    if old and moved:
        return ["%r stands at another place" % moved]
    return ["the target has lost %r" % left] if left else []


def sync(tree, base, place, there):
    """Makes the tree what is on the disk at a place and its folders."""
    parts, node, path = place[1:].split("/"), tree.top, os.fsencode(base)
    for part in parts[:-1]:
        path += b"/" + os.fsencode(part)
        if path not in there:
            node.pop(part, None)
            return
        node = node.setdefault(part, {})
    content = there.get(path + b"/" + os.fsencode(parts[-1]))
    if content is None:
        node.pop(parts[-1], None)
    elif parts[-1] in node:
        node[parts[-1]].content = content
    else:
        node[parts[-1]] = File(content)


def texts_of(values, which):
    return [value for value, _, _ in values.get(which, [])]


class Around:
    """Of all files with entries, those below the target, itself, and those above."""

    def __init__(self, change, read):
        def order(kind, place):
            name = place[place.rindex("/") + 1 :] if kind == "drop-in" else ""
            return ["main", "folder", "drop-in", "extra"].index(kind), os.fsencode(name)

        mine = order("drop-in" if change.drop_in else "main", change.place)
        orders = [(order(pair[0].kind, pair[0].place), pair) for pair in read]
        self.low = [pair for other, pair in orders if other < mine]
        self.own = [pair for other, pair in orders if other == mine]
        self.high = [pair for other, pair in orders if other > mine]


def shadows_of(change, terms, high):
    """For each changed key that the files above give other values, where the last of them does."""
    shadows, values = [], values_of(high, terms)
    for which in change.keys:
        entries = [(found, value, line) for found, all_of in high
                   for stanza, key, value, line in all_of
                   if terms.dialect.which(stanza, key) == which]
        if not entries:
            continue
        wanted, theirs = change.wanted.get(which, []), texts_of(values, which)
        is_whole = not terms.flags & COLLECT or not all(value for _, value, _ in entries)
        if wanted != theirs if is_whole else wanted[len(wanted) - len(theirs) :] != theirs:
            last = entries[-1][0]
            shadows.append((which, {"%s %d" % (shown(found.shown), line)
                                    for found, _, line in entries if found is last}))
    return shadows


def value_faults(change, terms, values, around, shadows, told):
    """What is wrong with the values after a store, and with the shadows that it tells of."""
    wrong = []
    below = values_of(around.low, terms)
    up_to = values_of(around.low + around.own, terms)
    shadowed = [which for which, _ in shadows]
    for which in change.keys:
        wanted = change.wanted.get(which, [])
        if which not in shadowed and texts_of(values, which) != wanted:
            wrong.append("%r hasn't the values that it was given" % (which,))
        if (which in shadowed or not terms.flags & COLLECT) and texts_of(up_to, which) != wanted:
            wrong.append("%r isn't so in the target" % (which,))
        if which in change.wanted and which not in values:
            wrong.append("%r is gone" % (which,))
        if which not in change.wanted and which not in below and which in up_to:
            wrong.append("%r is left in the target" % (which,))
    _, count, where = told.split(" ", 2)
    if int(count) != len(shadows):
        wrong.append("%d keys are shadowed, not %s" % (len(shadows), count))
    if where not in set().union(*(places for _, places in shadows)) and shadows:
        wrong.append("the shadow isn't at " + where)
    return wrong


def refusal_faults(change, before, after, told, answer):
    """What is wrong after a change that was refused."""
    wrong = []
    for other in {**before, **after}:
        is_way = other not in before and after[other] is None  # an update has made it
        if before.get(other, "") != after.get(other, "") and not is_way:
            wrong.append("%r has changed all the same" % other)
    if change.how == "update" and in_order(told) != in_order(answer):
        wrong.append("the object was changed")
    return wrong


def disk_faults(change, path, before, after):
    """What is wrong on the disk after a store into the file of this path."""
    wrong = ["%r has changed" % other for other in {**before, **after}
             if other != path and before.get(other, "") != after.get(other, "")
             and not (path.startswith(other + b"/") and not before.get(other))]
    old, new = (there[path] if isinstance(there.get(path), bytes) else None
                for there in (before, after))
    if old == new and not change.keys:
        return wrong
    if not change.keys:
        return [*wrong, "the target was changed for nothing"]
    is_ours = change.drop_in is not None and (old is None or old.startswith(MARK))
    if new is not None and is_ours and not entries_of(new, change.dialect):
        wrong.append("the target is left without keys")
    if new is not None:
        return wrong + target_faults(change, old, new)
    folder = os.path.dirname(path)
    is_needed = any(other.startswith(folder + b"/") for other in after)
    if old is not None and not is_ours:
        wrong.append("the target is gone")
    elif old is not None and (folder in after) != is_needed:
        wrong.append("its folder isn't as it should be")
    return wrong


def make_change(maker, program, state):
    """Makes a random change. What is wrong with what comes of it, all that tells of it, and the
    state after it; no state where that isn't known."""
    answer, values, read = state
    tree, terms, base = maker.tree, maker.terms, maker.terms.base
    change = Change(maker, values)
    shadows = shadows_of(change, terms, Around(change, read).high)
    is_refused = change.is_refused(maker) or bool(shadows and terms.flags & REFUSE_SHADOWED)
    place = tree.place_of(change.place)
    if place is None and maker.has_prefix or change.stands_twice(maker):
        return [], [], state  # where a link ends nowhere there is room, but below a prefix alone
    place = place or change.place
    try:
        place = tree.follow(place)[1]
    except Failure:
        pass  # it isn't there
    before = on_disk(base)
    question = change.question(maker, "same" if maker.has_object else "new")
    maker.has_object = True
    said, *told = ask(program, question)
    after = on_disk(base)
    story = ["-- asked", question, "-- the library", said, *told]
    if said.startswith("!") != is_refused:
        return ["this %s to be refused" % ("is" if is_refused else "isn't")], story, None
    if is_refused:
        return refusal_faults(change, before, after, told, answer), story, None
    path = os.fsencode(base + place)
    wrong = disk_faults(change, path, before, after)
    story += ["-- the target", "%r" % before.get(path), "%r" % after.get(path)]
    if before != after:  # an update that comes to nothing may have made folders all the same
        sync(tree, base, place, after)
    state = expected(tree, terms, base)
    if in_order(ask(program, maker.question())) != in_order(state[0]):
        wrong.append("a load isn't as the model")
    if state[0] and state[0][0].startswith("!"):
        return wrong, story, None  # without its last file
    wrong += value_faults(change, terms, state[1], Around(change, state[2]), shadows, said)
    if in_order(told) != in_order(state[0]):
        wrong.append("the object isn't as the files are")
    return wrong, [*story, "-- the model", *state[0]], state
