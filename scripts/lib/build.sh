# Sourced by scripts that build something on the way to what they are for.

# Runs a command and shows what it printed only when it fails, which ends the script.
quietly() {
    local output
    output=$("$@" 2>&1) && return
    printf '%s\n' "$output" >&2
    exit 1
}

# build_programs PRESET TARGET...: brings the programs up to date. A new build directory gets
# neither tests nor client, which need more packages; one that has them keeps them.
build_programs() {
    local preset=$1
    shift
    if [[ ! -f build/$preset/build.ninja ]]; then
        echo "Building, once ..." >&2
        quietly cmake --preset "$preset" -DBUILD_TESTING=OFF -DGPIO_SERVER_BUILD_CLIENT=OFF
    fi
    quietly cmake --build "build/$preset" --parallel "$(nproc)" --target "$@" -- --quiet
}

# build_bridges PRESET TARGET...: the same for programs that stand on the client library, which a
# build directory that ./run has made lacks.
build_bridges() {
    quietly cmake --preset "$1" -DGPIO_SERVER_BUILD_CLIENT=ON -DGPIO_SERVER_BUILD_BRIDGES=ON
    build_programs "$@"
}
