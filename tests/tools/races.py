#!/usr/bin/env python3
"""races.py BIN [ROUNDS [INTERRUPTS]]: two kxrule at once, and Ctrl-C at random moments of an import.

In each round two processes add a rule to the same rule set of one store: whatever was acknowledged must be there in the
end, and nothing else. Each interrupt meets an import that replaces all sets and the macros of a store: afterwards its
files are those of before with exit code 4 and the message, or those of the policy with exit code 0. 200 and 50 take some
minutes; the seed of the moments is printed.
"""
import json
import pathlib
import random
import signal
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Tool:
    def __init__(self, binaries, directory):
        prepared = subprocess.run(["bash", "-c", '. "$0" && env -0', ROOT / "cmake/wine-run.sh"], check=True, text=True,
                                  stdout=subprocess.PIPE).stdout
        self.environment = dict(variable.split("=", 1) for variable in prepared.split("\0") if variable)
        self.binaries, self.directory = pathlib.Path(binaries).resolve(), pathlib.Path(directory)

    def start(self, *arguments):
        # --force, since other tests may have the library initialised; it does not go past the lock of the directory.
        return subprocess.Popen(["wine", self.binaries / "kxrule.exe", "--force", "--wait", "120", *arguments],
                                cwd=self.directory, env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def run(self, *arguments):
        process = self.start(*arguments)
        out, error = process.communicate()
        if process.returncode != 0:
            raise SystemExit(f"{arguments}: {process.returncode} {error}")
        return out


def two_at_once(tool, rounds):
    tool.run("--dir", "two", "add-set", "x", "--index", "1")
    acknowledged = set()
    for number in range(rounds):
        indexes = (number, 512 + number)
        processes = [tool.start("--dir", "two", "add-rule", "1", json.dumps({"index": index, "kind": 9}))
                     for index in indexes]
        for index, process in zip(indexes, processes):
            process.communicate()
            if process.returncode == 0:
                acknowledged.add(index)
        there = {rule["index"] for rule in json.loads(tool.run("--dir", "two", "export"))["ruleSets"][0]["rules"]}
        if there != acknowledged:
            raise SystemExit(f"round {number}: acknowledged but not there {sorted(acknowledged - there)}, "
                             f"there but not acknowledged {sorted(there - acknowledged)}")
    print(f"{rounds} rounds of two at once: {len(acknowledged)} of {2 * rounds} changes acknowledged, all of them there")


def rule_files(directory):
    return {path.name: path.read_bytes() for path in directory.iterdir() if path.is_file()}


def interrupts(tool, count):
    seed = random.randrange(1 << 32)
    moments = random.Random(seed)
    policies, states = {}, {}
    for name in "ab":
        macros = [{"name": name, "items": [{"address": "10.0.0.1"}]}]
        rules = [{"index": index, "kind": "access", "action": "drop", "description": name,
                  "addresses": ["@" + name, "any"]} for index in range(1, 101)]
        sets = [{"index": index, "name": name, "rules": rules} for index in range(1, 41)]
        policies[name] = f"{name}.json"
        (tool.directory / policies[name]).write_text(
            json.dumps({"version": 1, "active": [1], "macros": macros, "ruleSets": sets}))
    for name in "abab":  # also measures
        begin = time.monotonic()
        tool.run("--dir", "stopped", "import", policies[name], "--replace")
        duration = time.monotonic() - begin
        states[name] = rule_files(tool.directory / "stopped")
    seen = {0: 0, 4: 0, None: 0}
    before = "b"
    for number in range(count):
        after = "a" if before == "b" else "b"
        copies = len(list((tool.directory / "stopped/RuleBackup").iterdir()))
        process = tool.start("--dir", "stopped", "import", policies[after], "--replace")
        time.sleep(moments.random() * duration * 1.1)
        process.send_signal(signal.SIGINT)
        out, error = process.communicate()
        state = rule_files(tool.directory / "stopped")
        # None: it had not begun, and the system ended it without a word.
        outcome = process.returncode if out or error else None
        isRight = (state == states[after] and error == "" if outcome == 0 else
                   state == states[before] and
                   copies == len(list((tool.directory / "stopped/RuleBackup").iterdir())) and
                   error == ("kxrule: interrupted, nothing changed\n" if outcome == 4 else ""))
        if not isRight:
            raise SystemExit(f"seed {seed}, interrupt {number}: exit code {process.returncode}, \"{error}\", the store is "
                             f"{'old' if state == states[before] else 'new' if state == states[after] else 'mixed'}")
        seen[outcome] += 1
        before = after if outcome == 0 else before
    print(f"{count} interrupts of an import of {duration:.1f} s (seed {seed}): {seen[4]} ended it with nothing changed, "
          f"{seen[0]} were held until it was done, {seen[None]} came before it began")


def main():
    with tempfile.TemporaryDirectory() as directory:
        tool = Tool(sys.argv[1], directory)
        two_at_once(tool, int(sys.argv[2]) if len(sys.argv) > 2 else 200)
        interrupts(tool, int(sys.argv[3]) if len(sys.argv) > 3 else 50)


if __name__ == "__main__":
    main()
