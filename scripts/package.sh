#!/bin/bash
# package.sh [FOLDER]: makes a zip file of the SDK, another of its debug symbols, and a NuGet package, with checksums,
# in dist or the given folder. The same sources give the same bytes, wherever and whenever they are packed.
#
# KX_SIGN: a command that is called with each DLL and program to sign it in place, for example
#   KX_SIGN=scripts/sign.sh, a script that calls your signing tool. (Signatures have a time stamp, so they differ.)
. "$(dirname "$0")/steps.sh" 4
dist=$(realpath -m "${1-dist}")

step "packages"
scripts/packages.sh build package

step "build (release)"
configure release
NINJA_STATUS='    [%f/%t] ' cmake --build --preset release --target KxPfwRul KxPfwRul_msvc KxPolicy KxHash KxVqrDbg kxrule

version=$(sed -n 's/^project(KxPfwRul VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
name=KxPfwRul-$version-win64
package=build/package/$name
symbols=build/package/$name-symbols
step "binaries without symbols, notices"
rm -rf build/package
export SOURCE_DATE_EPOCH=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct)} # strip writes the time into a binary
quietly install cmake --install build/release --prefix "$package"
mkdir -p "$symbols" "$dist"
for file in "$package"/bin/*; do
    # A debugger finds the symbols by the name and checksum that this stores in the binary.
    symbol=$symbols/$(basename "$file").debug
    x86_64-w64-mingw32-objcopy --only-keep-debug "$file" "$symbol"
    x86_64-w64-mingw32-strip "$file"
    x86_64-w64-mingw32-objcopy --add-gnu-debuglink="$symbol" "$file"
    [ -z "${KX_SIGN-}" ] || quietly sign "$KX_SIGN" "$file"
done
scripts/third_party.py "$package" "$version"

step "$name.zip, its symbols, KxPfwRul.$version.nupkg"
scripts/nuget.py "$package" "$version" "$dist/KxPfwRul.$version.nupkg"
# Without these, two packages would differ: clock, permissions, order, time zone.
cd build/package
sums=$(cd "$name" && find . -type f -printf '%P\n' | LC_ALL=C sort | xargs -d '\n' sha256sum)
echo "$sums" >"$name/SHA256SUMS"
for folder in "$name" "$name-symbols"; do
    find "$folder" -type f -exec chmod 644 {} + -exec touch -d "@$SOURCE_DATE_EPOCH" {} +
    rm -f "$dist/$folder.zip"
    find "$folder" -type f | LC_ALL=C sort | TZ=UTC zip -q -X -D -@ "$dist/$folder.zip"
done
cd "$dist"
for file in "$name.zip" "$name-symbols.zip" "KxPfwRul.$version.nupkg"; do
    sha256sum "$file" | tee "$file.sha256"
done
