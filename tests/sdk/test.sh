#!/bin/bash
# The packages as a customer meets them: packed from build/release, unpacked into a folder with a blank in its name, moved,
# and programs in C, C++ and Python built from that folder alone and run.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
scratch=$root/build/sdk
sdk="$scratch/a folder/KxPfwRul"
rm -rf "$scratch"
mkdir -p "$scratch/a folder"

# logged NAME COMMAND...: shows what the command said when it fails.
logged()
{
    "${@:2}" >"$scratch/$1.log" 2>&1 || { cat "$scratch/$1.log" >&2; echo "failed: $1" >&2; exit 1; }
}
logged package scripts/package.sh "$scratch/dist"
for zip in "$scratch"/dist/*.zip; do
    python3 -m zipfile -e "$zip" "$scratch/a folder"
done
mv "$scratch/a folder"/*-win64 "$sdk"
zip=$(ls "$scratch"/dist/*-win64.zip)
python3 tests/sdk/package_test.py "$sdk" "$scratch/a folder"/*-symbols "$scratch"/dist/*.nupkg

# What the C++ layer refuses, it refuses with a reason, and nothing else.
refused() { x86_64-w64-mingw32-g++-posix -fsyntax-only -I"$sdk/include" "$@" tests/sdk/refused.cpp 2>&1 || true; }
said=$(refused -std=c++20)
while IFS=: read -r number line; do
    near=$(grep -A 4 "refused.cpp:$number:" <<<"$said" || true)
    case $line in
    *'// '*) [[ $near == *"${line##*// }"* ]] ;;
    *) [ -z "$near" ] ;;
    esac || { echo "refused.cpp:$number: $near" >&2; exit 1; }
done < <(grep -n '^const' tests/sdk/refused.cpp)
[[ $(refused -std=c++17) == *'error: #error "Needs C++20'* ]]

# Off Windows the package says why it is no use. For Windows the two commands of its README build the examples.
cd "$sdk"
cmake -S examples -B "$scratch/native" -G Ninja -DCMAKE_PREFIX_PATH="$PWD" >"$scratch/native.log" 2>&1 && exit 1
grep -q 'KxPfwRul is for 64-bit Windows' "$scratch/native.log" || { cat "$scratch/native.log" >&2; exit 1; }
flags='-Wall -Wextra -Wpedantic -Werror'
export CFLAGS=$flags CXXFLAGS="$flags -Wno-restrict"
awk '/^```/ { commands = /sh$/; next } commands' README.md >"$scratch/readme.sh"
logged examples bash -e "$scratch/readme.sh"
# A program that takes the zip file by itself, and one that knows nothing but pkg-config.
logged consumer cmake -S "$root/tests/sdk/consumer" -B "$scratch/a folder/consumer" -G Ninja -DKX_ZIP="$zip" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/examples/mingw-w64-x86_64.cmake"
logged consumer cmake --build "$scratch/a folder/consumer"
eval "x86_64-w64-mingw32-gcc-posix -std=c99 $flags -static -o build/by-pkg-config.exe examples/first-steps.c \
    $(PKG_CONFIG_PATH=lib/pkgconfig pkg-config --cflags --libs kxpolicy)"

# expect NAME COMMAND...: the command's output is what the input says.
expect()
{
    local name=$1
    shift
    diff -u --label "$name, expected" - --label "$name" <("$@" | tr -d '\r') || { echo "$name: other output" >&2; exit 1; }
}
run() { "$root/cmake/wine-run.sh" "$@"; }

cd build
for program in by-pkg-config first-steps-c; do
    expect "first-steps.c as $program" run ./$program.exe rules-c <<'E1'
1/10 ACCESS,TCP,10.0.0.1,,,443,ACCEPT
1/20 ACCESS,TCP,,,,23,DROP
E1
done
for attempt in first second; do
    expect "first-steps.cpp, $attempt run" run ./first-steps-cpp.exe rules-cpp <<'E1'
1/10 ACCESS,TCP,10.0.0.0/8,,,80|443,ACCEPT
1/20 ACCESS,ANY,,,,,DROP
1/30 NAT,TCP,,192.0.2.1,10.0.0.5,,8080,,DNAT
1/40 THROTTLE,UDP,,,,53,10,20,30,40,50,60
servers=10.0.0.1:10.0.0.9
E1
done
expect "load-at-run-time" run ./load-at-run-time.exe rules-cpp <<<'1 rule sets'

# The threads answer in any order.
query() { printf '%s\n' "$@" | run ./service.exe rules-c | sort; }
expect "service, lookups" query 'tcp 443' 'tcp 23' 'udp 23' 'nonsense' <<'E1'
nonsense: not understood
stopped: success
tcp 23: ACCESS,TCP,,,,23,DROP
tcp 443: ACCESS,TCP,10.0.0.1,,,443,ACCEPT
udp 23: no rule
E1
expect "service, a change" query 'block udp 69' <<'E1'
block udp 69: blocked
stopped: success
E1
expect "service, after a restart" query 'udp 69' <<'E1'
stopped: success
udp 69: ACCESS,UDP,,,,69,DROP
E1

# A policy at the start; while the service runs one that is wrong, and another one.
put()
{
    printf '{"version": 1, "active": [1], "ruleSets": [{"index": 1, "name": "p", "rules": [{"index": 1, "kind": "access",
        "protocol": "tcp", "action": "drop", "addresses": ["any", "any"], "ports": ["any", "%s"]}]}]}' "$1" >policy.json
}
await() { for _ in {1..300}; do ! grep -qs "$1" follow.log || return 0; sleep 0.2; done; return 1; }
follow()
{
    put 21
    mkfifo queries
    run ./service.exe rules-p policy.json <queries >follow.log &
    { await 'policy: 2 ' && put 70000 && await refused && put 22 && await 'policy: 1 '; printf 'tcp %s\n' 21 22; } >queries
    wait $!
    cut -c 1-60 follow.log | LC_ALL=C sort
}
expect "service, a policy that changes" follow <<'E1'
policy.json:2:92: ruleSets[0].rules[0].ports[1] expected a p
policy: 1 differences applied
policy: 2 differences applied
policy: refused (-20002)
stopped: success
tcp 21: no rule
tcp 22: ACCESS,TCP,,,,22,DROP
E1

# MSVC's object format and linker, with Clang in MSVC's place: the program ends with the number of rules that it reads.
clang --target=x86_64-pc-windows-msvc -ffreestanding -O1 -mno-stack-arg-probe -std=c11 -I"$sdk/include" -c -o msvc.obj \
    "$root/tests/sdk/msvc.c"
lld-link /nologo /entry:start /subsystem:console /nodefaultlib /out:msvc.exe msvc.obj "$sdk"/lib/KxP*.lib
status=0
run ./msvc.exe || status=$?
[ $status = 3 ] || { echo "linked with KxP*.lib: ended with $status instead of 3" >&2; exit 1; }

cd "$scratch/a folder/consumer"
[ -f KxHash.dll ] && [ -f KxVqrDbg.dll ] && [ -f kxrule.exe ] # copied with the target that names them
printf '[InteractiveSession]\r\nEnable=1\r\nLevel=273\r\nLogFolder=log\r\n' >KxPfw.ini
run ./consumer.exe

/usr/bin/python3 -m pip install -q --root-user-action=ignore --no-index --no-deps --no-build-isolation \
    --target "$scratch/site" "$sdk/python"
PYTHONPATH=$scratch/site /usr/bin/python3 "$root/tests/sdk/python_test.py" "$sdk/include"
