# Installs Debian packages that are missing. Sourced by ./quickstart and ./run-tests.

# What building, testing and the tour need.
TOLM_PACKAGES=(
  g++ cmake ninja-build pkg-config
  libjsoncpp-dev libsqlitecpp-dev libsqlite3-dev libssl-dev
  libboost-filesystem-dev libboost-system-dev libarchive-dev libmount-dev
  libdeflate-dev liblzma-dev libzstd-dev
  libcpp-httplib-dev libcli11-dev libgtest-dev libgmock-dev
  wget xdelta3 sqlite3 openssl zstd util-linux
  lowdown groff-base python3 python3-prometheus-client rclone
)

missing_packages() {
  local package
  for package in "$@"; do
    if [ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
      echo "$package"
    fi
  done
}

# ensure_packages PACKAGE...: nothing when all are there; otherwise apt-get, through sudo when not root.
ensure_packages() {
  local missing as_root=()
  mapfile -t missing < <(missing_packages "$@")
  [ "${#missing[@]}" -eq 0 ] && return 0
  if ! command -v apt-get >/dev/null; then
    echo "These Debian packages are needed and there is no apt-get here: ${missing[*]}" >&2
    return 1
  fi
  if [ "$(id -u)" -ne 0 ]; then
    if ! command -v sudo >/dev/null; then
      echo "These Debian packages are needed: ${missing[*]}" >&2
      echo "Neither root nor sudo is at hand; have them installed with apt-get install and try again." >&2
      return 1
    fi
    as_root=(sudo)
  fi
  echo "Installing: ${missing[*]}"
  "${as_root[@]}" apt-get update -qq &&
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
      apt-get install -y -qq --no-remove --no-install-recommends "${missing[@]}" >/dev/null || {
    echo "apt-get could not install: ${missing[*]}" >&2
    return 1
  }
}
