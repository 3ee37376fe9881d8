#!/usr/bin/env python3
"""Kills the writer at any moment, fills the disk, runs the campaigns of torture_tests and the fuzzers; ends with a table.

torture.py --preset debug --minutes 30 --seed 7     the long form
torture.py --preset debug --short                   what the tests run: a minute or so
"""
import argparse
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
        """Exit code and output. A process that ends before it begins is shown and started once more: seen under Wine with
        much else running."""
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

    def start_and_kill(self, mode, directory, longest):
        """Kills it a random time after its first sign of life; returns the numbers it has begun and done."""
        victim = subprocess.Popen(self.victim(mode, directory), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        first = victim.stdout.readline() if mode != "read" else b""
        time.sleep(self.random.uniform(0, longest))
        victim.kill()
        text = (first + victim.stdout.read()).decode().replace("\r", "")
        victim.wait()
        begun = [int(n) for n in re.findall(r"begin (\d+)", text)]
        done = [int(n) for n in re.findall(r"done (\d+)", text)]
        return text, begun[-1] if begun else 0, done[-1] if done else 0

    def numbers(self, tries, share):
        """Counts tries: that many, and in the long form more of them until a share of the time is used."""
        until = time.monotonic() + self.seconds * share
        number = 0
        while number < tries or time.monotonic() < until:
            yield number
            number += 1

    def kills(self, mode, tries, share=0):
        losses = []
        with tempfile.TemporaryDirectory() as directory:
            self.run("next", directory)
            generation = 1  # what the store is at, whole
            for number in self.numbers(tries, share):
                text, begun, done = self.start_and_kill(mode, directory, 0.4)
                if "result" in text or "failed" in text or "cannot" in text:
                    losses.append(f"kill {number}: {text.strip()[-200:]}")
                    break
                begun = max(begun, generation)
                done = max(done, generation)
                low = done if mode == "write" else 1
                missing = 1 + begun % SETS if mode == "delete" else 0
                code, said = self.run("check", directory, low, begun, missing)
                if code != 0:
                    losses.append(f"kill {number}: {said.strip()}")
                    break
                if mode == "delete":
                    self.run("next", directory)  # all sets are there again
                    begun += 1
                generation = begun if mode == "delete" else done
        self.row(f"killed: during {mode}", number + 1, losses)

    def rescue_kills(self, tries, share=0):
        """The directory of a damaged store is read by a process that is killed; the next read must end the rescue."""
        losses = []
        with tempfile.TemporaryDirectory() as good:
            self.run("next", good)
            for number in self.numbers(tries, share):
                with tempfile.TemporaryDirectory() as directory:
                    shutil.copytree(good, directory, dirs_exist_ok=True)
                    victim = pathlib.Path(directory) / f"KxRl000{self.random.randint(1, SETS)}.dat"
                    damaged = victim.read_bytes()[: self.random.randint(0, victim.stat().st_size - 1)]
                    victim.write_bytes(damaged)
                    others = {p.name: p.read_bytes() for p in pathlib.Path(directory).glob("*.dat") if p != victim}
                    self.start_and_kill("read", directory, 0.12)
                    code, said = self.run("read", directory)
                    kept = pathlib.Path(directory) / "RuleBackup" / (victim.name + ".brk")
                    if code != 0 or not kept.exists() or kept.read_bytes() != damaged:
                        losses.append(f"kill {number}: {victim.name} cut at {len(damaged)} is not kept ({said.strip()})")
                    for name, content in others.items():
                        if (pathlib.Path(directory) / name).read_bytes() != content:
                            losses.append(f"kill {number}: {name} changed")
        self.row("killed: during a rescue", number + 1, losses)

    def full_disk(self, step_kib):
        """A small file system as rule directory, with less and less room left."""
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
                for room in range(0, 2200, step_kib):
                    usage = shutil.disk_usage(directory)
                    filler.write_bytes(bytes(max(0, usage.free - room * 1024)))
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
                        losses.append(f"room for {room} KiB: {said.strip()}")
                        break
                    code, said = self.run("check", directory, low, high)
                    if code != 0:
                        losses.append(f"room for {room} KiB: {said.strip()}")
                        break
                    if low != high:
                        code, said = self.run("next", directory)  # with room again
                        generation = int(re.search(r"done (\d+)", said).group(1)) if code == 0 else -1
                        if code != 0:
                            losses.append(f"after room for {room} KiB: {said.strip()}")
                            break
            finally:
                subprocess.run(["umount", directory], check=False)
        self.row("disk full: less and less room", tries, losses)

    def tests(self, seconds):
        environment = dict(os.environ, KX_TORTURE_SEED=str(self.seed), KX_TORTURE_SECONDS=str(seconds))
        done = subprocess.run([RUN, str(self.bin / "torture_tests.exe")], stdin=subprocess.DEVNULL, env=environment,
                              capture_output=True, text=True)
        told = 0
        for name, tries, lost in re.findall(r"campaign (.+): (\d+) tries, seed \d+, (\d+) lost", done.stdout):
            self.row(name, int(tries), ["told above"] * int(lost))
            told += int(lost)
        if done.returncode != 0:
            print(done.stdout)
            if told == 0:
                self.row("torture_tests", 1, [f"ended with {done.returncode}"])

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
    parser.add_argument("--kills-only", action="store_true", help="for the tests: no campaign that has a test of its own")
    options = parser.parse_args()
    seed = 1 if options.short else options.seed
    print(f"seed {seed}", flush=True)
    campaigns = Campaigns(options.preset, seed, options.minutes)
    if options.short:
        campaigns.kills("write", 20)
        campaigns.kills("delete", 10)
        campaigns.rescue_kills(10)
        campaigns.full_disk(256)
    else:
        campaigns.kills("write", 500, 0.25)
        campaigns.kills("delete", 150, 0.06)
        campaigns.rescue_kills(150, 0.06)
        campaigns.full_disk(8)
    if not options.kills_only:
        campaigns.tests(0 if options.short else max(20, int(campaigns.seconds * 0.05)))
        campaigns.fuzzers(5 if options.short else 60)
    return campaigns.table()


if __name__ == "__main__":
    sys.exit(main())
