#!/usr/bin/env python3
"""sessions.py BIN SESSION... [--write]: plays recorded sessions of kxrule and shows where they went another way.

A session is a text file. It begins in an empty directory and is read line by line:

  # text           said to the reader
  $ kxrule ARGS    runs "kxrule --force --dir règles ARGS": other tests may have the library initialised meanwhile
  $ kxrule.exe ARGS  runs it with these arguments alone; "< FILE" and "> FILE" at the end are what they are in a shell
  ! COMMAND        runs a command of bash, or one of those of HELP below; lines "| text" after it are its standard input
  ! interrupt ARGS starts "kxrule --force --dir règles ARGS", which reads standard input, and presses Ctrl-C
  ! hold           another process has the library initialised from here on

Every other line is what came of the line above: standard output, standard error after "2>", [exit N] unless it is 0,
and in brackets the files that were added (+), removed (-) or written (~). DIR is the session's directory, DATED a
dated one; of a line past 300 characters and of an output past ten lines (of JSON four) the rest is a count and a
checksum. What came in full lies in build/sessions. With --write the sessions are recorded anew; look at what changed before you keep it.
"""
import difflib
import itertools
import json
import os
import pathlib
import re
import shlex
import signal
import subprocess
import sys
import tempfile
import zlib

try:
    import jsonschema
except ImportError:
    jsonschema = None

ROOT = pathlib.Path(__file__).resolve().parents[2]
RULES = "règles"
MARKS = ("# ", "$ ", "! ", "| ")
SCHEMA = json.loads((ROOT / "docs/kxrule.schema.json").read_text())
HELP = r"""
write() { cat >"$1"; }
fetch() { cp "$ROOT/$1" .; }
copy() { cp -r "$@"; }
remove() { rm -r "$1"; }
truncate() { command truncate -s "$2" "$1"; }  # FILE SIZE; from the end if negative
append() { printf %s "$2" >>"$1"; }
utf16() { iconv -t UTF-16 "$1" >"$2"; }
flip()  # FILE OFFSET: inverts a byte
{
    byte=$(od -An -tu1 -j "$2" -N 1 "$1")
    printf "\\$(printf %o $((255 - byte)))" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none
}
# two files, or what two directories hold
same() { diff -rq "$@" && echo yes || true; }
# FILE TEXT: waits until the text is in the file, which is replaced
await() { for _ in {1..1200}; do ! grep -qsF "$2" "$1" || return 0; sleep 0.05; done; echo no; }
"""


def shortened(lines, shown, most):
    lines = [line if len(line) <= 300 else f"{line[:250]}... {len(line)} characters, {zlib.crc32(line.encode()):08x}"
             for line in lines]
    rest = lines[shown:] if len(lines) > most else []
    return lines if not rest else [
        *lines[:shown], f"... {len(rest)} more lines, {zlib.crc32(chr(10).join(rest).encode()):08x}"]


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
        full = ["$ " + shlex.join([program, *arguments])]
        own = [] if program == "kxrule.exe" else ["--force", "--dir", RULES]
        source, target = os.devnull, None
        if arguments[-2:-1] == ("<",):
            source, arguments = self.directory / arguments[-1], arguments[:-2]
        elif arguments[-2:-1] == (">",):
            target, arguments = self.directory / arguments[-1], arguments[:-2]
        # Not a pipe: under Wine a process that kxrule has detached would hold it open.
        with tempfile.TemporaryFile() as errors, open(source, "rb") as given:
            process = self.start("kxrule.exe", *own, *arguments, source=given, error=errors)
            out = process.communicate()[0]
            errors.seek(0)
            error = errors.read()
        self.check(arguments, out, process.returncode)
        if target:
            target.write_bytes(out)
            out = b""
        out, error = (self.plain(piece.decode(errors="backslashreplace")).splitlines() for piece in (out, error))
        out = [" " + line if line[:2] in MARKS else line for line in out]
        error = ["2> " + line for line in error]
        self.full += full + out + error
        shown = (2, 4) if "--json" in arguments else (6, 10)  # lines; how JSON looks, the schema tells
        lines = shortened(out, *shown) + shortened(error, *shown)
        if process.returncode != 0:
            lines.append(f"[exit {process.returncode}]")
        after = self.files()
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

    def help(self, command, body):
        verb, *arguments = shlex.split(command)
        if verb == "interrupt":
            process = self.start("kxrule.exe", "--force", "--dir", RULES, *arguments, source=subprocess.PIPE,
                                 error=subprocess.PIPE)
            process.stdin.write(b" " * (1 << 20))  # more than a pipe takes: when this is done, it reads
            process.stdin.flush()
            process.send_signal(signal.SIGINT)
            lines = ["2> " + line for line in process.stderr.read().decode().splitlines()]
            return [*lines, f"[exit {process.wait()}]"]
        if verb == "hold":
            self.held = self.start("victim.exe", "write", "held")
            self.held.stdout.readline()
            os.kill(self.held.pid, signal.SIGSTOP)  # it does nothing but be there
            return []
        helped = subprocess.run(["bash", "-ec", HELP + command], cwd=self.directory, input=body, check=True, text=True,
                                env={**os.environ, "ROOT": ROOT}, stdout=subprocess.PIPE)
        return helped.stdout.splitlines()

    def play(self, script):
        played = []
        given = [line for line in script.splitlines() if line == "" or line[:2] in MARKS]
        for at, line in enumerate(given):
            if line or (played and played[-1]):
                played.append(line)
            if line[:2] == "$ ":
                played += self.kxrule(*shlex.split(line[2:]))
            elif line[:2] == "! ":
                body = itertools.takewhile(lambda after: after[:2] == "| ", given[at + 1:])
                played += self.help(line[2:], "".join(text[2:] + "\n" for text in body))
        return "\n".join(played).rstrip() + "\n"

    def end(self):
        if self.held:
            self.held.kill()
            self.held.wait()


def wine_environment():
    """What wine-run.sh prepares, taken once: that spares a shell and two more programs for every command."""
    prepared = subprocess.run(["bash", "-c", '. "$0" && env -0', ROOT / "cmake/wine-run.sh"], check=True, text=True,
                              stdout=subprocess.PIPE).stdout
    return dict(variable.split("=", 1) for variable in prepared.split("\0") if variable)


def main():
    binaries, *files = (pathlib.Path(argument).resolve() for argument in sys.argv[1:] if argument != "--write")
    environment = wine_environment()
    different = False
    for file in files:
        with tempfile.TemporaryDirectory() as directory:
            session = Session(binaries, directory, environment)
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
