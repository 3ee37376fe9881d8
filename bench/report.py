#!/usr/bin/env python3
"""report.py RESULTS [DOCUMENT]: the table and the plots of one run of scripts/bench.sh.

RESULTS holds the JSON files written by the benchmark programs. Prints the table and what has changed since the recorded
run, and writes summary.json and the plots there. Rows that were not measured are omitted. With a document, the table
replaces what is between its two marks, and the plots and the medians go into the folder named after the document.
"""
import json
import pathlib
import re
import statistics
import sys

import plot

RECORDED = pathlib.Path(__file__).resolve().parent.parent / "docs/performance/recorded.json"
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}


class Measures:
    """All rounds of all benchmarks, by name, in nanoseconds."""

    def __init__(self, directory):
        self.rounds = {}
        self.counters = {}
        for path in sorted(directory.glob("bench-*.json")):
            prefix = SLOW + "/" if path.name.startswith("bench-slow-") else ""
            for entry in json.loads(path.read_text())["benchmarks"]:
                if entry.get("run_type") != "iteration" or entry.get("error_occurred"):
                    continue
                suffixes = r"/(manual_time|real_time|process_time|iterations:\d+|repeats:\d+)"
                name = prefix + re.sub(suffixes, "", entry["name"])
                self.rounds.setdefault(name, []).append(entry["real_time"] * NANOSECONDS[entry["time_unit"]])
                for counter in ("peak_above_rules", "peak_before", "peak"):
                    if counter in entry:
                        self.counters.setdefault((name, counter), []).append(entry[counter])

    def median(self, name):
        return statistics.median(self.rounds[name])

    def spread(self, name):
        """Half the distance between the quartiles, as a fraction of the median."""
        rounds = self.rounds[name]
        if len(rounds) < 4:
            return 0.0
        low, _, high = statistics.quantiles(rounds, n=4)
        return (high - low) / 2 / self.median(name)

    def counter(self, name, counter):
        return statistics.median(self.counters[name, counter])

    def has(self, *names):
        return all(name in self.rounds for name in names)

    def fastest(self, names):
        return min(filter(self.has, names), key=self.median, default=None)

    def shown(self, name):
        value = self.median(name)
        for unit, size in (("s", 1e9), ("ms", 1e6), ("µs", 1e3), ("ns", 1)):
            if value >= size or unit == "ns":
                return f"{three(value / size)} {unit} ±{self.spread(name) * 100:.0f} %"


def three(value):
    """Three significant digits."""
    return f"{value:.0f}" if value >= 100 else f"{value:.1f}" if value >= 10 else f"{value:.2f}"


def replaced(kind, shape):
    return [f"write/{kind}-rollback/{shape}", f"write/{kind}-wal/{shape}"]


FULL, SMALL = "64x1024", "3x100"
SLOW = "slow disk"


def changed(shape, disk=""):
    """The floor of all three files, which the library need not write, and of the rule set's file alone."""
    prefix, label = (disk + "/", ", " + disk) if disk else ("", "")
    ours, work = f"{prefix}change/ours/{shape}", f"one rule changed, durable, {shape}{label}"
    return [(work, ours, f"{prefix}change/floor/{shape}", 0.45,
             [("AES, write-ahead log", [f"{prefix}change/sql-aes-wal/{shape}"], 0.5 if shape == SMALL else None),
              ("AES, rollback journal", [f"{prefix}change/sql-aes-rollback/{shape}"], None)]),
            (f"{work}: its file alone", ours, f"{prefix}change/floor-one-file/{shape}", 1.25, [])]


