#!/bin/bash
# quickstart.sh [--no-install]: from a bare Debian 12 to a rule directory. Installs what is missing, builds the release,
# imports a policy in one process and reads it back in another.
. "$(dirname "$0")/steps.sh" 4

kxrule()
{
    echo "\$ kxrule $*"
    cmake/wine-run.sh build/release/bin/kxrule.exe "$@"
    echo
}

step "packages"
scripts/packages.sh "$@" build

step "build (release)"
configure release
cmake/wine-run.sh & # a new Wine prefix takes some seconds, which pass during the build
prefix=$!
trap stopWine EXIT
NINJA_STATUS='    [%f/%t] ' cmake --build --preset release --target KxPfwRul kxrule
wait $prefix

rules=build/quickstart
rm -rf $rules
step "import examples/workstation.json into $rules"
kxrule --dir $rules import examples/workstation.json

step "a second process reads $rules"
kxrule --dir $rules list
kxrule --dir $rules show

echo "The policy is now in these encrypted files ($SECONDS s in all):"
ls -l $rules
