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

sys.dont_write_bytecode = True  # nothing is left in the source tree
import sessions


class Tool(sessions.Session):
    # --force, since other tests may have the library initialised; it does not go past the lock of the directory.
    def start(self, *arguments):
        return super().start("kxrule.exe", "--force", "--wait", "120", *arguments, error=subprocess.PIPE)

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
    states = {}
    for name in "ab":
        macros = [{"name": name, "items": [{"address": "10.0.0.1"}]}]
        rules = [{"index": index, "kind": "access", "action": "drop", "description": name,
                  "addresses": ["@" + name, "any"]} for index in range(1, 101)]
        sets = [{"index": index, "name": name, "rules": rules} for index in range(1, 41)]
        (tool.directory / f"{name}.json").write_text(json.dumps(
            {"version": 1, "active": [1], "macros": macros, "ruleSets": sets}))
    for name in "abab":  # also measures
        begin = time.monotonic()
        tool.run("--dir", "stopped", "import", f"{name}.json", "--replace")
        duration = time.monotonic() - begin
        states[name] = rule_files(tool.directory / "stopped")
    seen = {0: 0, 4: 0, None: 0}
    before = "b"
    for number in range(count):
        after = "a" if before == "b" else "b"
        copies = len(list((tool.directory / "stopped/RuleBackup").iterdir()))
        process = tool.start("--dir", "stopped", "import", f"{after}.json", "--replace")
        time.sleep(moments.random() * duration * 1.1)
        process.send_signal(signal.SIGINT)
        out, error = process.communicate()
        state = rule_files(tool.directory / "stopped")
        # None: it had not begun, and the system ended it without a word.
        outcome = process.returncode if out or error else None
        is_right = (state == states[after] and error == b"" if outcome == 0 else
                    state == states[before] and
                    copies == len(list((tool.directory / "stopped/RuleBackup").iterdir())) and
                    error == (b"kxrule: interrupted, nothing changed\n" if outcome == 4 else b""))
        if not is_right:
            raise SystemExit(f"seed {seed}, interrupt {number}: exit code {process.returncode}, {error}, the store is "
                             f"{'old' if state == states[before] else 'new' if state == states[after] else 'mixed'}")
        seen[outcome] += 1
        before = after if outcome == 0 else before
    print(f"{count} interrupts of an import of {duration:.1f} s (seed {seed}): {seen[4]} ended it with nothing changed, "
          f"{seen[0]} were held until it was done, {seen[None]} came before it began")


def main():
    with tempfile.TemporaryDirectory() as directory:
        tool = Tool(pathlib.Path(sys.argv[1]).resolve(), directory, sessions.wine_environment())
        two_at_once(tool, int(sys.argv[2]) if len(sys.argv) > 2 else 200)
        interrupts(tool, int(sys.argv[3]) if len(sys.argv) > 3 else 50)


if __name__ == "__main__":
    main()
