#!/usr/bin/env python3
"""processes.py BINARIES DATA OUT ROUNDS: what is measured from outside, because each measurement is a process.

The start of a service up to its first answered look-up, with the files in the system's cache (warm) or not (cold), and
the tool's commands on the full store, with time and peak memory. Writes OUT in the format of the other benchmarks. The
stores in DATA are those written by files_bench.
"""
import json
import os
import pathlib
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent


def evict(folder):
    """Drops the files of a folder from the system's cache after flushing them to the disk."""
    for path in filter(pathlib.Path.is_file, folder.iterdir()):
        handle = os.open(path, os.O_RDONLY)
        os.fsync(handle)
        os.posix_fadvise(handle, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(handle)


def run(*arguments, allowed=(0,)):
    """Seconds and peak memory, in bytes, of one Windows process."""
    started = time.perf_counter()
    process = subprocess.Popen([ROOT / "cmake/wine-run.sh", *map(str, arguments)],
                               stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    errors = process.stderr.read()
    _, status, usage = os.wait4(process.pid, 0)
    seconds = time.perf_counter() - started
    if os.waitstatus_to_exitcode(status) not in allowed:
        sys.exit(f"failed: {arguments}\n{errors.decode(errors='replace')}")
    return seconds, usage.ru_maxrss * 1024


def main(binaries, data, out, rounds):
    entries = []

    def note(name, seconds, peak=None):
        entry = {"name": name, "run_type": "iteration", "real_time": seconds, "time_unit": "s"}
        entries.append(entry if peak is None else {**entry, "peak": peak})

    report = data / "start.txt"
    for _ in range(rounds):
        for shape in ("64x1024", "3x100"):
            for who, files in (("ours", f"ours-{shape}"), ("sql-aes", None), ("sql-aes-look-up", None)):
                for state in ("cold", "warm"):
                    if state == "cold":
                        evict(data / files if files else data)
                    run(binaries / "files_bench.exe", f"--data={data}", f"--store={shape}", f"--child=start/{who}",
                        f"--report={report}")
                    for line in report.read_text().splitlines():
                        phase, seconds = line.split()
                        if not phase.startswith(("before", "peak")):
                            note(f"start/{who}/{phase}/{shape}/{state}", float(seconds))
    store = data / "ours-64x1024"
    policy, page = data / "policy.json", data / "page.html"
    empty = data / "empty"
    commands = {
        "nothing": ["--version"],
        "list": ["--dir", store, "list"],
        "show": ["--dir", store, "show"],
        "find": ["--dir", store, "find", "10.0.0.1"],
        "export": ["--dir", store, "export", "-o", policy],
        "import, all new": ["--dir", empty, "import", policy],
        "import, nothing changes": ["--dir", store, "import", policy],
        "verify": ["--dir", store, "verify"],
        "report": ["--dir", store, "report", "-o", page],
    }
    for _ in range(max(1, rounds // 3)):
        for name, arguments in commands.items():
            if name == "import, all new":
                empty.mkdir(exist_ok=True)
                for path in sorted(empty.rglob("*"), reverse=True):
                    path.rmdir() if path.is_dir() else path.unlink()
            note(f"tool/{name}", *run(binaries / "kxrule.exe", *arguments))
    out.write_text(json.dumps({"benchmarks": entries}, indent=1))


if __name__ == "__main__":
    main(*map(pathlib.Path, sys.argv[1:4]), int(sys.argv[4]))
