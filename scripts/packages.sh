#!/bin/bash
# packages.sh [--no-install] GROUP...: installs the missing Debian packages of these groups. First prints which they are
# and what they are for, and asks if it runs on a terminal. With --no-install it stops there, and succeeds if none is
# missing.
set -euo pipefail

declare -A groups=(
    [build]="g++-mingw-w64-x86-64-posix wine wine64 cmake ninja-build googletest libcli11-dev nlohmann-json3-dev
        libutfcpp-dev"
    [test]="g++ libc6-dev libgtest-dev pkg-config python3 python3-jsonschema python3-pip python3-setuptools python3-wheel"
    [check]="clang clang-format clang-tidy lld llvm shellcheck"
    [fuzz]="clang g++ libclang-rt-dev llvm python3"
    [package]="llvm python3 zip"
    [coverage]="gcovr python3"
    [bench]="npm python3"
    [mutants]="g++ libc6-dev libgtest-dev python3 python3-clang"
)

declare -A purposes=(
    [build]="compile, and run Windows programs" [test]="test" [check]="check" [fuzz]="fuzz"
    [package]="make the package" [coverage]="measure coverage" [bench]="run the benchmarks" [mutants]="plant faults"
)

install=true
[ "${1-}" != --no-install ] || { install=false; shift; }
missing=()
for group in "$@"; do
    added=()
    for package in ${groups[$group]}; do
        status=$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null || true)
        [ "$status" = installed ] || [[ " ${missing[*]} " == *" $package "* ]] || added+=("$package")
    done
    [ ${#added[@]} = 0 ] || echo "  missing to ${purposes[$group]}: ${added[*]}"
    missing+=("${added[@]}")
done
[ ${#missing[@]} -gt 0 ] || exit 0
$install || exit 1
if [ -t 0 ]; then
    read -rp "  Install them with apt-get? [Y/n] " answer
    [[ ${answer:-y} == [yY]* ]] || exit 1
fi

root=()
if [ "$(id -u)" != 0 ]; then
    command -v sudo >/dev/null || { echo "these must be installed as root: ${missing[*]}" >&2; exit 1; }
    root=(sudo)
fi

# apt-get with its progress on file descriptor 3: on 1 it would take the output of the packages' own scripts.
apt()
{
    "${root[@]}" sh -c 'DEBIAN_FRONTEND=noninteractive exec apt-get "$@" 3>&1' apt-get -qq -o DPkg::Lock::Timeout=120 \
        -o Dpkg::Use-Pty=0 -o APT::Status-Fd=3 "$@" </dev/null 2>&1
}

# Shows the progress of apt-get in quarters, and logs everything else in case it fails.
log=$(mktemp)
trap 'rm -f "$log"' EXIT
progress()
{
    local kind percent step last=''
    while IFS= read -r line; do
        case $line in
        dlstatus:* | pmstatus:*)
            IFS=: read -r kind _ percent _ <<<"$line"
            step="$([ "$kind" = dlstatus ] && echo download || echo install) $((${percent%%.*} / 25 * 25)) %"
            [ "$step" = "$last" ] || echo "    $step"
            last=$step
            ;;
        *) echo "$line" >>"$log" ;;
        esac
    done
}

if ! { apt update >>"$log" && apt -y --no-install-recommends install "${missing[@]}" | progress; }; then
    cat "$log" >&2
    echo "apt-get could not install: ${missing[*]}" >&2
    exit 1
fi
