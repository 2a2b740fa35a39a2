#!/usr/bin/env bash
# Installs OrvunNet into a prefix under a temporary folder and checks what a
# user gets: the files and their SONAMEs, that the libraries export only the
# orvun namespace and find each other through RUNPATH $ORIGIN, and two
# programs built against the prefix and run with no LD_LIBRARY_PATH:
# tests/consumer (profiler and sockets) through find_package and pkg-config,
# and tests/consumer-net (sockets only) with the README's CMake and
# pkg-config recipes. Last, the prefix is moved and the libraries must still
# find each other. Installs nothing: it names what is missing. Builds
# incrementally with the preset release (--clean or CLEAN=1: from scratch).
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/common.sh
parse_clean_flag "bash scripts/ci-install.sh [--clean]" "$@"
bash scripts/install-deps.sh --check cmake g++ make pkg-config binutils
# Whatever runs below finds the libraries by itself or not at all.
unset LD_LIBRARY_PATH

work=$(mktemp -d "${TMPDIR:-/tmp}/orvun-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() {
    echo "ci-install: $*" >&2
    exit 1
}
# The Orvun libraries a program or library asks for, and where they are found.
orvun_needs() {
    readelf -d "$1" | sed -n 's/.*(NEEDED).*\[\(libOrvun.*\)\]/\1/p' | paste -sd ' ' -
}

echo "== build (preset release) and install into $prefix"
configure_preset release >/dev/null
build_preset release
cmake --install build/release --prefix "$prefix" >/dev/null

# The version the project declares; the SONAME carries its major.minor.
version=$(sed -n 's/^project(OrvunNet VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
soversion=${version%.*}

echo "== installed layout"
libdir=$(dirname "$(find "$prefix" -name libOrvunNet.so -print -quit)")
[ -n "$libdir" ] && [ "$libdir" != . ] || fail "libOrvunNet.so was not installed"
for header in net/Socket.h cpu/Profiler.h filesystem/Stream.h; do
    [ -f "$prefix/include/orvun/$header" ] || fail "include/orvun/$header is missing"
    [ ! -e "$prefix/include/$header" ] || fail "include/$header lands beside the system's headers"
done
for library in OrvunNet OrvunCpu OrvunFileSystem; do
    soname=$(readelf -d "$libdir/lib$library.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [ "$soname" = "lib$library.so.$soversion" ] || fail "lib$library.so has SONAME '$soname'"
    [ -f "$libdir/lib$library.so.$version" ] || fail "lib$library.so.$version is missing"
    runpath=$(readelf -d "$libdir/lib$library.so" | sed -n 's/.*(RUNPATH).*\[\(.*\)\]/\1/p')
    # shellcheck disable=SC2016 # the literal text $ORIGIN
    [ "$runpath" = '$ORIGIN' ] || fail "lib$library.so has RUNPATH '$runpath', not \$ORIGIN"
    # Every exported definition belongs to the orvun namespace (its functions,
    # static tables, type information and virtual tables).
    foreign=$(nm -DC --defined-only "$libdir/lib$library.so" | cut -c20- | grep -v 'orvun::' || true)
    [ -z "$foreign" ] || fail "lib$library.so exports more than the orvun namespace:
$foreign"
done
[ -x "$prefix/bin/orvun-cat" ] || fail "bin/orvun-cat is missing"
"$prefix/bin/orvun-cat" --help >/dev/null || fail "the installed orvun-cat does not run"
[ -x "$prefix/bin/orvun-chat" ] || fail "bin/orvun-chat is missing"
"$prefix/bin/orvun-chat" --help >/dev/null || fail "the installed orvun-chat does not run"
[ -x "$prefix/bin/orvun-httpd" ] || fail "bin/orvun-httpd is missing"
"$prefix/bin/orvun-httpd" --help >/dev/null || fail "the installed orvun-httpd does not run"

echo "== tests/consumer through find_package(OrvunNet)"
cmake -S tests/consumer -B "$work/consumer-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer-cmake" -j "$jobs" >/dev/null
"$work/consumer-cmake/consumer"

echo "== tests/consumer through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion orvunnet)" = "$version" ] || fail "pkg-config gives another version"
# shellcheck disable=SC2046 # the flags are meant to split into words
g++ -std=c++20 -o "$work/consumer-pkg" tests/consumer/main.cpp $(pkg-config --cflags --libs orvunnet) \
    -Wl,-rpath,"$(pkg-config --variable=libdir orvunnet)"
"$work/consumer-pkg"

# The README's recipes, word for word: its CMake lines are those of
# tests/consumer-net/CMakeLists.txt, and its g++ line is run as it stands.
while IFS= read -r line; do
    [ -z "$line" ] || grep -qxF -- "$line" README.md || fail "README.md lacks the CMake recipe line: $line"
done <tests/consumer-net/CMakeLists.txt
pkg_recipe=$(grep -m 1 '^g++ -std=c++20 -o app app.cpp ' README.md) || fail "README.md lacks its g++ recipe"

echo "== tests/consumer-net with the README's CMake recipe"
cp -r tests/consumer-net "$work/app-cmake"
(
    cd "$work/app-cmake"
    cmake -S . -B build -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
    cmake --build build >/dev/null
    echo "build/app needs: $(orvun_needs build/app)"
    ./build/app
)

echo "== tests/consumer-net with the README's pkg-config recipe"
mkdir "$work/app-pkg"
cp tests/consumer-net/app.cpp "$work/app-pkg/"
(
    cd "$work/app-pkg"
    echo "$pkg_recipe"
    eval "$pkg_recipe"
    echo "app needs: $(orvun_needs app)"
    ./app
)

echo "== the prefix moved to $work/moved"
mv "$prefix" "$work/moved"
moved_lib=$work/moved/${libdir#"$prefix"/}
for library in OrvunCpu OrvunFileSystem; do
    found=$(ldd "$moved_lib/libOrvunNet.so" | sed -n "s/.*lib${library}[^ ]* => \([^ ]*\).*/\1/p")
    [ "$found" = "$moved_lib/lib$library.so.$soversion" ] ||
        fail "the moved libOrvunNet finds lib$library at '${found:-nothing}'"
    echo "libOrvunNet.so finds $found"
done
"$work/moved/bin/orvun-cat" --help >/dev/null || fail "the moved orvun-cat does not run"
"$work/moved/bin/orvun-httpd" --help >/dev/null || fail "the moved orvun-httpd does not run"
echo "the moved bin/orvun-cat runs"
"$work/moved/bin/orvun-chat" --help >/dev/null || fail "the moved orvun-chat does not run"
echo "the moved bin/orvun-chat runs"
echo "ci-install: installed libraries, headers, CMake package and pkg-config file work, wherever the prefix is"
