#!/usr/bin/env python3
"""sessions.py BIN SESSION... [--write]: plays recorded sessions of kxrule and shows where they went another way.

A session is a text file. It begins in an empty directory and is read line by line:

  # text           said to the reader
  $ kxrule ARGS    runs "kxrule --force --dir règles ARGS": other tests may have the library initialised meanwhile
  $ kxrule.exe ARGS  runs it with these arguments alone; "< FILE" and "> FILE" at the end are what they are in a shell
  ! write FILE     makes a file of the lines "| text" that follow
  ! fetch FILE     copies a file of the source tree
  ! copy FROM TO, ! remove PATH, ! mkdir PATH, ! truncate FILE SIZE (from the end if negative), ! flip FILE OFFSET, ! append FILE TEXT,
  ! utf16 FROM TO
  ! same A B       says whether two files, or what two directories hold, are the same
  ! await FILE TEXT  waits until the text is in the file
  ! interrupt ARGS starts "kxrule --force --dir règles ARGS", which reads standard input, and presses Ctrl-C
  ! hold           another process has the library initialised from here on

Every other line is what came of the line above: standard output, standard error after "2>", [exit N] unless it is 0,
and in brackets the files that were added (+), removed (-) or written (~). DIR is the session's directory, DATED a
dated one; of a line past 300 characters and of an output past ten lines (of JSON four) the rest is a count and a
checksum. What came in full lies in build/sessions. With --write the sessions are recorded anew; look at what changed before you keep it.
"""
import difflib
import json
import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import zlib

try:
    import jsonschema
except ImportError:
    jsonschema = None

ROOT = pathlib.Path(__file__).resolve().parents[2]
RULES = "règles"
MARKS = ("# ", "$ ", "! ", "| ")
SCHEMA = json.loads((ROOT / "docs/kxrule.schema.json").read_text())



def shortened(lines, shown, most):
    if len(lines) <= most:
        return lines
    rest = lines[shown:]
    return lines[:shown] + [f"... {len(rest)} more lines, {zlib.crc32(chr(10).join(rest).encode()):08x}"]


