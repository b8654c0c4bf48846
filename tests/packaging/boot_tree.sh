#!/bin/bash
# boot_tree.sh TREE: boots the Debian tree that is mounted there, as a container would. It is the first
# process of namespaces of its own, and becomes the tree's systemd.
set -euo pipefail

cd "$1"
mount -t proc proc proc
mount -t sysfs -o ro sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs dev
for device in null:1:3 zero:1:5 full:1:7 random:1:8 urandom:1:9 tty:5:0 ptmx:5:2; do
  IFS=: read -r name major minor <<<"$device"
  mknod -m 666 "dev/$name" c "$major" "$minor"
done
mkdir dev/{shm,pts}
touch dev/console
mount -t tmpfs tmpfs run
mount -t tmpfs tmpfs tmp

mkdir former
pivot_root . former
umount -l /former
exec env -i container=other PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd --system
