#!/usr/bin/python3
"""Plants faults in the platform-free core, one at a time, and tells which of them the native tests notice.

Each file is compiled once with all of its faults, of which KX_MUTANT in the environment chooses one; a test runs
against the faults that it reaches. Leaves what it builds in build/mutants."""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import re
import shlex
import shutil
import subprocess
import sys
import time

import clang.cindex
from clang.cindex import CursorKind as Kind, TypeKind

ROOT = pathlib.Path(__file__).resolve().parent.parent
OUT = ROOT / "build" / "mutants"
NATIVE = OUT / "native"  # each source compiled alone
ROOMS = ["rules/", "persistence/", "policy/", "repository/"]
OPERATORS = b"< <= > >= == != && || + - * / % & | ^ << >>".split()
OTHER = dict(zip(OPERATORS, b"<= < >= > != == || && - + + * / | & & >> <<".split()))
INTEGERS = range(TypeKind.BOOL.value, TypeKind.INT128.value + 1)
FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE)
BODIES = {Kind.COMPOUND_STMT: 0, Kind.IF_STMT: 1, Kind.FOR_STMT: -1, Kind.WHILE_STMT: -1, Kind.CXX_FOR_RANGE_STMT: -1}
STATEMENTS = (Kind.CALL_EXPR, Kind.BINARY_OPERATOR, Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.UNEXPOSED_EXPR)
HEADER = """#include <cstdio>
#include <cstdlib>
namespace KxMutants
{
inline const int g_Chosen = std::atoi(std::getenv("KX_MUTANT"));
inline bool g_Reached[%d];
inline bool Is(int number) { g_Reached[number] = true; return number == g_Chosen; }
inline void Report()
{
    std::FILE* const file = std::fopen(std::getenv("KX_REACHED"), "w");
    for (unsigned i = 0; file && i < sizeof g_Reached; ++i)
        std::fprintf(file, g_Reached[i] ? "%%u " : "", i);
}
inline const int g_Registered = std::atexit(Report);
}
"""
CHOSEN = None  # in a mutant's form: whether it is the chosen one


class Mutant:  # its form is what takes the place: text, ranges of the file's text, CHOSEN
    def __init__(self, file, text, begin, end, form, what):
        self.file, self.begin, self.end, self.form = file, begin, end, form
        self.lines = range(text.count(b"\n", 0, begin) + 1, text.count(b"\n", 0, end) + 2)
        shown = " ".join(text[begin:end].decode("utf-8", "replace").split())
        self.shown = f"{file}:{self.lines[0]}: {what}: {shown[:90]}"


def find(file, arguments):
    """Every fault that can be planted in a file."""
    text = (ROOT / file).read_bytes()
    found = {}

    def place(cursor):
        return cursor.extent.start.offset, cursor.extent.end.offset

    def add(begin, end, form, what):
        code = text[begin:end]
        if code and b"#" not in code and b"//" not in code and code.count(b"(") == code.count(b")"):
            found[begin, end, what] = Mutant(file, text, begin, end, form, what)

    def negate(cursor):
        if cursor.kind.is_expression() and not re.search(rb"==|!=|^(true|false)$", text[slice(*place(cursor))]):
            add(*place(cursor), [b"(", CHOSEN, b" != (bool)(", place(cursor), b"))"], "negated")

    def binary(cursor, left, right):
        (begin, after), (before, end) = place(left), place(right)
        operator = text[after:before].strip()
        if operator in OPERATORS[:8] or (operator in OTHER and cursor.kind == Kind.BINARY_OPERATOR and
                                   cursor.type.get_canonical().kind.value in INTEGERS):
            with_other, as_is = ([b"(", (begin, after), b") ", each, b" (", (before, end), b")"]
                                 for each in (OTHER[operator], operator))
            add(begin, end, [b"(", CHOSEN, b" ? ", *with_other, b" : ", *as_is, b")"], OTHER[operator].decode() + " in")

    def walk(cursor, is_inside):
        kind, children = cursor.kind, list(cursor.get_children())
        begin, end = place(cursor)
        if kind in FUNCTIONS or kind == Kind.VAR_DECL:
            if re.search(rb"constexpr|consteval", text[begin:place(children[-1])[0] if children else end]):
                return
            is_inside = is_inside or kind in FUNCTIONS
        if kind in (Kind.ENUM_DECL, Kind.STATIC_ASSERT) or text.startswith(b"if constexpr", begin):
            return
        if is_inside:
            for each in children[BODIES[kind]:] if kind in BODIES else []:
                if each.kind in STATEMENTS:
                    add(*place(each), [b"(", CHOSEN, b" ? (void)0 : (void)(", place(each), b"))"], "left out")
            if kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.CONDITIONAL_OPERATOR) or (
                    kind == Kind.RETURN_STMT and children and children[0].type.get_canonical().kind == TypeKind.BOOL):
                negate(children[0])
            elif kind == Kind.BINARY_OPERATOR or kind == Kind.CALL_EXPR and len(children) == 3:
                binary(cursor, children[0], children[-1])
            elif kind == Kind.INTEGER_LITERAL and re.fullmatch(rb"\w+", text[begin:end]):
                add(begin, end, [b"(", (begin, end), b" + ", CHOSEN, b")"], "one more than")
            elif kind == Kind.CXX_BOOL_LITERAL_EXPR and text[begin:end] in (b"true", b"false"):
                add(begin, end, [b"(", CHOSEN, b" != ", (begin, end), b")"], "negated")
        for child in children[1:] if kind == Kind.CASE_STMT else children:
            walk(child, is_inside)

    for cursor in clang.cindex.Index.create().parse(str(ROOT / file), arguments).cursor.get_children():
        if cursor.location.file and cursor.location.file.name == str(ROOT / file):
            walk(cursor, False)
    return [found[key] for key in sorted(found)]


