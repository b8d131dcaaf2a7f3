#!/bin/sh
# Builds everything and runs all tests. Installs what that needs.
#   tools/test.sh [PRESET]      release (default), clang, asan or tsan
. "$(dirname -- "$0")/common.sh"
install_missing
preset=${1:-release}
build "$preset" all
cd "$root" && exec ctest --test-dir "build/$preset" --output-on-failure --parallel "$(nproc)"
