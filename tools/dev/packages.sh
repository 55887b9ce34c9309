# shellcheck shell=bash
# Sourced by the commands at the root of the repository.

# Installs the missing ones of the given Debian packages. Without root it prints them and exits.
require_packages() {
  local installed missing=() package
  installed=$(dpkg-query --show --showformat '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
  for package in $(printf '%s\n' "$@" | sort -u); do
    grep -qx "$package installed" <<<"$installed" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" != 0 ]; then
    echo "Debian packages are missing; install them as root: ${missing[*]}" >&2
    exit 1
  fi
  echo "Installing ${missing[*]}"
  local log
  log=$(mktemp)
  if ! (apt-get update && apt-get install --yes --no-install-recommends "${missing[@]}") \
      >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    rm "$log"
    exit 1
  fi
  rm "$log"
}

# Whether this release of Debian has a package. A fresh system has no list of packages yet.
has_package() {
  dpkg-query --show "$1" >/dev/null 2>&1 || apt-cache madison "$1" 2>/dev/null | grep -q . ||
    { [ "$(id -u)" = 0 ] && apt-get update >/dev/null 2>&1 && apt-cache madison "$1" | grep -q .; }
}

export DEBIAN_FRONTEND=noninteractive

# docs/PACKAGING.md and docs/INTEGRATION.md name these packages too; ./test docs compares.
# For building the daemon, its client and the stubs.
build_packages=(cmake ninja-build g++ pkg-config thrift-compiler libthrift-dev libboost-dev libblkid-dev libmount-dev
  libcli11-dev nlohmann-json3-dev)

# For packaging/debian/build. CPack finds dependencies with dpkg-shlibdeps, and programs with file.
# shellcheck disable=SC2034
debian_packages=("${build_packages[@]}" dpkg-dev file)

# For packaging/cross. The libraries come from the sysroot.
cross_packages=(cmake ninja-build pkg-config thrift-compiler mmdebstrap)
# shellcheck disable=SC2034
armhf_packages=("${cross_packages[@]}" g++-arm-linux-gnueabihf)
# shellcheck disable=SC2034
arm64_packages=("${cross_packages[@]}" g++-aarch64-linux-gnu)
# shellcheck disable=SC2034
i386_packages=("${cross_packages[@]}" g++-i686-linux-gnu)

# For the Python clients. python3-thrift needs python3-six, but does not depend on it.
# shellcheck disable=SC2034
python_packages=(python3 python3-thrift python3-six)

# For tools/dev/private_root and tools/dev/in_root. Newer releases have pivot_root in util-linux-extra.
# shellcheck disable=SC2034
root_packages=(util-linux util-linux-extra mount)