def planted(text, mutants):
    """The text with these faults in it, each on the line on which the original begins."""
    def render(begin, end, inside):
        out = b""
        while inside:
            first, *inside = inside
            below = [each for each in inside if each.end <= first.end]
            inside = [each for each in inside if each.begin >= first.end]
            pieces = [b"KxMutants::Is(%d)" % first.number if piece is CHOSEN else piece if isinstance(piece, bytes) else
                      render(*piece, [each for each in below if piece[0] <= each.begin and each.end <= piece[1]])
                      for piece in first.form]
            out += text[begin:first.begin] + b"".join(pieces).replace(b"\n", b" ") + b"\n" * (len(first.lines) - 1)
            begin = first.end
        return out + text[begin:end]

    # Of two faults in the same place the one with the shorter form is outside: it takes the place as a whole.
    return render(0, len(text), sorted(mutants, key=lambda each: (each.begin, -each.end, len(each.form))))


def compile_one(command):
    """Compiles, with the headers that have faults in front; returns the places of errors."""
    words = shlex.split(command["command"])
    file, target = OUT / "tree" / pathlib.Path(command["file"]).relative_to(ROOT), OUT / "objects" / words[-3]
    target.parent.mkdir(parents=True, exist_ok=True)
    words[-3:] = [str(target), "-c", str(file if file.exists() else command["file"])]
    words[1:1] = ["-include", f"{OUT}/mutants.h", f"-I{OUT}/tree", f"-ffile-prefix-map={OUT}/tree/="]
    words += ["-w", "-g0", "-Werror=vla", "-fmax-errors=0"]
    done = subprocess.run(words, cwd=NATIVE, capture_output=True, text=True)
    places = {(name, int(line)) for name, line in re.findall(r"mutants/tree/([\w./]+):(\d+):", done.stderr)}
    if done.returncode and not places:
        sys.exit(done.stderr)
    return places if done.returncode else set()


def build(mutants, commands, deps, link, pool):
    """Compiles every source with a fault in it and links the rest as it is. Returns the faults that can be compiled."""
    (OUT / "mutants.h").write_text(HEADER % (len(mutants) + 1))
    for number, each in enumerate(mutants, 1):
        each.number = number
    left, changed = mutants, {each.file for each in mutants}
    while changed:
        for file in changed:
            path = OUT / "tree" / file
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(planted((ROOT / file).read_bytes(), [each for each in left if each.file == file]))
        errors = set().union(*pool.map(compile_one, [commands[name] for name in deps if deps[name] & changed]))
        bad = {each for each in left for file, line in errors if file == each.file and line in each.lines}
        changed = {each.file for each in bad}
        left = [each for each in left if each not in bad]
    words = [str(OUT / "objects" / word) if (OUT / "objects" / word).exists() else word for word in shlex.split(link)]
    words = [word for word in words if word not in (":", "&&")]
    words[words.index("-o") + 1] = str(OUT / "core_tests")
    subprocess.run(words, cwd=NATIVE, check=True)
    return left