# Work, ours, floor, goal (times the floor), peers: what, the candidates, of which the fastest counts, goal (times faster).
ROWS = [
    (f"write everything, {FULL}", f"write/ours/{FULL}", f"write/floor/{FULL}", 1.3,
     [("AES, every row replaced", replaced("sql-aes", FULL), 2.2), ("AES, new file", [f"write/sql-aes-fill/{FULL}"], 1.3),
      ("plain, every row replaced", replaced("sql", FULL), None), ("plain, new file", [f"write/sql-fill/{FULL}"], None)]),
    (f"write everything, {SMALL}", f"write/ours/{SMALL}", f"write/floor/{SMALL}", 1.2,
     [("AES, every row replaced", replaced("sql-aes", SMALL), 1.4), ("AES, new file", [f"write/sql-aes-fill/{SMALL}"], 1.4),
      ("plain, every row replaced", replaced("sql", SMALL), None), ("plain, new file", [f"write/sql-fill/{SMALL}"], None)]),
    (f"read everything, {FULL}", f"read/ours/{FULL}", f"read/floor/{FULL}", 1.3,
     [("AES", [f"read/sql-aes/{FULL}"], 1.25), ("plain", [f"read/sql/{FULL}"], None)]),
    (f"read everything, {SMALL}", f"read/ours/{SMALL}", f"read/floor/{SMALL}", 1.3,
     [("AES", [f"read/sql-aes/{SMALL}"], 1.4), ("plain", [f"read/sql/{SMALL}"], None)]),
    *changed(FULL), *changed(SMALL), *changed(SMALL, SLOW),
    (f"kxRuleGetRule at random, {FULL}", f"get/ours/random/{FULL}", f"get/floor/random/{FULL}", 1.3,
     [("AES, in a transaction", [f"get/sql-aes/random/{FULL}"], 1.0)]),
    (f"kxRuleGetRule in order, {FULL}", f"get/ours/order/{FULL}", f"get/floor/order/{FULL}", 1.15,
     [("AES, in a transaction", [f"get/sql-aes/order/{FULL}"], 1.0)]),
    (f"kxRuleGetRule at random, {SMALL}", f"get/ours/random/{SMALL}", f"get/floor/random/{SMALL}", None,
     [("AES, in a transaction", [f"get/sql-aes/random/{SMALL}"], 2.5)]),
    (f"kxRuleAddRule, growing to {FULL}", f"add/ours/{FULL}", f"add/floor/{FULL}", 1.2,
     [("AES, in a transaction", [f"add/sql-aes/{FULL}"], 2.0)]),
    (f"kxRuleAddRule, growing to {SMALL}", f"add/ours/{SMALL}", f"add/floor/{SMALL}", None,
     [("AES, in a transaction", [f"add/sql-aes/{SMALL}"], 2.0)]),
    ("kxRuleGetRuleString, 64 characters", "line/ours", "line/floor", 1.5, []),
    ("kxRuleGetRuleString2, 64 characters", "line/ours-record", "line/floor", None, []),
]

ALONE = [
    ("writing a page to a file and flushing it", f"flush/{SMALL}"),
    ("the same, slow disk", f"{SLOW}/flush/{SMALL}"),
    ("copying the bytes of the full store", f"copy/{FULL}"),
    ("the cipher alone, encrypting the full store", f"cipher/encrypt/{FULL}"),
    ("the cipher alone, decrypting the full store", f"cipher/decrypt/{FULL}"),
    ("a look-up in two tree maps under a critical section, at random", f"get/tree/random/{FULL}"),
    ("the same, in order", f"get/tree/order/{FULL}"),
    ("kxRuleIsRuleActive, at random", f"active/ours/random/{FULL}"),
]


def verdict(value, goal, most, unit=""):
    if goal is None:
        return "–"
    return ("≤ " if most else "≥ ") + f"{goal:g}{unit} " + ("met" if (value <= goal if most else value >= goal) else "**missed**")


