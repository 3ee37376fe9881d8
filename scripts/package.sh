#!/bin/bash
# package.sh [FOLDER]: the SDK as a zip file with checksums, in dist or the folder given. The same sources give the same
# bytes, wherever and whenever they are packed.
. "$(dirname "$0")/steps.sh" 3
dist=$(realpath -m "${1-dist}")

step "packages"
scripts/packages.sh build package

step "build (release)"
configure release
NINJA_STATUS='    [%f/%t] ' cmake --build --preset release --target KxPfwRul KxPfwRul_msvc KxHash KxVqrDbg kxrule

version=$(sed -n 's/^project(KxPfwRul VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=KxPfwRul-$version-win64
step "$name.zip"
rm -rf "build/package/$name"
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)} # strip writes the time into a binary
quietly install cmake --install build/release --strip --prefix "build/package/$name"
cd build/package
# What would tell one packing from another: clock, permissions, order, time zone.
sums=$(cd "$name" && find . -type f -printf '%P\n' | LC_ALL=C sort | xargs -d '\n' sha256sum)
echo "$sums" >"$name/SHA256SUMS"
find "$name" -type f -exec chmod 644 {} + -exec touch -d "@$SOURCE_DATE_EPOCH" {} +
mkdir -p "$dist"
rm -f "$dist/$name.zip"
find "$name" -type f | LC_ALL=C sort | TZ=UTC zip -q -X -D -@ "$dist/$name.zip"
cd "$dist"
sha256sum "$name.zip" | tee "$name.zip.sha256"