class Session:
    def __init__(self, binaries, directory, environment):
        self.binaries, self.directory, self.environment = binaries, pathlib.Path(directory), environment
        self.held = None
        self.full = []  # what came of each command, in full

    def start(self, program, *arguments, source=subprocess.DEVNULL, error=subprocess.DEVNULL):
        return subprocess.Popen(["wine", self.binaries / program, *arguments], cwd=self.directory, env=self.environment,
                                stdin=source, stdout=subprocess.PIPE, stderr=error)

    def files(self):
        """What tells a file that was written from one that was not."""
        return {path.relative_to(self.directory): (path.stat().st_mtime_ns, path.stat().st_ino, path.read_bytes())
                for path in sorted(self.directory.rglob("*")) if path.is_file() and "held" not in path.parts}

    def plain(self, text):
        windows = "Z:" + str(self.directory).replace("/", "\\")
        text = text.replace(windows.replace("\\", "\\\\"), "DIR").replace(windows, "DIR")
        text = re.sub(r"(RuleBackup[\\/]+)\d{12}(-\d+)?", r"\1DATED", text)
        text = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "TIME", text)
        text = re.sub(r"([\w.]+ \(process \d+\)(, )?)+", "NAME (process N)", text)  # other tests' as well
        text = text.replace("; restart what has read the rules before: NAME (process N)", "")
        return re.sub(r"[\0-\t\x0b-\x1f\x7f\ue000-\uf8ff]", lambda hidden: f"\\x{ord(hidden[0]):02x}", text)

    def kxrule(self, program, *arguments):
        before = self.files()
        own = [] if program == "kxrule.exe" else ["--force", "--dir", RULES]
        source, target = subprocess.DEVNULL, None
        if arguments[-2:-1] == ("<",):
            source, arguments = (self.directory / arguments[-1]).open("rb"), arguments[:-2]
        elif arguments[-2:-1] == (">",):
            target, arguments = self.directory / arguments[-1], arguments[:-2]
        # Not a pipe: under Wine a process that kxrule has detached would hold it open.
        with tempfile.TemporaryFile() as errors:
            process = self.start("kxrule.exe", *own, *arguments, source=source, error=errors)
            out = process.communicate()[0]
            errors.seek(0)
            error = errors.read()
        if target:
            target.write_bytes(out)
            out = b""
        self.check(arguments, out, process.returncode)
        out, error = (self.plain(piece.decode(errors="backslashreplace")).splitlines() for piece in (out, error))
        after = self.files()
        out = [" " + line if line[:2] in MARKS else line for line in out]
        error = ["2> " + line for line in error]
        self.full += ["$ " + shlex.join([program, *arguments]), *out, *error]
        out, error = ([line if len(line) <= 300 else
                       f"{line[:250]}... {len(line)} characters, {zlib.crc32(line.encode()):08x}" for line in piece]
                      for piece in (out, error))
        shown = (2, 4) if "--json" in arguments else (6, 10)  # lines; how JSON looks, the schema tells
        lines = shortened(out, *shown) + shortened(error, *shown)
        if process.returncode != 0:
            lines.append(f"[exit {process.returncode}]")
        touched = sorted((("+" if path not in before else "-" if path not in after else "~") + self.plain(str(path))
                          for path in before.keys() | after.keys() if before.get(path) != after.get(path)),
                         key=lambda change: (change[1:], change[0]))
        touched = [re.sub(r"^(\+.*/Rul)[0-9a-f]+\.tmp$", r"\1N.tmp", change) for change in touched]
        return lines + ([f"[{' '.join(touched)}]"] if touched else [])

    def check(self, arguments, out, code):
        """What --json prints is what docs/kxrule.schema.json says."""
        command = next((word for word in arguments if word in SCHEMA["$defs"]), None)
        if jsonschema and "--json" in arguments and command and out and code != 2:
            try:
                jsonschema.validate(json.loads(out), {**SCHEMA, "$ref": "#/$defs/" + command})
            except ValueError as error:
                raise SystemExit(f"{arguments}: {error}: {out[:300]}") from error

    def help(self, verb, *arguments, body=()):
        paths = [self.directory / argument for argument in arguments]
        if verb == "write":
            paths[0].write_text("".join(line[2:] + "\n" for line in body))
        elif verb == "fetch":
            shutil.copy(ROOT / arguments[0], self.directory)
        elif verb == "copy":
            (shutil.copytree if paths[0].is_dir() else shutil.copy)(*paths)
        elif verb == "remove":
            shutil.rmtree(paths[0]) if paths[0].is_dir() else paths[0].unlink()
        elif verb == "mkdir":
            paths[0].mkdir()
        elif verb == "truncate":
            size = int(arguments[1])
            os.truncate(paths[0], size if size >= 0 else paths[0].stat().st_size + size)
        elif verb == "flip":
            content = bytearray(paths[0].read_bytes())
            content[int(arguments[1])] ^= 0xFF
            paths[0].write_bytes(content)
        elif verb == "append":
            with paths[0].open("a") as file:
                file.write(arguments[1])
        elif verb == "utf16":
            paths[1].write_bytes(paths[0].read_text().encode("utf-16"))
        elif verb == "same":
            a, b = ({path.relative_to(top): path.read_bytes() for path in [top, *top.rglob("*")] if path.is_file()}
                    for top in paths)
            return ["yes" if a == b else "no: " + " ".join(str(p) for p in sorted(a.keys() | b.keys())
                                                           if a.get(p) != b.get(p))]
        elif verb == "await":
            end = time.monotonic() + 60
            while not paths[0].exists() or arguments[1] not in paths[0].read_text():  # it is replaced
                if time.monotonic() > end:
                    return ["no"]
                time.sleep(0.05)
        elif verb == "interrupt":
            process = self.start("kxrule.exe", "--force", "--dir", RULES, *arguments, source=subprocess.PIPE,
                                 error=subprocess.PIPE)
            process.stdin.write(b" " * (1 << 20))  # more than a pipe takes: when this is done, it reads
            process.stdin.flush()
            process.send_signal(signal.SIGINT)
            lines = ["2> " + line for line in process.stderr.read().decode().splitlines()]
            return [*lines, f"[exit {process.wait()}]"]
        elif verb == "hold":
            self.held = self.start("victim.exe", "write", "held")
            self.held.stdout.readline()
            os.kill(self.held.pid, signal.SIGSTOP)  # it does nothing but be there
        else:
            raise SystemExit(f"! {verb}: no such help")
        return []

    def play(self, script):
        played = []
        given = [line for line in script.splitlines() if line == "" or line[:2] in MARKS]
        for at, line in enumerate(given):
            if line or (played and played[-1]):
                played.append(line)
            if line[:2] == "$ ":
                played += self.kxrule(*shlex.split(line[2:]))
            elif line[:2] == "! ":
                end = next((i for i in range(at + 1, len(given)) if given[i][:2] != "| "), len(given))
                if end == at + 1:
                    played += self.help(*shlex.split(line[2:]))
                else:
                    self.help(*shlex.split(line[2:]), body=given[at + 1:end])
        return "\n".join(played).rstrip() + "\n"

    def end(self):
        if self.held:
            self.held.kill()
            self.held.wait()


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--write"]
    # wine-run.sh prepares Wine; its environment, taken once, spares a shell and two more programs for every command.
    prepared = subprocess.run(["bash", "-c", '. "$0" && env -0', ROOT / "cmake/wine-run.sh"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout
    environment = dict(variable.split("=", 1) for variable in prepared.split("\0") if variable)
    different = False
    for file in map(pathlib.Path, arguments[1:]):
        with tempfile.TemporaryDirectory() as directory:
            session = Session(pathlib.Path(arguments[0]).resolve(), directory, environment)
            try:
                played = session.play(file.read_text())
            finally:
                session.end()
        full = ROOT / "build/sessions" / file.name
        full.parent.mkdir(parents=True, exist_ok=True)
        full.write_text("\n".join(session.full) + "\n")
        recorded = file.read_text()
        if "--write" in sys.argv:
            file.write_text(played)
        elif played != recorded:
            different = True
            sys.stdout.writelines(difflib.unified_diff(recorded.splitlines(True), played.splitlines(True),
                                                       f"{file.name} as recorded", f"now, in full in {full}", n=4))
    return 1 if different else 0


if __name__ == "__main__":
    sys.exit(main())
