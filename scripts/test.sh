#!/bin/bash
# test.sh [--no-install] [CTEST ARGUMENTS]: installs what is missing, builds all presets with warnings as errors, and
# runs every test, natively and under Wine, and every check. Ends with ctest's summary of all of them.
. "$(dirname "$0")/steps.sh" 5

step "packages"
options=()
[ "${1-}" != --no-install ] || { options=("$1"); shift; }
scripts/packages.sh "${options[@]}" build test check package

cmake/wine-run.sh & # a new Wine prefix takes some seconds, which pass during the build
prefix=$!
trap stopWine EXIT
export NINJA_STATUS='    [%f/%t] '
for preset in native release debug; do
    step "build ($preset)"
    configure $preset -DKX_WERROR=ON
    case $preset in
    debug) cmake --build --preset debug --target kx_tests ;; # what runs with assertions
    *) cmake --build --preset $preset ;;
    esac
done
wait $prefix

step "tests and checks"
mkdir -p build/all
echo "include(\"$PWD/scripts/all-tests.cmake\")" >build/all/CTestTestfile.cmake
# one more than there are processors, since some wait
ctest --test-dir build/all -j $(($(nproc) + 1)) --output-on-failure --no-tests=error --timeout 180 "$@"
