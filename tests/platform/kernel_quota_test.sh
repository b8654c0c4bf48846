#!/bin/bash
# kernel_quota_test.sh KERNEL PROBE: what PROBE, which is share_quota_probe, reads of the quotas of a
# real kernel, in a virtual machine that is made for it. The folder KERNEL holds that kernel's package,
# unpacked. What happens in the machine is in kernel_quota_guest.sh. Exits with 77 when something is
# missing that this needs.
set -euo pipefail
export LC_ALL=C PATH=$PATH:/usr/sbin:/sbin

kernel=$1 probe=$2
guest=$(dirname "$0")/kernel_quota_guest.sh

skip() { echo "skipped: $1 is missing (scripts/install-packages test, scripts/fetch-kernel)"; exit 77; }
for tool in qemu-system-x86_64 busybox setquota cpio mkfs.ext4 mkfs.xfs strip; do
  command -v "$tool" >/dev/null || skip "$tool"
done
vmlinuz=$(compgen -G "$kernel/boot/vmlinuz-*") || skip "a kernel in $kernel"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root"/{bin,dev,etc,modules,proc,tmp}

# A program and the libraries that it loads, at the paths that they have here.
take() {
  local file
  for file in "$1" $(ldd "$1" 2>/dev/null | grep -o '/[^ )]*'); do
    mkdir -p "$root${file%/*}"
    strip --strip-debug -o "$root$file" "$file"
  done
}
cp "$(command -v busybox)" "$root/bin/busybox"  # linked statically
take "$(command -v setquota)"
take "$probe"
ln -s "$probe" "$root/bin/probe"

# In the order in which they need each other; what is missing is built in.
number=0
for module in loop quota_tree quota_v2 libcrc32c xfs; do
  file=$(find "$kernel/lib/modules" -name "$module.ko")
  [ -z "$file" ] || cp "$file" "$root/modules/$((number += 1))-$module.ko"
done

make_image() {  # NAME SIZE COMMAND...
  truncate -s "$2" "$root/$1.img"
  "${@:3}" "$root/$1.img"
}
make_image quotas 12M mkfs.ext4 -q -O quota,^has_journal -E quotatype=usrquota:grpquota
make_image users-only 4M mkfs.ext4 -q -O quota,^has_journal -E quotatype=usrquota
make_image none 4M mkfs.ext4 -q -O ^has_journal
# The option is for file systems of less than 300 MB.
make_image xfs 16M mkfs.xfs -q --unsupported

install -m 755 "$guest" "$root/init"
(cd "$root" && find . | cpio -o -H newc -R 0:0 --quiet) >"$work/initrd"

# Software emulation is everywhere. The kernel speaks on the first port, the guest on the second, and
# a kernel that panics ends the machine.
parameters="console=ttyS0 quiet no_timer_check mitigations=off panic=-1"
timeout 240 qemu-system-x86_64 -accel tcg -m 768 -nodefaults -no-user-config -display none -no-reboot \
  -serial "file:$work/kernel.log" -serial "file:$work/guest.log" \
  -kernel "$vmlinuz" -initrd "$work/initrd" -append "$parameters" </dev/null ||
  echo "the machine was ended: $?"

tr -d '\r' <"$work/guest.log"
if [ "$(tail -n 1 "$work/guest.log" | tr -d '\r')" != "all quotas as expected" ]; then
  echo "the guest did not say that all was well; its kernel said:"
  cat "$work/kernel.log"
  exit 1
fi
