#!/bin/bash
# torture.sh [MINUTES [PRESET]]: tries to lose a rule, for half an hour and ten thousand kills by default: kills the
# writer, lets calls fail, fills the disk, damages files, calls the library from many threads, fuzzes the readers.
# Prints tables of what was tried and lost, and fails if anything was lost. The preset is debug, whose assertions detect
# more, or release. If interrupted, the next run continues the kills. torture.sh crash [PRESET]: only the states that a
# crash can leave; takes a minute.
. "$(dirname "$0")/steps.sh" 4

step "packages"
scripts/packages.sh build fuzz

cmake/wine-run.sh & # a new Wine prefix takes some seconds, which pass during the build
prefix=$!
trap stopWine EXIT
export NINJA_STATUS='    [%f/%t] '
preset=${2:-debug}
step "build ($preset)"
configure "$preset"
if [ "${1-}" = crash ]; then
    cmake --build --preset "$preset" --target crash_tests
    wait $prefix
    step "crash states"
    python3 scripts/torture.py --preset "$preset" --only crash
    exit
fi
cmake --build --preset "$preset" --target torture_tests crash_tests victim kx_standins
step "build (fuzz)"
configure fuzz
cmake --build --preset fuzz
wait $prefix

step "campaigns"
python3 scripts/torture.py --preset "$preset" --minutes "${1:-30}"
