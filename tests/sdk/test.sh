#!/bin/bash
# The SDK as a customer meets it: installed from build/release into a folder of its own, its examples built from that
# folder alone and run, its import libraries used by both families of linkers.
set -euo pipefail
cd "$(dirname "$0")/../.."
root=$PWD
scratch=$root/build/sdk
sdk=$scratch/tree
examples=$sdk/share/doc/KxPfwRul/examples
rm -rf "$scratch"
mkdir -p "$scratch"

cmake --install build/release --strip --prefix "$sdk" >"$scratch/install.log"
for file in bin/{KxPfwRul.dll,KxHash.dll,KxVqrDbg.dll,kxrule.exe} \
    include/{KxPfwRule.h,KxPfwRule.hpp,KxPfwRuleBuilder.hpp} \
    lib/{libKxPfwRul.dll.a,KxPfwRul.lib,cmake/KxPfwRul/KxPfwRulConfig.cmake} \
    share/doc/KxPfwRul/{README.md,LICENSE,docs/{architecture,format,kxrule}.md,examples/CMakeLists.txt}; do
    [ -f "$sdk/$file" ] || { echo "not installed: $file" >&2; exit 1; }
done

# The examples, moved away from the sources: what they need and the package lacks is missed here.
cp -r "$examples" "$scratch/examples"
cmake -S "$scratch/examples" -B "$scratch/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/mingw-w64-x86_64.cmake" \
    -DCMAKE_BUILD_TYPE=Release -DKxPfwRul_DIR="$sdk/lib/cmake/KxPfwRul" -DCMAKE_C_FLAGS="-Wall -Wextra -Wpedantic -Werror" \
    -DCMAKE_CXX_FLAGS="-Wall -Wextra -Wpedantic -Werror -Wno-restrict" >"$scratch/configure.log"
cmake --build "$scratch/build" >"$scratch/build.log" || { cat "$scratch/build.log" >&2; exit 1; }
cp "$sdk/bin/"*.dll "$scratch/build"
cd "$scratch/build"

# expect NAME COMMAND...: the command's output is what the input says.
expect()
{
    local name=$1
    shift
    diff -u --label "$name, expected" - --label "$name" <("$@" | tr -d '\r') || { echo "$name: other output" >&2; exit 1; }
}
run() { "$root/cmake/wine-run.sh" "$@"; }

for attempt in first second; do
    expect "first-steps.c, $attempt run" run ./first-steps-c.exe rules-c <<'E1'
1/10 ACCESS,TCP,10.0.0.1,,,443,ACCEPT
1/20 ACCESS,TCP,,,,23,DROP
E1
    expect "first-steps.cpp, $attempt run" run ./first-steps-cpp.exe rules-cpp <<'E1'
1/10 ACCESS,TCP,10.0.0.0/8,,,80|443,ACCEPT
1/20 ACCESS,ANY,,,,,DROP
1/30 NAT,TCP,,192.0.2.1,10.0.0.5,,8080,,DNAT
1/40 THROTTLE,UDP,,,,53,10,20,30,40,50,60
servers=10.0.0.1:10.0.0.9
E1
done

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

# MSVC's object format and linker, with Clang in MSVC's place: the program ends with the number of rules that it reads.
clang --target=x86_64-pc-windows-msvc -ffreestanding -O1 -mno-stack-arg-probe -std=c11 -I"$sdk/include" -c -o msvc.obj \
    "$root/tests/sdk/msvc.c"
lld-link /nologo /entry:start /subsystem:console /nodefaultlib /out:msvc.exe msvc.obj "$sdk/lib/KxPfwRul.lib"
status=0
run ./msvc.exe || status=$?
[ $status = 3 ] || { echo "linked with KxPfwRul.lib: ended with $status instead of 3" >&2; exit 1; }

PYTHONPATH=$root/api/python python3 "$root/tests/sdk/python_test.py" "$root/api/include" "$scratch"
