# shellcheck shell=bash disable=SC2034
# What the scripts of this folder share. Sourced, never run.

set -euo pipefail

top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$top"

# Debian 12 packages, in lists of which each script names those that it needs. The system's own
# interpreter is asked for by its full path everywhere, because only that one finds Debian's python3-*
# modules.
program_packages=(
  g++ cmake ninja-build pkg-config
  libglib2.0-dev libglib2.0-dev-bin libcli11-dev libfmt-dev nlohmann-json3-dev libncurses-dev
)
page_packages=(scdoc help2man python3 python3-docutils)
# What all of a preset is made of: programs, man pages and unit tests.
build_packages=("${program_packages[@]}" "${page_packages[@]}" libgtest-dev libgmock-dev)
# What stands in for a device, and what a shell on it has besides.
sandbox_packages=(
  bubblewrap util-linux dbus-daemon
  python3 python3-gi gir1.2-glib-2.0 python3-dbusmock
)
shell_packages=(libglib2.0-bin systemd)
fuzz_packages=("${program_packages[@]}" clang libclang-rt-14-dev dbus-daemon)
count_packages=("${program_packages[@]}" "${sandbox_packages[@]}" valgrind libc6-dbg python3-pytest)
bench_packages=(
  "${count_packages[@]}" libbenchmark-dev libsystemd-dev binutils strace python3-matplotlib
)
picture_packages=(
  "${program_packages[@]}" "${sandbox_packages[@]}" "${shell_packages[@]}" tmux python3-rich
)
pack_packages=(debhelper dpkg-dev file)
# The bench kernel and what it is built with, the machine, and what its guest runs from /usr.
kernel_packages=(
  linux-source-6.1 xz-utils make gcc flex bison bc libelf-dev libssl-dev
  libglib2.0-dev pkg-config
  qemu-system-x86
  kmod udev dbus-daemon python3 python3-gi gir1.2-glib-2.0 python3-pytest python3-pytest-timeout
  dmsetup e2fsprogs f2fs-tools
)
# What scripts/cross runs on this machine, and what the Debian trees hold in which it builds: tools,
# and libraries of the target's architecture.
cross_packages=(mmdebstrap bubblewrap qemu-user-static)
cross_tools=(
  cmake ninja-build pkg-config libglib2.0-dev-bin scdoc help2man dpkg-dev debhelper python3
  python3-docutils libcli11-dev nlohmann-json3-dev
)
cross_libraries=(libglib2.0-dev libfmt-dev libncurses-dev libgtest-dev libgmock-dev)
test_packages=(
  "${build_packages[@]}" "${count_packages[@]}" "${fuzz_packages[@]}" "${picture_packages[@]}"
  "${kernel_packages[@]}" "${pack_packages[@]}"
  git ccache clang-format clang-tidy cppcheck shellcheck libxml2-utils
  python3-pytest-xdist python3-pytest-timeout python3-jsonschema
  libbenchmark-dev umockdev strace libfaketime debootstrap binutils zsh fish man-db lintian
  libsdbus-c++-dev libsystemd-dev nodejs make pandoc jq libmosquitto-dev libssl-dev mosquitto mosquitto-clients openssl
)
# Debian's Node.js comes without npm; a Node.js from elsewhere brings its own, and refuses Debian's.
command -v npm >/dev/null || test_packages+=(npm)
coverage_packages=("${test_packages[@]}" gcovr)

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

# Prints what the head of the running script says of it.
usage() {
  sed -n '2,/^[^#]/{ /^#/!d; s/^# \{0,1\}//p; }' "$0"
}

# Ends the script for a wrong argument, before anything was done.
misused() {
  printf '%s%s%s\n' "$red" "$*" "$plain" >&2
  usage | sed -n '/^Usage:/,/^[^ U]/{ /^[U ]/p; }' >&2
  exit 2
}

# Answers --help wherever it stands among a script's arguments.
answer_help() {
  local argument
  for argument in "$@"; do
    case $argument in
      --help | -h)
        usage
        exit 0
        ;;
    esac
  done
}

# For scripts that take no argument.
take_no_arguments() {
  answer_help "$@"
  [ $# -eq 0 ] || misused "unknown argument: $1"
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

# Prints those of the packages that are not installed, one per line.
missing_packages() {
  local package
  for package in "$@"; do
    case $(dpkg-query --show --showformat '${db:Status-Status}' "$package" 2>/dev/null) in
      installed) ;;
      *) printf '%s\n' "$package" ;;
    esac
  done | sort -u
}

# Installs those of the packages that are missing.
bootstrap() {
  local absent
  mapfile -t absent < <(missing_packages "$@")
  [ "${#absent[@]}" -gt 0 ] || return 0
  say "installing ${absent[*]}"
  as_root apt-get update -q
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -q -y --no-install-recommends "${absent[@]}"
}

# Configures and builds one CMake preset into build/<preset>/, with further options of CMake.
# Configured each time: what the preset says may have changed since, or have been left out (see
# build_only).
build_preset() {
  local preset=$1
  cmake --preset "$@" || return
  cmake --build --preset "$preset"
}

# Has what was compiled before, in this checkout or another one, not compiled again.
use_ccache() {
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
  # A checkout elsewhere has other paths and the same text; precompiled headers hold the time.
  export CCACHE_BASEDIR=$top CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
}

# Builds these targets of what ships into build/release/; where that is the first build, without the
# tests, so that nothing has to be there that only those need.
build_only() {
  if [ ! -f build/release/build.ninja ]; then
    cmake --preset release -DWEXD_TESTS=OFF || return
  fi
  cmake --build --preset release --target "$@"
}

# Runs a build, silent unless it fails.
quietly() {
  local output
  output=$("$@" 2>&1) || {
    printf '%s\n' "$output" >&2
    die "the build failed: $*"
  }
}

# One of the steps of a script: step_of NUMBER COUNT WHAT COMMAND ... On a terminal it says what is
# done, lets it show how it goes on, and says how long it took; elsewhere it is silent unless it fails.
step_of() {
  local number=$1 count=$2 what=$3 started=$SECONDS
  shift 3
  if [ ! -t 2 ]; then
    quietly "$@"
    return
  fi
  say "[$number/$count] $what" >&2
  NINJA_STATUS='      %f of %t, %e s  ' "$@" >&2 || die "$what: failed"
  say "      done in $((SECONDS - started)) s" >&2
}

# Makes Debian packages of a folder in which all was built: pack BUILT INTO [option of dpkg-buildpackage].
pack() {
  local built=$1 into=$2
  shift 2
  rm -rf "$into"
  mkdir -p "$into/wexd"
  cp -r debian "$into/wexd"
  (cd "$into/wexd" && WEXD_BUILT=$built dpkg-buildpackage -d -b -uc "$@")
}
