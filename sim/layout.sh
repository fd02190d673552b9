# Where ./run and sim/inbox find their programs and keep their boxes, in a checkout. An installed
# quarn-run has packaging/layout.sh in the place of this file. Sourced with $home, the folder that
# holds ./run.
# shellcheck shell=bash disable=SC2034,SC2154 # what the sourcing script reads, and what it sets

run_command=./run
inbox_command=sim/inbox shown_inbox=sim/inbox
what_run_does='Installs missing packages, builds the daemon, and runs it'
tools=$home/build/release/tools
daemon_program=$home/build/release/quarn
default_config=$home/android/quarn_default.cfg
version=$(sed -n 's/.*kVersion = "\([^"]*\)".*/\1/p' "$home/src/core/version.h")

default_box=$home/box
scenario_boxes=$home/build/scenarios
default_box_text='"box" in the checkout'

# How help texts name a program of $tools, and where they say what that means.
tool_prefix=B/
tool_prefix_text=' (B stands for build/release/tools)'

# Prints how a user calls a program of $tools.
shown() { # NAME
    echo "build/release/tools/$1"
}

# Brings the programs up to date. The caller's folder is $home.
prepare_programs() {
    local targets=(quarn simctl quarnctl muxz)
    . tools/setup.sh
    install_missing "${run_packages[@]}" || exit 1
    if [ ! -w . ] || { [ -e build ] && [ ! -w build/. ]; }; then
        die "cannot build: $home belongs to somebody else"
    fi
    if [ ! -f build/release/build.ninja ]; then
        echo "run: building; the first time takes some minutes" >&2
        cmake --preset release -DQUARN_BUILD_TESTS=OFF -DQUARN_BUILD_BENCH=OFF >/dev/null ||
            die "cannot configure the build"
    fi
    # Ninja shows its progress. Without a terminal its reports that there is nothing to do are left out.
    build_targets() { cmake --build --preset release --target "${targets[@]}"; }
    if [ -t 2 ]; then build_targets >&2
    else
        build_targets 2>&1 | grep -v -e 'Re-checking globbed' -e 'no work to do' >&2
        [ "${PIPESTATUS[0]}" = 0 ]
    fi || die "the build failed"
}
