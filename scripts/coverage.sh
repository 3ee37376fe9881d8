#!/bin/bash
# coverage.sh [PRESET...]: reports which lines and branches of the product the tests reach, by directory, under Wine
# (coverage) and natively (coverage-native). Line by line: build/PRESET/report/index.html.
[ $# -gt 0 ] || set -- coverage coverage-native
. "$(dirname "$0")/steps.sh" $((1 + 2 * $#))

step "packages"
scripts/packages.sh build test coverage
trap stopWine EXIT
export NINJA_STATUS='    [%f/%t] '

# Runs all programs; a failing test does not end the measurement. The kills of torture.py do not count: a killed process
# writes no counters.
runTests()
{
    local program
    for program in "build/$1/bin"/*_tests*; do
        case $program in
        *.exe) quietly "$1-$(basename "$program")" cmake/wine-run.sh "$program" || true ;;
        *) quietly "$1-$(basename "$program")" "$program" || true ;;
        esac
    done
}

# To the compiler, every call has a branch to code that only an exception reaches; these branches are left out.
report()
{
    local gcov=gcov
    [ "$1" = coverage-native ] || gcov=x86_64-w64-mingw32-gcov-posix
    mkdir -p "build/$1/report"
    gcovr --root . --gcov-executable "$gcov" --exclude-throw-branches --exclude-unreachable-branches \
        --filter '(api|rules|repository|persistence|common|companions|policy|tools)/' \
        --html-details "build/$1/report/index.html" --json-summary "build/$1/report/summary.json" "build/$1" >/dev/null
    python3 - "$1" <<'END'
import collections
import json
import sys

directories = collections.defaultdict(collections.Counter)
for file in json.load(open(f"build/{sys.argv[1]}/report/summary.json"))["files"]:
    for directory in (file["filename"].split("/")[0], "all"):
        for what in ("line_covered", "line_total", "branch_covered", "branch_total"):
            directories[directory][what] += file[what]
print(f"\n| {sys.argv[1]} | Lines | Branches |\n|---|---|---|")
for directory, sums in sorted(directories.items(), key=lambda item: (item[0] == "all", item[0])):
    cells = (f"{100 * sums[w + '_covered'] / max(1, sums[w + '_total']):.1f} % of {sums[w + '_total']}"
             for w in ("line", "branch"))
    print(f"| {directory} | {' | '.join(cells)} |")
print()
END
}

for preset in "$@"; do
    step "build ($preset)"
    configure "$preset"
    cmake --build --preset "$preset"
    step "tests ($preset)"
    find "build/$preset" -name '*.gcda' -delete
    runTests "$preset"
    report "$preset"
done
