# Shared by the scripts of this folder: installing what is missing, configuring, building.
set -eu
root=$(CDPATH= cd -- "$(dirname -- "$0")/.." && pwd)

as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# Installs the packages of tools/packages.txt that are not there. Nothing is fetched when all are.
install_missing() {
  missing=
  for package in $(sed -e 's/#.*//' -e 's/[[:space:]].*//' "$root/tools/packages.txt"); do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed' || missing="$missing $package"
  done
  [ -z "$missing" ] && return 0
  echo "Installing:$missing"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
}

# build PRESET TARGETS...: configures (once) and builds.
build() {
  preset=$1
  shift
  generator=
  command -v ninja >/dev/null 2>&1 && generator="-G Ninja"
  # shellcheck disable=SC2086
  (cd "$root" && cmake --preset "$preset" $generator >"$root/.configure.log" 2>&1) || { cat "$root/.configure.log"; exit 1; }
  rm -f "$root/.configure.log"
  cmake --build "$root/build/$preset" --parallel "$(nproc)" --target "$@"
}