def run(tests, number, reached, timeout=600.0, is_whole=False):
    """Runs these tests; returns which of them fail, the first alone unless is_whole."""
    command = [str(OUT / "core_tests"), "--gtest_filter=" + ":".join(tests), f"--gtest_fail_fast={not is_whole:d}"]
    settings = os.environ | {"KX_MUTANT": str(number), "KX_REACHED": reached}
    try:
        said = subprocess.run(command, cwd=ROOT, env=settings, capture_output=True, timeout=timeout)
    except subprocess.TimeoutExpired as stopped:
        said = stopped
    said = (said.stdout or b"").decode("utf-8", "replace")
    failed = set(re.findall(r"^\[  FAILED  \] (\S+) \(", said, re.M))
    if " ran. (" not in said:  # it ended in the midst of a test
        begun = re.findall(r"^\[ RUN      \] (\S+)", said, re.M) or tests
        left = [each for each in tests if each not in begun]
        failed |= {begun[-1]} | (run(left, number, reached, timeout, True) if is_whole and left else set())
    return failed


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--count", type=int, default=200, help="how many faults, at most")
    parser.add_argument("--seed", type=int, default=1, help="which")
    parser.add_argument("--matrix", action="store_true", help="also which tests kill nothing alone (takes longer)")
    parser.add_argument("paths", nargs="*", default=ROOMS, help="where; headers have to be named")
    options = parser.parse_args()
    for words in (["--preset", "native", "-B", NATIVE, "-DCMAKE_UNITY_BUILD=OFF"],
                  ["--build", NATIVE, "--target", "core_tests"]):
        subprocess.run(["cmake", *words], cwd=ROOT, check=True, stdout=subprocess.DEVNULL)
    listed = json.loads((NATIVE / "compile_commands.json").read_text())
    commands = {shlex.split(each["command"])[-3]: each for each in listed}

    def ninja(*arguments):
        return subprocess.check_output(["ninja", "-C", str(NATIVE), "-t", *arguments], text=True)

    link = ninja("commands", "core_tests").splitlines()[-1]
    objects = [word for word in shlex.split(link) if word in commands]
    deps = {name: set(re.findall(r"^ +%s/(.*)" % ROOT, ninja("deps", name), re.M)) for name in objects}
    files = sorted(file for file in set().union(*deps.values()) if file in options.paths or (
        file.startswith(tuple(options.paths)) and file.endswith(".cpp")))
    flags = [word for word in shlex.split(commands[objects[-1]]["command"]) if re.match("-[DIs]", word)]
    for each in ("tree", "objects"):
        shutil.rmtree(OUT / each, ignore_errors=True)
    with concurrent.futures.ProcessPoolExecutor(os.cpu_count()) as pool:
        mutants = sum(pool.map(find, files, [flags + ["-xc++", f"-isystem{NATIVE}/third_party"]] * len(files)), [])
        print(f"{len(mutants)} faults are possible in {len(files)} files", flush=True)
        mutants = random.Random(options.seed).sample(mutants, min(options.count, len(mutants)))
        mutants = build(mutants, commands, deps, link, pool)
    os.environ |= {"KX_MUTANT": "0", "KX_REACHED": os.devnull, "ASAN_OPTIONS": "hard_rss_limit_mb=3000"}
    listed = subprocess.check_output([str(OUT / "core_tests"), "--gtest_list_tests"], text=True)
    suites = re.findall(r"^(\S+\.)\n((?:  .*\n)+)", listed, re.M)
    tests = [suite + name for suite, names in suites for name in re.findall(r"^  (\S+)", names, re.M)]

    def reach(test):
        begin, file = time.monotonic(), OUT / test.replace("/", "-")
        if run([test], 0, str(file)):
            sys.exit(f"{test} fails without a fault")
        return time.monotonic() - begin, {int(number) for number in file.read_text().split()}

    def kill(mutant):
        some = [test for test in tests if mutant.number in reached[test][1]]
        limit = 10 + 5 * sum(reached[test][0] for test in some)
        return run(some, mutant.number, os.devnull, limit, options.matrix) if some else set(), len(some)

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as threads:
        reached = dict(zip(tests, threads.map(reach, tests)))
        results = dict(zip(mutants, threads.map(kill, mutants)))
    killed = {each for each in mutants if results[each][0]}
    planted_in, killed_in = (collections.Counter(each.file for each in some) for some in (mutants, killed))
    for file, count in sorted(planted_in.items()):
        print(f"{file:36} {killed_in[file]:4} of {count:3}")
    print(f"killed {len(killed)} of {len(mutants)}: {100 * len(killed) / len(mutants):.1f} %; survivors:")
    for each in sorted(set(mutants) - killed, key=lambda each: (each.file, each.begin)):
        print(f"  {each.shown} ({results[each][1]} tests reach it)")
    if options.matrix:
        print("kills, kills alone, seconds:")
        alone = collections.Counter(test for each in killed if len(results[each][0]) == 1 for test in results[each][0])
        for test in sorted(tests, key=lambda test: (alone[test], test)):
            print(f"{sum(test in results[one][0] for one in killed):5} {alone[test]:4} {reached[test][0]:6.1f} {test}")


if __name__ == "__main__":
    main()
