#!/bin/bash
# reproduce.sh: packs the last commit twice, from clones in different folders, and compares the bytes.
. "$(dirname "$0")/steps.sh" 3
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
export CCACHE_DISABLE=1          # an object from a cache would prove nothing
commit=$(git rev-parse HEAD) # another commit may follow while this one is being packed

for clone in one another/somewhere-else; do
    step "clone, build and pack: $clone"
    git clone -q --no-checkout . "$scratch/$clone"
    git -C "$scratch/$clone" checkout -q --detach "$commit"
    "$scratch/$clone/scripts/package.sh" "$scratch/dist-${clone%%/*}" >"$scratch/log" 2>&1 || { cat "$scratch/log" >&2; exit 1; }
done

step "compare"
(cd "$scratch/dist-one" && sha256sum -- *.zip *.nupkg) | tee "$scratch/sums"
cd "$scratch/dist-another" && sha256sum -c "$scratch/sums"
