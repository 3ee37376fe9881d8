#!/bin/bash
# check.sh [CHECK...]: runs the checks that neither compiler nor tests make; all of them if none is named. `tables`
# needs build/release.
. "$(dirname "$0")/steps.sh" 0

rooms='api|rules|repository|persistence|common|companions|policy|tools'
files() { git ls-files -co --exclude-standard | grep -E "$1" | while read -r file; do [ ! -f "$file" ] || echo "$file"; done; }
sources() { files "^($rooms)/.*\.cpp$"; }

# Clang reads the Windows headers and the C++ library of the cross compiler.
library=$(x86_64-w64-mingw32-g++-posix -print-file-name=include/c++)
windows=(--target=x86_64-w64-mingw32 -nostdinc++ -nostdlibinc -isystem "$library"
    -isystem "$library/x86_64-w64-mingw32" -isystem "$library/backward" -isystem /usr/x86_64-w64-mingw32/include)
flags=(-std=c++20 -D_WIN32_WINNT=0x0601 -DWINVER=0x0601 -DWIN32_LEAN_AND_MEAN -DNOMINMAX -DKXRULE_API= "-I$PWD" -Wall -Wextra -Wshadow)

# The headers that cmake/ThirdParty.cmake uses, without the rest of the system's.
thirdParty()
{
    mkdir -p build/check/include
    ln -sfn /usr/include/{CLI,nlohmann,utf8,utf8.h} build/check/include
    flags+=(-isystem "$PWD/build/check/include")
}

# each COMMAND...: runs COMMAND for every file name ({}) on standard input, two at a time; fails if one of them fails.
each() { xargs -r -P 2 -I '{}' "$@"; }

# The layout of the text.
checkFormat() { files '\.(c|cpp|h|hpp)$' | xargs clang-format --dry-run -Werror; }

# With Clang's own warnings and the lock annotations: guarded members are accessed only under their locks. The analyzer
# gives up on a function after 20000 states instead of 225000, which takes half of the time. The sources of a room are
# checked as one, since two thirds of the time would go to the headers; lines are those of the file in build/check.
checkTidy()
{
    local source
    rm -rf build/check/rooms && mkdir build/check/rooms
    sources | tac | while read -r source; do # not in the order of the build: each shows what the other lacks
        # One of two ciphers: both have the same functions.
        [[ $source = */Aes128Ni.cpp ]] && cp "$source" build/check/rooms && continue
        cat "$source" >>"build/check/rooms/${source%%/*}.cpp"
    done
    # the largest first
    find build/check/rooms -name '*.cpp' -printf '%s %p\n' | sort -rn | cut -d ' ' -f 2 |
        each clang-tidy --quiet '{}' -- "${windows[@]}" "${flags[@]}" -Wthread-safety \
            -Xclang -analyzer-config -Xclang max-nodes=20000 2>build/check/tidy.log ||
        { cat build/check/tidy.log >&2; return 1; }
}

# Each directory includes only itself, the contract, and the directories below it; common and the companions do not
# include the contract, nor common/srclib the trace.
checkRooms()
{
    local room below bad=0
    while read -r room below; do
        files "^$room/.*\.(cpp|h|hpp)$" | xargs grep -nE '^#include "[a-z]+/' | grep -vE "\"($room|$below)/" && bad=1
    done <<'END'
common/srclib common/srclib
common/trace common/srclib
companions  common
rules       common|api/include
persistence common|api/include
repository  common|api/include|rules|persistence
api         common|rules|persistence|repository
policy      common|api/include|rules
tools       common|api/include|rules|persistence|policy
END
    # A source file in no list is never built, and a test in it seems to pass.
    files '\.(c|cpp)$' | sed 's|.*/||' |
        grep -vxFf <(git grep -hoE '[-A-Za-z0-9_]+\.(c|cpp)\b' -- '*CMakeLists.txt' tests/sdk) && bad=1
    return $bad
}

# Every source and header includes what it needs, although a build compiles several sources together.
checkAlone()
{
    files "^($rooms)/.*\.(h|hpp|cpp)$" |
        each clang++ "${windows[@]}" "${flags[@]}" -fsyntax-only -Werror -Wno-pragma-once-outside-header -x c++ '{}'
}

