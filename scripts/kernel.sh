# Sourced after common.sh: Debian's kernel for virtual machines. Nothing of it is installed.

kernel=$root/build/vm/kernel

# Unpacks it there, unless it is there.
unpack_kernel() {
  local package
  package=$(apt-cache depends linux-image-amd64 | sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p')
  [ -n "$package" ] || die "apt knows no linux-image-amd64; run apt-get update"
  [ ! -e "$kernel/$package" ] || return 0
  say "unpacking $package"
  rm -rf "$kernel" && mkdir -p "$kernel"
  (cd "$kernel" && apt-get download -qq "$package") || die "cannot download $package"
  dpkg -x "$kernel"/*.deb "$kernel"
  rm "$kernel"/*.deb
  depmod -b "$kernel" "$(ls "$kernel/lib/modules")"
  touch "$kernel/$package"
}

# module_files NAME…: the files of these modules and of all that they need, in the order in which they are loaded.
module_files() {
  local module
  for module in "$@"; do
    modprobe -S "$(ls "$kernel/lib/modules")" -d "$kernel" -D "$module" | sed -n 's/^insmod \([^ ]*\).*/\1/p'
  done | awk '!seen[$0]++'
}
