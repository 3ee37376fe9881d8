# Sourced by the other scripts: numbered steps that say how long they took, and commands that are quiet unless they
# fail. The argument is the number of steps.
# shellcheck shell=bash
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
steps=$1
stepNumber=0

step()
{
    stepNumber=$((stepNumber + 1))
    echo "[$stepNumber/$steps +${SECONDS}s] $*"
}

# quietly NAME COMMAND...: output goes to build/log/NAME.log, and also to the screen if the command fails.
quietly()
{
    local log=build/log/$1.log
    shift
    mkdir -p build/log
    "$@" >"$log" 2>&1 || { local status=$?; cat "$log" >&2; echo "failed ($status): $*" >&2; return $status; }
}

# configure PRESET [ARGUMENTS]
configure()
{
    quietly "configure-$1" cmake --preset "$@"
}

# Ends whatever runs in the project's Wine prefix; otherwise a server would stay for two minutes.
stopWine()
{
    cmake/wine-run.sh --stop || true
}
