# A fresh Debian in a folder of its own, for the tests of the packages. Sourced, by root.
#
# root_fetch TAR             downloads it, from where this machine's apt gets its packages
# root_unpack TAR FOLDER     lays it out, in place of what was there
# root_enter FOLDER COMMAND...  runs COMMAND in it; this checkout is there, too, read-only. All
#                            processes of COMMAND end with it, and so does what was mounted.

root_fetch() {
  local sources
  sources=$(apt-get indextargets --format 'deb $(REPO_URI) $(RELEASE) $(COMPONENT)' \
    'Created-By: Packages' "Architecture: $(dpkg --print-architecture)" 'Origin: Debian' | sort -u)
  mkdir -p "$(dirname "$1")"
  # The lists stay, so that apt need not fetch them again each time.
  mmdebstrap --quiet --variant=minbase --skip=cleanup/apt/lists \
    --include=systemd-sysv,udev,dbus,procps \
    bookworm "${1%.tar}.part.tar" - <<<"$sources"
  mv "${1%.tar}.part.tar" "$1"
}

root_unpack() {
  rm -rf --one-file-system "$2"
  mkdir -p "$2"
  tar -xf "$1" -C "$2" --numeric-owner
}

root_enter() {
  local folder=$1
  shift
  unshare --mount --pid --fork --kill-child bash -euc '
    checkout=$PWD root=$(realpath "$1")
    shift
    mount --bind "$root" "$root"
    mount -t proc proc "$root/proc"
    mount -t tmpfs tmpfs "$root/run"
    for node in null zero full random urandom tty; do
      touch "$root/dev/$node"
      mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir -p "$root/dev/shm" "$root$checkout"
    mount --bind "$checkout" "$root$checkout"
    mount -o remount,bind,ro "$root$checkout"
    [ ! -e /etc/resolv.conf ] || cat /etc/resolv.conf >"$root/etc/resolv.conf"
    exec chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C \
      DEBIAN_FRONTEND=noninteractive TMPDIR=/tmp "$@"
  ' enter "$folder" "$@"
}
