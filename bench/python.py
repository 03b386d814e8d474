#!/usr/bin/env python3
"""The Python package beside configparser: ratios of one run, each against its mark.

    bench/python.py [KEYS]      10,000 if nothing is said

Each figure is the best of several runs, taken by turns, so that a busy machine moves both. Loading
is the file's way into memory with its first look-up, which makes the package ask the library for
everything; what a stanza holds becomes Python's with the first look-up there. The last line counts
the rows that miss their marks, and the exit code is 1 where there are some.
"""

import configparser
import gc
import os
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "python"))

import zbase  # noqa: E402

KEYS = int(sys.argv[1]) if len(sys.argv) > 1 else 10_000
PER_STANZA = 20
LOOKUPS = 2_000
missed = 0


def best(*tasks, rounds=9):
    """The shortest time of each task."""
    times = [[] for _ in tasks]
    for _ in range(rounds):
        for task, taken in zip(tasks, times):
            gc.collect()
            begin = time.perf_counter()
            task()
            taken.append(time.perf_counter() - begin)
    return [min(taken) for taken in times]


def row(what, mark, ours, theirs):
    """Shows a ratio, and whether it keeps to the mark."""
    global missed
    ratio = ours / theirs
    missed += ratio > mark
    verdict = "ok" if ratio <= mark else "MISSED"
    print(f"{what:<34} {ours * 1e6:>10.1f} us {theirs * 1e6:>10.1f} us "
          f"{ratio:>7.3f}  at most {mark:<5} {verdict}")


def content():
    """A stanza file that both read alike."""
    lines = ["# Made for a measurement.\n"]
    for number in range(KEYS):
        if number % PER_STANZA == 0:
            lines.append(f"\n[stanza {number // PER_STANZA}]\n")
        lines.append(f"key{number} = value number {number}\n" if number % 4 else
                     f"key{number} = {number}\n")
    return "".join(lines)


def lookups(conf, getter):
    """A task that looks keys up all over the file."""
    step = max(1, KEYS // LOOKUPS // 4 * 4)
    wanted = [(f"stanza {n // PER_STANZA}", f"key{n}") for n in range(0, KEYS, step)]

    def task():
        for section, option in wanted:
            getter(conf, section, option)

    return task


def load_ours(path, use):
    with zbase.open(path) as conf:
        use(conf)


def load_theirs(path, use):
    conf = configparser.RawConfigParser()
    conf.read(path, encoding="utf-8")
    use(conf)


def take_all(conf):
    for section in conf.sections():
        len(conf[section])


def main():
    print(f"{KEYS} keys: zbase, configparser, ratio")
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "bench.conf")
        with open(path, "w", encoding="utf-8") as file:
            file.write(content())
        theirs = configparser.ConfigParser()
        theirs.read(path, encoding="utf-8")
        raw = configparser.RawConfigParser()
        raw.read(path, encoding="utf-8")
        with zbase.open(path) as ours:
            for what, mark, use in (
                ("load, and one key", 0.1, lambda c: c["stanza 0"]["key0"]),
                ("load, and every stanza", 0.25, take_all),
            ):
                row(what + ", raw", mark, *best(lambda: load_ours(path, use),
                                               lambda: load_theirs(path, use)))
            for what, getter in (
                ("conf[section][key]", lambda c, s, k: c[s][k]),
                ("conf.get(section, key)", lambda c, s, k: c.get(s, k)),
                ("conf[section].getint(key)", lambda c, s, k: c[s].getint(k)),
                ("conf.getfloat(section, key)", lambda c, s, k: c.getfloat(s, k)),
                ("conf.has_option(section, key)", lambda c, s, k: c.has_option(s, k)),
                ("conf[section].get(missing)", lambda c, s, k: c[s].get("none")),
            ):
                row(what + ", raw", 1.0, *best(lookups(ours, getter), lookups(raw, getter)))
            row("all items of all sections, raw", 1.0, *best(
                lambda: [list(ours[s].items()) for s in ours.sections()],
                lambda: [list(raw[s].items()) for s in raw.sections()]))
            row("conf[section][key]", 1.0, *best(
                lookups(ours, lambda c, s, k: c[s][k]), lookups(theirs, lambda c, s, k: c[s][k])))
    print(f"{missed} missed")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
