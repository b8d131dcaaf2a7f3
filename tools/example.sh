#!/bin/sh
# Fits a shipped example on a shipped data set and prints the listing. Installs and builds what that needs.
#   tools/example.sh [NAME]     NAME is a program of examples/, theoph by default
. "$(dirname -- "$0")/common.sh"
install_missing
build release torvale
exec "$root/build/release/torvale" run "$root/examples/${1:-theoph}.tvl"
