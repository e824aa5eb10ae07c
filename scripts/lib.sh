# shellcheck shell=bash disable=SC2034
# What the scripts of this folder share. Sourced, never run.

set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

# Debian 12 packages, in the order of their use. The system's own interpreter is asked for by its
# full path everywhere, because only that one finds Debian's python3-* modules.
build_packages=(
  g++ cmake ninja-build pkg-config
  libglib2.0-dev libglib2.0-dev-bin
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev libfmt-dev nlohmann-json3-dev libncurses-dev
  scdoc help2man libxml2-utils
  dpkg-dev file
)
check_packages=(git clang-format clang-tidy shellcheck clang libclang-rt-14-dev)
sandbox_packages=(
  bubblewrap util-linux dbus-daemon
  python3 python3-gi gir1.2-glib-2.0 python3-dbusmock
)
test_packages=(
  python3-pytest python3-pytest-xdist python3-pytest-timeout
  umockdev valgrind strace libc6-dbg
  libglib2.0-bin systemd debootstrap binutils
  tmux zsh fish python3-rich python3-jsonschema man-db
)
# The bench kernel and what it is built with, the machine, and what its guest runs from /usr.
kernel_packages=(
  linux-source-6.1 xz-utils make gcc flex bison bc libelf-dev libssl-dev
  qemu-system-x86
  kmod udev dbus-daemon python3 python3-gi gir1.2-glib-2.0 python3-pytest python3-pytest-timeout
)
# What scripts/cross runs on this machine, and what the Debian trees hold in which it builds: tools,
# and libraries of the target's architecture.
cross_packages=(mmdebstrap bubblewrap qemu-user-static)
cross_tools=(
  cmake ninja-build pkg-config libglib2.0-dev-bin scdoc help2man dpkg-dev python3
  libcli11-dev nlohmann-json3-dev
)
cross_libraries=(libglib2.0-dev libfmt-dev libncurses-dev libgtest-dev libgmock-dev)
packages=(
  "${build_packages[@]}" "${check_packages[@]}" "${sandbox_packages[@]}" "${test_packages[@]}"
  "${kernel_packages[@]}"
)

python=/usr/bin/python3

if [ -t 1 ]; then
  bold=$'\e[1m' red=$'\e[31m' green=$'\e[32m' plain=$'\e[0m'
else
  bold='' red='' green='' plain=''
fi

say() {
  printf '%s%s%s\n' "$bold" "$*" "$plain"
}

die() {
  printf '%s%s%s\n' "$red" "$*" "$plain" >&2
  exit 1
}

# Runs a command as root: directly, or through sudo for an ordinary user.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo -- "$@"
  else
    die "needs root for: $*  (neither root nor sudo at hand)"
  fi
}

# Prints the packages of the list above that are not installed, one per line.
missing_packages() {
  local package
  for package in "${packages[@]}"; do
    case $(dpkg-query --show --showformat '${db:Status-Status}' "$package" 2>/dev/null) in
      installed) ;;
      *) printf '%s\n' "$package" ;;
    esac
  done
}

bootstrap() {
  local absent
  mapfile -t absent < <(missing_packages)
  [ "${#absent[@]}" -gt 0 ] || return 0
  say "installing ${absent[*]}"
  as_root apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${absent[@]}"
}

# Configures (once) and builds one CMake preset into build/<preset>/.
build_preset() {
  local preset=$1
  if [ ! -f "build/$preset/build.ninja" ]; then
    cmake --preset "$preset" || return
  fi
  cmake --build --preset "$preset"
}

# The same, silent unless it fails.
build_quietly() {
  local output
  output=$(build_preset "$1" 2>&1) || {
    printf '%s\n' "$output" >&2
    die "the build of $1 failed"
  }
}
