#!/usr/bin/env python3
"""Kills the writer at any moment, fills the disk, runs the campaigns of torture_tests and the fuzzers; ends with a table.

torture.py --preset debug --minutes 30 --seed 7     the long form; its kills continue an interrupted run
torture.py --preset debug --short                   what the tests run: about half a minute
torture.py --preset debug --only crash              every state that a crash can leave
torture.py --preset debug --only kills --kills 10000
"""
import argparse
import json
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
RUN = str(ROOT / "cmake" / "wine-run.sh")
SETS = 6
# A rule directory that does not wait for a disk: a kill leaves the same there.
FAST = "/dev/shm" if os.path.isdir("/dev/shm") else None


class Campaigns:
    def __init__(self, preset, seed, minutes):
        self.bin = ROOT / "build" / preset / "bin"
        self.seed = seed
        self.random = random.Random(seed)
        self.seconds = minutes * 60
        self.rows = []  # name, tries, seed, losses

    def victim(self, mode, directory, *arguments):
        return [RUN, str(self.bin / "victim.exe"), mode, "Z:" + str(directory).replace("/", "\\"), *map(str, arguments)]

    def run(self, mode, directory, *arguments):
        """Exit code and output. A process that ends before it begins is shown and started again: this happens under
        Wine on a busy machine."""
        for attempt in range(2):
            done = subprocess.run(self.victim(mode, directory, *arguments), stdin=subprocess.DEVNULL,
                                  capture_output=True, text=True, timeout=120)
            if attempt == 0 and done.returncode not in (0, 1) and not done.stdout:
                print(f"  {mode} ended with {done.returncode} before it began: {done.stderr[-200:]}", flush=True)
                continue
            said = done.stdout.replace("\r", "")
            return done.returncode, said if said or done.returncode == 0 else f"exit code {done.returncode}"

    def row(self, name, tries, losses):
        self.rows.append((name, tries, self.seed, losses))
        print(f"  {name}: {tries} tries, {len(losses)} losses", flush=True)
        for loss in losses[:5]:
            print("    " + loss, flush=True)

    def start_and_kill(self, mode, directory, longest, *arguments):
        """Kills it a random time after its first output; returns what it printed."""
        victim = subprocess.Popen(self.victim(mode, directory, *arguments), stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        first = victim.stdout.readline() if mode != "read" else b""
        time.sleep(self.random.uniform(0, longest))
        victim.kill()
        text = (first + victim.stdout.read()).decode().replace("\r", "")
        victim.wait()
        return text

    def kills(self, tries):
        """Each victim first checks that everything is there that its predecessor reported as written. The state
        outlasts this process, so that a large number of kills can be run in batches."""
        progress = ROOT / "build" / "torture"
        progress.mkdir(parents=True, exist_ok=True)
        file = progress / "kills.json"
        directory = pathlib.Path(FAST or progress) / f"kx-torture-{os.getuid()}"
        state = {"tries": 0, "low": 1, "high": 1}
        if file.exists() and directory.exists():
            state = json.loads(file.read_text())
        else:
            shutil.rmtree(directory, ignore_errors=True)
            directory.mkdir()
            self.run("next", directory)
        losses = []
        unborn = 0
        while state["tries"] < tries and not losses:
            text = self.start_and_kill("write", directory, 0.08, state["low"], state["high"])
            reported = {word: max(map(int, re.findall(word + r" (\d+)", text)), default=0)
                        for word in ("whole", "begin", "done")}
            unborn = 0 if text else unborn + 1
            if (text and not reported["whole"]) or unborn > 3:
                losses.append(f"kill {state['tries']}: {text.strip()[-300:] or 'does not begin'}")
            elif text:
                state["tries"] += 1
                state["high"] = max(state["high"], reported["begin"])
                state["low"] = max(state["low"], reported["done"])
                file.write_text(json.dumps(state))
        if not losses:
            code, said = self.run("check", directory, state["low"], state["high"])
            losses += [] if code == 0 else [f"after the last kill: {said.strip()}"]
            file.unlink(missing_ok=True)
            shutil.rmtree(directory, ignore_errors=True)
        self.row("killed: during a write", state["tries"], losses)

    def rescue_kills(self, tries):
        """A process that reads a damaged store is killed; the next read must complete the rescue."""
        losses = []
        with tempfile.TemporaryDirectory(dir=FAST) as good:
            self.run("next", good)
            for number in range(tries):
                with tempfile.TemporaryDirectory(dir=FAST) as directory:
                    shutil.copytree(good, directory, dirs_exist_ok=True)
                    victim = pathlib.Path(directory) / f"KxRl000{self.random.randint(1, SETS)}.dat"
                    damaged = victim.read_bytes()[: self.random.randint(0, victim.stat().st_size - 1)]
                    victim.write_bytes(damaged)
                    others = {p.name: p.read_bytes() for p in pathlib.Path(directory).glob("*.dat") if p != victim}
                    self.start_and_kill("read", directory, 0.12)
                    code, said = self.run("read", directory)
                    copy = pathlib.Path(directory) / "RuleBackup" / (victim.name + ".brk")
                    if code != 0 or not copy.exists() or copy.read_bytes() != damaged:
                        losses.append(f"kill {number}: {victim.name} cut at {len(damaged)} has no copy ({said.strip()})")
                    for name, content in others.items():
                        if (pathlib.Path(directory) / name).read_bytes() != content:
                            losses.append(f"kill {number}: {name} changed")
        self.row("killed: during a rescue", tries, losses)

    def full_disk(self, step_kib):
        """A small file system as the rule directory, with less and less space left."""
        losses = []
        tries = 0
        with tempfile.TemporaryDirectory() as directory:
            mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=8m", "tmpfs", directory],
                                     capture_output=True).returncode == 0
            if not mounted:
                print("  full disk: skipped, no file system can be mounted here", flush=True)
                return
            try:
                self.run("next", directory)
                generation = 1
                filler = pathlib.Path(directory) / "filler"
                for space in range(0, 2200, step_kib):
                    usage = shutil.disk_usage(directory)
                    filler.write_bytes(bytes(max(0, usage.free - space * 1024)))
                    code, said = self.run("next", directory)
                    filler.unlink()
                    for leftover in pathlib.Path(directory).glob("*.tmp"):
                        leftover.unlink()
                    tries += 1
                    match = re.search(r"result (\d+)", said)
                    if code == 0:
                        generation += 1
                        low = high = generation
                    elif match and match.group(1) in ("10055", "10057"):
                        low, high = generation, generation + 1
                    else:
                        losses.append(f"space for {space} KiB: {said.strip()}")
                        break
                    code, said = self.run("check", directory, low, high)
                    if code != 0:
                        losses.append(f"space for {space} KiB: {said.strip()}")
                        break
                    if low != high:
                        code, said = self.run("next", directory)  # with space again
                        generation = int(re.search(r"done (\d+)", said).group(1)) if code == 0 else -1
                        if code != 0:
                            losses.append(f"after space for {space} KiB: {said.strip()}")
                            break
            finally:
                subprocess.run(["umount", directory], check=False)
        self.row("disk full: less and less space", tries, losses)

    def tests(self, seconds, program="torture_tests"):
        environment = dict(os.environ, KX_TORTURE_SEED=str(self.seed), KX_TORTURE_SECONDS=str(seconds))
        done = subprocess.run([RUN, str(self.bin / f"{program}.exe")], stdin=subprocess.DEVNULL, env=environment,
                              capture_output=True, text=True)
        lost_in_all = 0
        for name, tries, lost in re.findall(r"campaign (.+): (\d+) tries, seed \d+, (\d+) lost", done.stdout):
            self.row(name, int(tries), ["see above"] * int(lost))
            lost_in_all += int(lost)
        if done.returncode != 0:
            print(done.stdout)
            if lost_in_all == 0:
                self.row(program, 1, [f"ended with {done.returncode}"])
        return done.stdout

    def crash_states(self):
        """Every state that a crash can leave; docs/recovery.md holds these tables."""
        said = self.tests(0, "crash_tests")
        for kind, head in (("crash", "| Scenario | Model | Enumerated | Distinct | Lost | Moved |"),
                           ("planted", "| Planted fault | Kill | Journal | Reorder | Scenarios that find it |")):
            lines = re.findall(rf"^{kind} (\|.*\|)", said, re.M)
            print("\n".join(["", head, "|" + "---|" * head.count(" |"), *lines]))

    def fuzzers(self, seconds):
        for target in ("files_fuzz", "rule_fuzz", "policy_fuzz"):
            program = ROOT / "build" / "fuzz" / "bin" / target
            if not program.exists():
                self.row(f"fuzzed: {target}", 0, ["not built"])
                continue
            corpus = ROOT / "tests" / "fuzz" / "corpus" / target
            with tempfile.TemporaryDirectory() as found:
                done = subprocess.run([str(program), f"-max_total_time={seconds}", f"-seed={self.seed}", "-timeout=20",
                                       "-rss_limit_mb=1024", f"-artifact_prefix={ROOT}/build/fuzz/", found, str(corpus)],
                                      stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace")
                runs = re.findall(r"Done (\d+) runs", done.stderr)
                losses = [] if done.returncode == 0 else [done.stderr[-2000:]]
                self.row(f"fuzzed: {target}", int(runs[-1]) if runs else 0, losses)

    def table(self):
        print("\n| Campaign | Tries | Seed | Lost |\n|---|---|---|---|")
        for name, tries, seed, losses in self.rows:
            print(f"| {name} | {tries} | {seed} | {len(losses) or 'nothing'} |")
        failed = sum(1 for _, _, _, losses in self.rows if losses)
        print(f"\n{len(self.rows) - failed} passed, {failed} failed")
        return 1 if failed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--preset", default="debug")
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--only", choices=("kills", "crash"))
    parser.add_argument("--kills", type=int, default=10000, help="how many in all, with those of earlier runs")
    options = parser.parse_args()
    seed = 1 if options.short else options.seed
    print(f"seed {seed}", flush=True)
    campaigns = Campaigns(options.preset, seed, options.minutes)
    if options.only != "crash":
        kills = 8 if options.short else options.kills
        campaigns.kills(kills * 7 // 8)
        campaigns.rescue_kills(kills // 8)
    if options.only is None:
        campaigns.full_disk(256 if options.short else 8)
        campaigns.tests(0 if options.short else max(20, int(campaigns.seconds * 0.05)))
        campaigns.fuzzers(5 if options.short else 60)
    if options.only != "kills":
        campaigns.crash_states()
    return campaigns.table()


if __name__ == "__main__":
    sys.exit(main())
