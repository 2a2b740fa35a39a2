# shellcheck shell=bash
# Sourced by the scripts, from the top of the source tree. Builds go through
# the presets of CMakePresets.json into build/<preset> and are incremental;
# CLEAN=1 (or a script's --clean) starts that preset from scratch: a fresh
# cache and a clean build.
jobs=${JOBS:-$(nproc)}

# Takes --clean off the script's arguments; any other argument is refused.
#   parse_clean_flag "usage line" "$@"
parse_clean_flag() {
    local usage=$1
    shift
    for arg in "$@"; do
        case "$arg" in
            --clean) CLEAN=1 ;;
            *) echo "usage: $usage" >&2; exit 2 ;;
        esac
    done
}

# Configures the preset (CMake itself skips the work when nothing changed).
configure_preset() {
    local preset=$1
    shift
    local fresh=() cache="build/$preset/CMakeCache.txt"
    [ "${CLEAN:-0}" != 1 ] || fresh=(--fresh)
    # A folder left by an older script may hold another source tree's cache.
    if [ -f "$cache" ] && ! grep -qxF "CMAKE_HOME_DIRECTORY:INTERNAL=$PWD" "$cache"; then
        fresh=(--fresh)
    fi
    cmake --preset "$preset" "${fresh[@]}" "$@"
}

# Builds the preset's targets, or those given with --target.
build_preset() {
    local preset=$1
    shift
    local clean=()
    [ "${CLEAN:-0}" != 1 ] || clean=(--clean-first)
    cmake --build --preset "$preset" -j "$jobs" "${clean[@]}" "$@"
}
