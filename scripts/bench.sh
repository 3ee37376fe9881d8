#!/bin/bash
# bench.sh [--quick|--record]: compares the library with what the machine can do and with an SQL store, in under six
# minutes, and prints one table and what has changed since the recorded run. JSON results and plots:
# build/bench/results.
# --quick    to compare before and after, in under a minute once built: only the library and the floor, two rounds
# --record   puts the table and plots into docs/performance.md, and the medians next to them to compare later runs with
# KX_BENCH_SLOW_DISK: a directory on a disk that takes long to flush, to measure changes of one rule there as well (in
# a folder kx-bench, which is made and removed).
# KX_BENCH_ROUNDS: rounds of each measurement (5); three times as many where a round is short.
. "$(dirname "$0")/steps.sh" 5

case "${1-}" in
'' | --record) isQuick= ;;
--quick) isQuick=1 KX_BENCH_ROUNDS=${KX_BENCH_ROUNDS:-2} ;;
*) echo "usage: scripts/bench.sh [--quick|--record]" >&2; exit 2 ;;
esac

rounds=${KX_BENCH_ROUNDS:-5}
deps=build/bench/deps
results=build/bench/results
data=build/bench/data
slow=${KX_BENCH_SLOW_DISK:+$KX_BENCH_SLOW_DISK/kx-bench}
[ ! "$isQuick" ] || slow=

# download DIRECTORY FILE SHA256 COMMAND...: fetches FILE into deps with the command, unless it is there with that
# checksum.
download()
{
    local file=$1 sum=$2
    shift 2
    (
        cd $deps
        [ -f "$file" ] || "$@" >fetch.log 2>&1 || { cat fetch.log >&2; exit 1; }
        sha256sum --quiet -c - <<<"$sum  $file"
    )
}

# The source package from the system's own archive, without changing the system's list of sources.
debianSource()
{
    local apt=$PWD/apt
    mkdir -p "$apt/parts" "$apt/lists/partial" "$apt/cache"
    [ ! -f /etc/apt/sources.list.d/debian.sources ] ||
        sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources >"$apt/parts/source.sources"
    [ ! -f /etc/apt/sources.list ] || sed -n 's/^deb /deb-src /p' /etc/apt/sources.list >"$apt/parts/source.list"
    local options=(-qq -o Dir::Etc::sourcelist=/dev/null -o "Dir::Etc::sourceparts=$apt/parts"
        -o "Dir::State::lists=$apt/lists" -o "Dir::Cache=$apt/cache" -o APT::Sandbox::User=root)
    apt-get "${options[@]}" update
    apt-get "${options[@]}" source --download-only "$1"
}

# run NAME PROGRAM [ARGUMENTS]
run()
{
    local name=$1 program=$2
    shift 2
    echo "    $name"
    quietly "bench-$name" cmake/wine-run.sh "build/bench/bin/$program.exe" "--data=$data" \
        "--benchmark_repetitions=$rounds" --benchmark_enable_random_interleaving=true \
        "--benchmark_out=$results/bench-$name.json" --benchmark_out_format=json "$@"
}

step "packages"
scripts/packages.sh build
{ command -v npm && command -v python3; } >/dev/null || scripts/packages.sh bench # npm may come from elsewhere

step "sources of the harness and of the peer"
mkdir -p $deps
harness=benchmark_1.7.1.orig.tar.gz
peer=better-sqlite3-multiple-ciphers-12.11.1.tgz
download $harness 6430e4092653380d9dc4ccb45a1e2dc9259d581f4866dc0759713126056bc1d7 debianSource benchmark=1.7.1-1
download $peer 01388c78f46ce63c6aec021f67b364cc67bd637edba64f7add0c0230ce5f777a \
    npm pack better-sqlite3-multiple-ciphers@12.11.1
for archive in $harness $peer; do tar xzf "$deps/$archive" -C $deps; done

step "build"
configure bench
NINJA_STATUS='    [%f/%t] ' cmake --build --preset bench --target files_bench calls_bench counts_bench kxrule

step "run"
trap stopWine EXIT
rm -rf $data $results ${slow:+"$slow"}
mkdir -p $data $results ${slow:+"$slow"}
quietly bench-counts cmake/wine-run.sh build/bench/bin/counts_bench.exe --data=$data --out=$results/counts.json
small=(--benchmark_min_time=0.05 "--benchmark_repetitions=$((3 * rounds))")
if [ "$isQuick" ]; then
    run files-full files_bench --store=64x1024 --peers=no --benchmark_filter='^(write|read|change)/(ours|floor)/'
    run files-small files_bench --store=3x100 --peers=no --benchmark_filter='^(write|read|change)/(ours|floor)/' "${small[@]}"
    run calls-full calls_bench --peers=no --benchmark_filter='^get/(ours|floor)/.*/64x1024' --benchmark_min_time=0.1
    run calls-small calls_bench --peers=no --benchmark_filter='^get/(ours|floor)/.*/3x100' --benchmark_min_time=0.1
    run calls-lines calls_bench --benchmark_filter='^(line|trace)/' --benchmark_min_time=0.1
else
    run files-full files_bench --store=64x1024
    run files-small files_bench --store=3x100 "${small[@]}"
    # Each measurement is long enough here that it does not matter if the disk takes writes in bursts.
    [ -z "$slow" ] ||
        data=$slow run slow-files-small files_bench --store=3x100 \
            --benchmark_filter='^(flush|change/(ours|floor|floor-one-file|sql-aes-wal))/' --benchmark_min_time=0.3
    echo "    processes"
    quietly bench-processes python3 bench/processes.py build/bench/bin $data $results/bench-processes.json 3
    run growth-files files_bench --store=growth --benchmark_repetitions=2
    run calls-full calls_bench --benchmark_filter='^(get|active)/.*/64x1024' --benchmark_min_time=0.1
    run calls-small calls_bench --benchmark_filter='^(get|active)/.*/3x100' --benchmark_min_time=0.1
    run calls-lines calls_bench --benchmark_filter='^(line|trace)/' --benchmark_min_time=0.1 \
        "--benchmark_repetitions=$((3 * rounds))"
    run calls-add calls_bench --benchmark_filter='^add/' --benchmark_min_time=0.1
    run growth-calls calls_bench --benchmark_filter='^(growth|threads)/' --benchmark_min_time=0.02 --benchmark_repetitions=3
fi
rm -rf $data ${slow:+"$slow"}

step "result ($SECONDS s in all)"
if [ "${1-}" = --record ]; then document=docs/performance.md; else document=; fi
python3 bench/report.py $results $document