# The public headers, with every compiler that a caller may use; the second includes the first.
checkContract()
{
    local header=api/include/KxPolicy.h standard compiler
    for standard in c99 c11 c17; do
        for compiler in gcc clang x86_64-w64-mingw32-gcc-posix "clang --target=x86_64-pc-windows-msvc -ffreestanding"; do
            $compiler -std=$standard -pedantic -Wall -Wextra -Werror -fsyntax-only -x c $header
        done
    done
    for standard in c++11 c++20; do
        for compiler in g++ clang++ x86_64-w64-mingw32-g++-posix \
            "clang++ --target=x86_64-pc-windows-msvc -ffreestanding"; do
            $compiler -std=$standard -pedantic -Wall -Wextra -Werror -fsyntax-only -x c++ $header
        done
    done
}

# tables FILE EXPORT...: the library exports exactly these names, imports only from Windows, needs no slot of
# thread-local storage, which nobody would release when it is unloaded (common/srclib/KxComn_Unload.cpp), and is marked
# as relocatable, with non-executable data.
tables()
{
    local file=build/release/bin/$1 dump allowed='KERNEL32.dll|ADVAPI32.dll|msvcrt.dll|WS2_32.dll|bcrypt.dll|ntdll.dll'
    shift
    dump=$(x86_64-w64-mingw32-objdump -p "$file")
    diff <(printf '%s\n' "$@" | sort) <(awk '/\[Ordinal\/Name Pointer\]/ { names = 1; next } /^$/ { names = 0 }
        names && /\[ *[0-9]+\]/ { print $NF }' <<<"$dump" | sort) || { echo "$file: other exports" >&2; return 1; }
    ! awk '/DLL Name:/ { print $3 }' <<<"$dump" | grep -vxE "$allowed" || { echo "$file: imports" >&2; return 1; }
    ! grep -w TlsAlloc <<<"$dump" || { echo "$file: a guarded static or thread-local storage" >&2; return 1; }
    grep -q '^DllCharacteristics.*0160$' <<<"$dump" || { echo "$file: not hardened" >&2; return 1; }
    x86_64-w64-mingw32-objdump -d "$file" >build/check/code
    grep -A 1 "<$1>:" build/check/code | grep -q endbr64 || { echo "$file: $1 begins without endbr64" >&2; return 1; }
}

checkTables()
{
    local names
    mapfile -t names < <(grep -oE '^KXRULE_API int32_t kxRule\w+' api/include/KxPfwRule.h | cut -d ' ' -f 3)
    [ ${#names[@]} = 25 ] || { echo "the header declares ${#names[@]} functions" >&2; return 1; }
    tables KxPfwRul.dll "${names[@]}"
    mapfile -t names < <(grep -oE '^KXPOLICY_API int32_t kxPolicy\w+' api/include/KxPolicy.h | cut -d ' ' -f 3)
    tables KxPolicy.dll "${names[@]}"
    tables KxHash.dll kxCfwGetHashValue
    tables KxVqrDbg.dll KxDbgInitialize KxDbgUninitialize KxDbgTrace KxDbgSetDebugConfig KxDbgGetDebugConfig
}

# Texts stand on their own and name no machine, comments end at column 120, and no file is too long to read (500 lines,
# with some tolerance; the public header is the reference of the functions and stays whole).
checkText()
{
    local bad=0
    files . | grep -vE '\.(png|dat|bin)$' | xargs grep -nIE '\b[Ss]pec(s|ification)?\b|\bParts? [0-9]+\.[0-9]|/(work|root|home)/\w' && bad=1
    files '\.(c|cpp|h|hpp)$' | xargs grep -nE '^.{121,}$' | grep -E ':[0-9]+: *//' && bad=1 # clang-format leaves them
    files '\.(c|cpp|h|hpp|py|sh|cmake)$' | grep -vx api/include/KxPfwRule.h | xargs wc -l |
        awk '$2 != "total" && $1 > 600 { print $2 ": " $1 " lines"; bad = 1 } END { exit bad }' || bad=1
    return $bad
}

checkShell() { { files '\.sh$'; echo .ci/run; } | xargs shellcheck -x -P SCRIPTDIR; }

thirdParty
[ $# -gt 0 ] || set -- format text shell rooms contract alone tables tidy
for name in "$@"; do
    started=$SECONDS
    set +e # a condition around the call would disable errexit in the checks
    (set -e && "check${name^}")
    status=$?
    set -e
    [ $status = 0 ] || { echo "check failed: $name" >&2; exit 1; }
    echo "$name: good ($((SECONDS - started)) s)"
done