def main_table(m, summary):
    rows = [["work", "library", "floor", "× floor", "goal", "peer", "", "× faster than the peer (the floor)", "goal"]]
    for work, ours, floor, floor_goal, peers in ROWS:
        if not m.has(ours, floor):
            continue
        ratio = m.median(ours) / m.median(floor)
        cells = [work, m.shown(ours), m.shown(floor), f"{ratio:.2f}", verdict(ratio, floor_goal, True)]
        entry = {"work": work, "library_ns": m.median(ours), "spread": m.spread(ours), "floor_ns": m.median(floor),
                 "times_floor": ratio, "goal": floor_goal, "peers": {}}
        measured = [(what, peer, goal) for what, candidates, goal in peers if (peer := m.fastest(candidates))]
        if not measured:
            rows.append(cells + ["–", "–", "–", "–"])
        for what, peer, goal in measured:
            ratio = m.median(peer) / m.median(ours)
            floor_ratio = m.median(peer) / m.median(floor)
            rows.append(cells + [what + (" (log)" if peer.endswith(f"-wal/{FULL}") and "log" not in what else ""),
                                 m.shown(peer), f"{ratio:.2f} ({floor_ratio:.2f})", verdict(ratio, goal, False)])
            entry["peers"][what] = {"benchmark": peer, "ns": m.median(peer), "times_faster": ratio,
                                    "floor_times_faster": floor_ratio, "goal": goal}
            cells = [""] * 5
        summary["rows"].append(entry)
    return rows


def other_table(m, counts, summary):
    mib = 1024 * 1024
    rows = [["measured", "result", "goal"]]
    for work, name in (("write", f"memory/write/ours/{FULL}"), ("read", f"read/ours/{FULL}")):
        if not m.has(name):
            continue
        value = m.counter(name, "peak_above_rules") / mib
        sql = name.replace("ours", "sql-aes")
        peer = f" (SQL {m.counter(sql, 'peak_above_rules') / mib:.1f} MiB)" if m.has(sql) else ""
        rows.append([f"peak memory above the rules, full {work}", f"{value:.1f} MiB{peer}", verdict(value, 4, True, " MiB")])
        summary[f"peak_above_rules_{work}_mib"] = value
    if m.has("trace/off", "trace/none"):
        trace = max(m.median("trace/off") - m.median("trace/none"), 0)
        rows.append(["a trace call that is off", f"{trace:.2f} ns", verdict(trace, 5, True, " ns")])
        summary["trace_off_ns"] = trace
    for work, operations in counts.items():
        rows.append([f"file calls, {'one rule changed' if work == 'change' else 'full ' + work}",
                     ", ".join(f"{count} {name}" for name, count in operations.items()), "–"])
    summary["file_calls"] = counts
    return rows + [[work, m.shown(name), "–"] for work, name in ALONE if m.has(name)]


def start_table(m):
    rows = [["start to the first look-up", "library", "loading the DLL", "initialize", "read", "look-up", "SQL, all read",
             "SQL, one row"]]
    for shape in (FULL, SMALL):
        for state in ("cold", "warm"):
            ours = [f"start/ours/{part}/{shape}/{state}" for part in ("all", "load", "initialize", "read", "look-up")]
            peers = [f"start/{who}/all/{shape}/{state}" for who in ("sql-aes", "sql-aes-look-up")]
            if m.has(*ours, *peers):
                rows.append([f"{shape}, {state}"] + [m.shown(name) for name in ours + peers])
    return rows


def tool_table(m):
    rows = [["kxrule on the full store", "time", "without starting the process, × one read", "peak memory"]]
    read = f"read/ours/{FULL}"
    for name in m.rounds:
        if name.startswith("tool/") and m.has(read):
            times = (m.median(name) - m.median("tool/nothing")) / m.median(read)
            rows.append([name[5:], m.shown(name), f"{times:.2f}", f"{m.counter(name, 'peak') / 1024 ** 2:.0f} MiB"])
    return rows


