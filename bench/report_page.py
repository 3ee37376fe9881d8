#!/usr/bin/env python3
"""report_page.py BINARIES DIRECTORY: measures the report of a full store (64 rule sets of 1000 rules) in headless Chromium.

Makes store and page with kxrule in a new directory, and measures the page's size, the time to make, open and search it,
and the browser's memory. Exit code 1 when a figure is beyond what it may be, 77 when there is no browser.
"""
import json
import os
import pathlib
import random
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
sys.dont_write_bytecode = True  # nothing is left in the source tree
sys.path.insert(0, str(ROOT / "tests/tools"))
import report_check


def memory(browser):
    """Of all its processes, what they share counted once."""
    total = 0
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.getpgid(int(process.name)) == browser.process.pid:
                lines = (process / "smaps_rollup").read_text().splitlines()
                total += sum(int(line.split()[1]) << 10 for line in lines if line.startswith("Pss:"))
        except OSError:  # it has ended
            pass
    return total


def full_policy():
    pick = random.Random(7)
    ports = pick.sample(range(1, 10000), 200)

    def rule(index):
        a, b, c, port = *(pick.randrange(256) for _ in range(3)), pick.choice(ports)
        peers = [f"10.{a}.{b}.0/24"] * 9 + [f"10.{a}.{b}.{c}"] * 5 + [f"fd00:{a:x}:{b:x}::/48"] * 4
        entry = {"index": index, "kind": "access", "description": f"Ticket {pick.randrange(10**6)}, office {index % 90}",
                 "protocol": pick.choice(["tcp", "udp", "tcpudp"]),
                 "addresses": ["any", pick.choice(peers + ["@servers", f"!10.{a}.0.0/16"])],
                 "ports": ["any", pick.choice([str(port), f"{port}-{port + 20}"])],
                 "action": pick.choice(["accept", "drop", "reject", "ask"])}
        program = pick.randrange(150)
        path = f"C:\\Program Files\\Vendor {program % 40}\\Product {program}\\program{program}.exe"
        return {**entry, "application": path} if index % 3 else entry

    return {"version": 1, "active": list(range(1, 65)),
            "macros": [{"name": "servers", "items": [{"address": f"10.20.{i}.0/24"} for i in range(20)]}],
            "ruleSets": [{"index": number, "name": f"Office {number}", "rules": [rule(i) for i in range(1, 1001)]}
                         for number in range(1, 65)]}


SEARCH = """new Promise(done => {
    const input = document.getElementById("search");
    input.scrollIntoView();
    input.value = "TEXT";
    const started = performance.now();
    input.dispatchEvent(new Event("input"));
    new MutationObserver(() => requestAnimationFrame(() => requestAnimationFrame(
        () => done((performance.now() - started) / 1000)))).observe(document.getElementById("count"), { childList: true });
})"""


def main(binaries, directory):
    directory.mkdir()
    policy, store, page = directory / "policy.json", directory / "store", directory / "page.html"
    store.mkdir()
    policy.write_text(json.dumps(full_policy()))

    def kxrule(*arguments):
        started = time.monotonic()
        subprocess.run([ROOT / "cmake/wine-run.sh", binaries / "kxrule.exe", "--dir", store, *arguments], check=True,
                       stdout=subprocess.DEVNULL)
        return time.monotonic() - started

    with report_check.Browser() as browser:
        kxrule("import", policy)
        figures = [("make", kxrule("report", "-o", page), 60, "s"), ("file", page.stat().st_size / 1e6, 15, "MB")]
        empty = memory(browser) / 1e6
        started = time.monotonic()
        browser.open(page, 1400)
        browser.run("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(done)))")
        figures.append(("open", time.monotonic() - started, 3, "s"))
        for text in ("office 55", "10.1", "program77.exe drop", "nowhere"):
            figures.append((f"search {text}", browser.run(SEARCH.replace("TEXT", text)), 0.3, "s"))
        figures.append(("memory beyond an empty page", memory(browser) / 1e6 - empty, 500, "MB"))
    for what, figure, most, unit in figures:
        print(f"{what}: {figure:.2f} {unit}, at most {most}")
    return any(figure > most for _, figure, most, _ in figures)


if __name__ == "__main__":
    sys.exit(main(*(pathlib.Path(argument).resolve() for argument in sys.argv[1:3])))
