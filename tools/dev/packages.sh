# shellcheck shell=bash
# Sourced by the commands at the root of the repository.

# Installs those of the named Debian packages that are missing; without the right to do so it names them and ends.
require_packages() {
  local installed missing=() package
  installed=$(dpkg-query --show --showformat '${Package} ${db:Status-Status}\n' "$@" 2>/dev/null || true)
  for package in $(printf '%s\n' "$@" | sort -u); do
    grep -qx "$package installed" <<<"$installed" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  if [ "$(id -u)" != 0 ]; then
    echo "Missing Debian packages, which root has to install: ${missing[*]}" >&2
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

export DEBIAN_FRONTEND=noninteractive

# What it takes to build the daemon and the stubs.
# shellcheck disable=SC2034
build_packages=(cmake ninja-build g++ pkg-config thrift-compiler libthrift-dev libboost-dev libblkid-dev libcli11-dev nlohmann-json3-dev)

# What runs the Python clients; python3-thrift needs python3-six and does not say so.
# shellcheck disable=SC2034
python_packages=(python3 python3-thrift python3-six)
