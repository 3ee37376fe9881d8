#!/bin/bash
# test.sh [--no-install] [CTEST ARGUMENTS]: installs what is missing, builds all presets with warnings as errors, and
# runs every test, natively and under Wine, and every check. Ends with ctest's summary of all of them.
. "$(dirname "$0")/steps.sh" 3

step "packages"
options=()
[ "${1-}" != --no-install ] || { options=("$1"); shift; }
scripts/packages.sh "${options[@]}" build test check package

cmake/wine-run.sh & # a new Wine prefix takes some seconds, which pass during the build
prefix=$!
trap stopWine EXIT
step "builds (native, release, debug)"
# Two at once, each on half of the processors: one after another, each would end with its longest source on one of them.
build()
{
    if ! configure "$1" -DKX_WERROR=ON ||
        ! NINJA_STATUS="    [$1 %f/%t] " cmake --build --preset "$@" -j $((($(nproc) + 1) / 2)); then
        echo "failed: the build of $1" >&2
        return 1
    fi
}
{ build native && build debug --target kx_tests; } & # in debug, what runs with assertions
others=$!
status=0
build release || status=1
wait $others || status=1
[ $status = 0 ] || exit 1
wait $prefix

step "tests and checks"
mkdir -p build/all
echo "include(\"$PWD/scripts/all-tests.cmake\")" >build/all/CTestTestfile.cmake
# two more than there are processors, since some wait
ctest --test-dir build/all -j $(($(nproc) + 2)) --output-on-failure --no-tests=error --timeout 180 "$@"
