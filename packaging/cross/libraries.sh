# Libraries of other processors, for the scripts that build for them. Sourced. They are only unpacked below build/:
# the machine's own packages and architectures stay as they are.

triplet_of() {
  case "$1" in
    arm64) echo aarch64-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    *) echo "no such processor: $1 (arm64 or armhf)" >&2; return 2 ;;
  esac
}

# An apt of its own, for ARCHITECTURE, that believes in a machine without any package; its files are in DIRECTORY. Sets
# the array foreign_apt.
prepare_foreign_apt() {  # ARCHITECTURE DIRECTORY
  local arch=$1 work=$2
  mkdir -p "$work"/{lists/partial,cache/archives/partial,root}
  : >"$work/status"
  foreign_apt=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch" -o "Dir::State::status=$work/status"
    -o "Dir::State::lists=$work/lists" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=root
    -o APT::Install-Recommends=false -o Debug::NoLocking=1)
  # An index that a mirror is just replacing does no harm as long as the packages are found.
  apt-get "${foreign_apt[@]}" update -qq || true
}

# Links of an unpacked tree that begin at the root lead into the tree from now on.
keep_links_inside() {  # DIRECTORY
  local link target
  find "$1" -lname '/*' -print0 | while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfn "$1$target" "$link"
  done
}

# Unpacks the packages with all that they depend on into DIRECTORY/root, once.
unpack_with_dependencies() {  # ARCHITECTURE DIRECTORY PACKAGE...
  local arch=$1 work=$2 deb
  shift 2
  [ "$(cat "$work/unpacked" 2>/dev/null)" = "$*" ] && return 0
  rm -rf "$work/root" "$work/unpacked"
  prepare_foreign_apt "$arch" "$work"
  apt-get "${foreign_apt[@]}" install --download-only -y -qq "$@" >"$work/download.log" 2>&1 || {
    cat "$work/download.log" >&2
    echo "the mirror does not have all of these for $arch: $*" >&2
    return 1
  }
  for deb in "$work"/cache/archives/*.deb; do
    dpkg -x "$deb" "$work/root"
  done
  keep_links_inside "$work/root"
  echo "$*" >"$work/unpacked"
}
