#!/usr/bin/env bash
# Installs OrvunNet into a temporary prefix and checks what a user gets:
# the files and their SONAMEs, that the libraries export only the orvun
# namespace, and a small consumer built and run once through
# find_package(OrvunNet) and once through pkg-config.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh cmake g++ make pkg-config binutils
jobs=${JOBS:-$(nproc)}

work=$(mktemp -d "${TMPDIR:-/tmp}/orvun-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
fail() {
    echo "ci-install: $*" >&2
    exit 1
}

echo "== build and install into $prefix"
cmake -S . -B "$work/build" -DCMAKE_BUILD_TYPE=Release -DORVUN_WARNINGS_AS_ERRORS=ON \
    -DORVUN_BUILD_TESTS=OFF -DORVUN_BUILD_EXAMPLES=ON >/dev/null
cmake --build "$work/build" -j "$jobs"
cmake --install "$work/build" --prefix "$prefix"

echo "== installed layout"
libdir=$(dirname "$(find "$prefix" -name libOrvunNet.so -print -quit)")
[ -n "$libdir" ] && [ "$libdir" != . ] || fail "libOrvunNet.so was not installed"
for header in net/Socket.h cpu/Profiler.h filesystem/Stream.h; do
    [ -f "$prefix/include/orvun/$header" ] || fail "include/orvun/$header is missing"
    [ ! -e "$prefix/include/$header" ] || fail "include/$header lands beside the system's headers"
done
for library in OrvunNet OrvunCpu OrvunFileSystem; do
    soname=$(readelf -d "$libdir/lib$library.so" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
    [ "$soname" = "lib$library.so.0.1" ] || fail "lib$library.so has SONAME '$soname'"
    [ -f "$libdir/lib$library.so.0.1.0" ] || fail "lib$library.so.0.1.0 is missing"
    # Every exported definition belongs to the orvun namespace (its functions,
    # static tables, type information and virtual tables).
    foreign=$(nm -DC --defined-only "$libdir/lib$library.so" | cut -c20- | grep -v 'orvun::' || true)
    [ -z "$foreign" ] || fail "lib$library.so exports more than the orvun namespace:
$foreign"
done
[ -x "$prefix/bin/orvun-cat" ] || fail "bin/orvun-cat is missing"
"$prefix/bin/orvun-cat" --help >/dev/null || fail "the installed orvun-cat does not run"

echo "== consumer through find_package(OrvunNet)"
cmake -S tests/consumer -B "$work/consumer-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer-cmake" -j "$jobs"
"$work/consumer-cmake/consumer"

echo "== consumer through pkg-config"
export PKG_CONFIG_PATH=$libdir/pkgconfig
[ "$(pkg-config --modversion orvunnet)" = 0.1.0 ] || fail "pkg-config gives another version"
# shellcheck disable=SC2046 # the flags are meant to split into words
g++ -std=c++20 -o "$work/consumer-pkg" tests/consumer/main.cpp $(pkg-config --cflags --libs orvunnet) \
    -Wl,-rpath,"$(pkg-config --variable=libdir orvunnet)"
"$work/consumer-pkg"
echo "ci-install: installed libraries, headers, CMake package and pkg-config file work"
