# Runs programs of other processors in their own systems. Sourced. The caller is root, in a mount namespace of its own.

emulator_name() {
  case "$1" in
    arm64) echo aarch64 ;;
    armhf) echo arm ;;
    s390x) echo s390x ;;
  esac
}

registered=
unregister_emulator() {
  [ -z "$registered" ] || echo -1 >"/proc/sys/fs/binfmt_misc/$registered"
  registered=
}

# Until this script ends the kernel hands programs of ARCHITECTURE to qemu, in whatever root they are ("F": the
# emulator itself is opened now).
register_emulator() {  # ARCHITECTURE
  local emulator magic
  emulator=$(emulator_name "$1")
  [ -e /proc/sys/fs/binfmt_misc/register ] || mount -t binfmt_misc none /proc/sys/fs/binfmt_misc || {
    echo "The kernel cannot be told to run foreign programs with qemu (binfmt_misc)." >&2
    return 1
  }
  magic=$(cut -d: -f5-7 "/usr/lib/binfmt.d/qemu-$emulator.conf")
  unregister_emulator
  registered=tolm-$1-$$
  trap unregister_emulator EXIT
  # It reads the backslashes itself.
  printf ':%s:M::%s:%s' "$registered" "$magic" OPF >/proc/sys/fs/binfmt_misc/register
}

# The foreign system sees what is built and the sources at their places. A bind of ROOT on itself makes it a mount, which
# only then may be left for a private root.
open_root() {  # ROOT
  local root=$1
  mountpoint -q "$root" && return 0
  mount --bind "$root" "$root"
  mount --rbind /proc "$root/proc"
  mount --rbind /dev "$root/dev"
  mount -t tmpfs tmpfs "$root/tmp"
  mkdir -p "$root$PWD"
  mount --bind "$PWD" "$root$PWD"
}
