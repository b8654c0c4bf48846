#!/bin/bash
# service_test.sh PACKAGES BASE: boots a minimal Debian tree with the packages in the folder PACKAGES, and
# has the web server do its work as the service that it is installed as, with all its confinement. BASE is
# the minimal tree of packages_test.sh, and is not changed. Needs root and a Debian mirror.
set -euo pipefail
export LC_ALL=C

packages=$(realpath "$1") base=$(realpath "$2") here=$(dirname "$(realpath "$0")")

if [ "${3-}" != inside ]; then
  work=$(mktemp -d)
  trap 'rm -rf --one-file-system "$work"' EXIT
  mkdir "$work"/{upper,overlay,tree}
  WORK=$work timeout 300 unshare --mount --pid --ipc --uts --cgroup --fork --kill-child \
    --propagation private "$0" "$packages" "$base" inside >"$work/boot.log" 2>&1 || true
  cat "$work/upper/root/output" 2>/dev/null || cat "$work/boot.log"
  grep -qx "all is well" "$work/upper/root/output" || { echo "FAILED" >&2; exit 1; }
  exit
fi

tree=$WORK/tree
mount -t overlay service-test -o "lowerdir=$base,upperdir=$WORK/upper,workdir=$WORK/overlay" "$tree"
cd "$tree"
mount -t proc proc proc
mount --rbind /dev dev
cp -L /etc/resolv.conf etc/resolv.conf
mkdir packages
cp "$packages"/*.deb packages
export DEBIAN_FRONTEND=noninteractive
chroot . apt-get -qq update
chroot . apt-get -qq install --no-install-recommends systemd-sysv dbus redis-server procps \
  $(printf "/%s " packages/*.deb) </dev/null

umount -R -l proc dev
install -m 755 "$here/service_guest.sh" root/guest.sh
cat >etc/systemd/system/guest.service <<'UNIT'
[Unit]
After=multi-user.target
[Service]
Type=oneshot
StandardOutput=file:/root/output
StandardError=inherit
ExecStart=/root/guest.sh
ExecStopPost=/bin/systemctl --no-block exit
UNIT
mkdir -p etc/systemd/system/multi-user.target.wants
ln -s ../guest.service etc/systemd/system/multi-user.target.wants/

exec "$here/boot_tree.sh" "$tree"
