#!/bin/bash
# Installs a build into a clean prefix and uses it from outside the tree: a program by the CMake package, one by
# pkg-config, add_subdirectory, the man page, and the Debian package unpacked into an empty root.
#   tools/check_install.sh [BUILD FOLDER]     (default build/release; JOBS=n compiles so many files at once)
# Ends with 1 when something does not work.
set -e
source_folder=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$source_folder/build/release}" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
expected="a b "
failed=0
names() { awk '{ printf "%s ", $1 }'; }
# verdict WHAT COMMAND...: says whether the command succeeds.
verdict() {
  local what=$1
  shift
  if "$@"; then echo "$what: works"; else echo "$what: FAILS" && failed=1; fi
}
fits() { [ "$("$1" 2> /dev/null | names)" = "$expected" ]; }

cmake --install "$build" --prefix "$prefix" > "$scratch/install.log"
cp -r "$source_folder/examples/library" "$scratch/outside"
cmake -S "$scratch/outside" -B "$scratch/outside/build" -DCMAKE_PREFIX_PATH="$prefix" > "$scratch/configure.log"
cmake --build "$scratch/outside/build" > "$scratch/build.log"
verdict "CMake package" fits "$scratch/outside/build/fit"

mkdir "$scratch/inside"
cp "$source_folder/examples/library/fit.cpp" "$scratch/inside/"
cat > "$scratch/inside/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(inside CXX)
add_subdirectory("$source_folder" torvale EXCLUDE_FROM_ALL)
add_executable(fit fit.cpp)
target_link_libraries(fit PRIVATE torvale::torvale)
END
cmake -S "$scratch/inside" -B "$scratch/inside/build" -DCMAKE_BUILD_TYPE=Release > "$scratch/configure.log"
cmake --build "$scratch/inside/build" --parallel "${JOBS:-$(nproc)}" > "$scratch/build.log"
verdict "add_subdirectory" fits "$scratch/inside/build/fit"

flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name torvale.pc)") pkg-config --define-prefix --cflags --libs torvale)
# shellcheck disable=SC2086
g++ -std=c++20 "$scratch/outside/fit.cpp" $flags -o "$scratch/by_pkg_config"
verdict "pkg-config" fits "$scratch/by_pkg_config"

verdict "one public header" test "$(find "$prefix/include" -name '*.h' | wc -l)" = 1
page() { [ -z "$(man --warnings -l "$prefix/share/man/man1/torvale.1" 2>&1 > /dev/null)" ]; }
if command -v man > /dev/null; then verdict "man page" page; else echo "man page: not checked, man is not there"; fi
verdict "completion for bash" bash -n "$prefix/share/bash-completion/completions/torvale"

if command -v dpkg-deb > /dev/null; then
  (cd "$build" && cpack -G DEB -B "$scratch/deb" > "$scratch/cpack.log")
  mkdir "$scratch/root"
  dpkg-deb -x "$scratch"/deb/*.deb "$scratch/root"
  ldd "$scratch/root/usr/bin/torvale" | awk '$3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }' | while read -r library; do
    mkdir -p "$scratch/root$(dirname "$library")"
    cp -L "$library" "$scratch/root$library"
  done
  mkdir -p "$scratch/root/home"
  cp "$source_folder"/examples/orange.* "$scratch/root/home/"
  bare_root() { chroot "$scratch/root" /usr/bin/torvale run /home/orange.tvl --quiet 2> /dev/null; }
  if [ "$(id -u)" -eq 0 ]; then verdict "Debian package in a bare root" bare_root; else echo "Debian package: built, not run"; fi
fi
exit "$failed"
