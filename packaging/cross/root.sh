# Systems of other processors, for what builds for them and runs what was built. Sourced. Their packages are only unpacked
# below build/: the machine's own packages and architectures stay as they are.

triplet_of() {
  case "$1" in
    arm64) echo aarch64-linux-gnu ;;
    armhf) echo arm-linux-gnueabihf ;;
    s390x) echo s390x-linux-gnu ;;
    *) echo "no such processor: $1 (armhf, arm64 or s390x)" >&2; return 2 ;;
  esac
}

# An apt of its own, for ARCHITECTURE, that believes in a machine without any package; its files are in DIRECTORY. Sets
# the array foreign_apt.
prepare_foreign_apt() {  # ARCHITECTURE DIRECTORY
  local arch=$1 work=$2
  mkdir -p "$work"/{lists/partial,cache/archives/partial}
  : >"$work/status"
  foreign_apt=(-o "APT::Architecture=$arch" -o "APT::Architectures::=$arch" -o "Dir::State::status=$work/status"
    -o "Dir::State::lists=$work/lists" -o "Dir::Cache=$work/cache" -o APT::Sandbox::User=root
    -o APT::Install-Recommends=false -o Debug::NoLocking=1)
  # An index that a mirror is just replacing does no harm as long as the packages are found.
  apt-get "${foreign_apt[@]}" update -qq || true
}

# Links that begin at the root lead to the same place when the tree is not the root.
make_links_relative() {  # DIRECTORY
  local link target
  find "$1" -xdev -lname '/*' -print0 | while IFS= read -r -d '' link; do
    target=$(readlink "$link")
    ln -sfnr "$1$target" "$link"
  done
}

# What the packages' own scripts, which are not run, would have made, as far as programs ask for it.
complete_root() {  # ROOT
  local root=$1 name
  cp "$root/usr/share/base-passwd/passwd.master" "$root/etc/passwd"
  cp "$root/usr/share/base-passwd/group.master" "$root/etc/group"
  cp "$root/usr/share/libc-bin/nsswitch.conf" "$root/etc/nsswitch.conf"
  echo 127.0.0.1 localhost >"$root/etc/hosts"
  ln -sfn mawk "$root/usr/bin/awk"
  mkdir -p "$root"/{proc,sys,dev,tmp,mnt}
  make_links_relative "$root"
}

# A system of ARCHITECTURE with the packages and all that they depend on, in DIRECTORY/root, once.
make_root() {  # ARCHITECTURE DIRECTORY PACKAGE...
  local arch=$1 work=$2 deb name
  shift 2
  [ "$(cat "$work/unpacked" 2>/dev/null)" = "$*" ] && return 0
  rm -rf "$work/root" "$work/unpacked"
  prepare_foreign_apt "$arch" "$work"
  apt-get "${foreign_apt[@]}" install --download-only -y -qq '?essential' "$@" >"$work/download.log" 2>&1 || {
    cat "$work/download.log" >&2
    echo "the mirror does not have all of these for $arch: $*" >&2
    return 1
  }
  for name in bin sbin lib; do
    mkdir -p "$work/root/usr/$name"
    ln -s "usr/$name" "$work/root/$name"
  done
  for deb in "$work"/cache/archives/*.deb; do
    dpkg-deb --fsys-tarfile "$deb" | tar -x -C "$work/root" --keep-directory-symlink
  done
  complete_root "$work/root"
  echo "$*" >"$work/unpacked"
}