def change_table(m):
    """Compared with the recorded run: in multiples of the floor where there is one, so that noise matters little."""
    rows = [["since the recorded run", "× floor then", "× floor now", "change"]]
    if not RECORDED.exists():
        return rows
    then = json.loads(RECORDED.read_text())
    for work, ours, floor, _, _ in ROWS:
        if m.has(ours, floor) and ours in then and floor in then:
            before, now = then[ours] / then[floor], m.median(ours) / m.median(floor)
            rows.append([work, f"{before:.2f}", f"{now:.2f}", f"{(now / before - 1) * 100:+.0f} %"])
    return rows


def markdown(rows):
    lines = ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join([lines[0], "|" + "---|" * len(rows[0])] + lines[1:]) + "\n"


def aligned(rows):
    widths = [max(len(row[i]) for row in rows) for i in range(len(rows[0]))]
    return "\n".join("  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows)


def series(m, pattern):
    """(x, median) for every benchmark whose name matches; the first group is x."""
    points = []
    for name in m.rounds:
        if match := re.fullmatch(pattern, name):
            points.append((int(match[1]), m.median(name)))
    return sorted(points)


def plots(m, directory):
    milli = lambda points: [(x, y / 1e6) for x, y in points]
    plot.lines(directory / "sets.svg", "Whole stores of 1024 rules in each set", "rule sets", "milliseconds",
               {f"{op} {name}": milli(series(m, rf"growth/{op}/{who}/(\d+)x1024"))
                for op in ("write", "read") for who, name in (("ours", "library"), ("floor", "floor"))})
    plot.lines(directory / "rules.svg", "One rule set", "rules in the set", "milliseconds",
               {f"{op} {name}": milli(series(m, rf"growth/{op}/{who}/1x(\d+)"))
                for op in ("write", "read") for who, name in (("ours", "library"), ("floor", "floor"))})
    for call in ("get", "add"):
        plot.lines(directory / f"{call}.svg", f"kxRule{call.title()}Rule while the store grows", "how many", "nanoseconds",
                   {what: series(m, rf"growth/{call}/{key}/(\d+)")
                    for key, what in (("rules", "rules in the set"), ("sets", "rule sets"), ("macros", "macros"))},
                   from_zero=True)
    plot.lines(directory / "threads.svg", "kxRuleGetRule from several threads at once", "threads",
               "nanoseconds until the next call is through",
               {name: series(m, rf"threads/{who}/threads:(\d+)") for who, name in (("ours", "library"), ("floor", "floor"))},
               from_zero=True)


def main(arguments):
    results = pathlib.Path(arguments[0])
    m = Measures(results)
    counts = json.loads((results / "counts.json").read_text())
    summary = {"rows": []}
    tables = [main_table(m, summary), start_table(m), tool_table(m), other_table(m, counts, summary)]
    tables = [rows for rows in tables if len(rows) > 1]
    summary["benchmarks"] = {name: {"median_ns": m.median(name), "spread": m.spread(name), "rounds": len(rounds)}
                             for name, rounds in m.rounds.items()}
    (results / "summary.json").write_text(json.dumps(summary, indent=1, ensure_ascii=False))
    print("\n\n".join(aligned(rows) for rows in tables + [change_table(m)]))
    if m.has("threads/ours/threads:1"):
        plots(m, results)
    if arguments[1:]:
        document = pathlib.Path(arguments[1])
        folder = document.with_suffix("")
        folder.mkdir(exist_ok=True)
        plots(m, folder)
        (folder / RECORDED.name).write_text(
            json.dumps({name: round(m.median(name), 2) for name in sorted(m.rounds)}, indent=0, ensure_ascii=False) + "\n")
        before, rest = document.read_text().split("<!-- results -->\n")
        after = rest.split("<!-- end of results -->\n")[1]
        table = "\n".join(markdown(rows) for rows in tables)
        document.write_text(f"{before}<!-- results -->\n{table}<!-- end of results -->\n{after}")


if __name__ == "__main__":
    main(sys.argv[1:])
