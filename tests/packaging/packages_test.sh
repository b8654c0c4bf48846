#!/bin/bash
# packages_test.sh PACKAGES BASE: installs the packages in the folder PACKAGES in a fresh minimal Debian
# tree, uses them there, upgrades them and goes back, and removes them again. BASE is the minimal tree, which
# is not changed. Needs root and a Debian mirror.
set -euo pipefail
export LC_ALL=C

packages=$(realpath "$1") base=$(realpath "$2") here=$(dirname "$(realpath "$0")")

if [ "${3-}" != inside ]; then
  work=$(mktemp -d)
  trap 'rm -rf --one-file-system "$work"' EXIT
  WORK=$work unshare --mount --pid --fork --kill-child --propagation private \
    "$0" "$packages" "$base" inside
  exit
fi

mkdir "$WORK"/{upper,overlay,tree}
tree=$WORK/tree
mount -t overlay packages-test -o "lowerdir=$base,upperdir=$WORK/upper,workdir=$WORK/overlay" "$tree"
mount -t proc proc "$tree/proc"
mount --rbind /dev "$tree/dev"
cp -L /etc/resolv.conf "$tree/etc/resolv.conf"
mkdir "$tree/packages"
cp "$packages"/*.deb "$here/use_installed.sh" "$here/../../docs/handlers.md" "$tree/packages"

fail() { echo "FAILED: $*" >&2; exit 1; }
run() { DEBIAN_FRONTEND=noninteractive chroot "$tree" "$@" </dev/null; }
apt() {
  run apt-get -qq -o Dpkg::Use-Pty=0 "$@" >"$WORK/apt.log" 2>&1 || { cat "$WORK/apt.log" >&2; fail "apt-get $*"; }
}
# Every path, but for what the package manager and the service manager keep for themselves.
paths() {
  (cd "$tree" && find . -xdev \( -path ./packages -o -path ./tmp -o -path ./proc -o -path ./dev \
    -o -path ./var/lib/dpkg -o -path ./var/lib/apt -o -path ./run/systemd -o -path ./var/cache -o -path ./var/log \) -prune \
    -o -print | sort)
}
ours=(libmailserver-webapi0 libmailserver-webapi-dev quillon-platform quillon-quota-postgresql
      quillon-tools quillon-webapid)

echo "== a tree with a compiler, and nothing else that the packages could miss"
apt update
apt install --no-install-recommends g++ cmake make pkg-config systemd
run systemd-sysusers
run systemd-tmpfiles --create >/dev/null 2>&1 || true
run useradd ann
paths >"$WORK/before"

echo "== install"
apt install --no-install-recommends $(cd "$packages" && printf '/packages/%s ' *.deb)
[ "$(dpkg-query --admindir="$tree/var/lib/dpkg" -W -f '${db:Status-Status}\n' "${ours[@]}" | sort -u)" = installed ] ||
  fail "not all packages are installed"
run getent passwd quillon-web >/dev/null || fail "there is no account quillon-web"
run getent group quillon-mail >/dev/null || fail "there is no group quillon-mail"
[ "$(stat -c '%U %a' "$tree/run/lock/quillon_server")" = "root 755" ] || fail "the folder of locks"
[ "$(stat -c '%U %a' "$tree/var/lib/quillon")" = "root 700" ] || fail "the folder of data"
for binary in /usr/bin/quillonctl /usr/libexec/quillon/quillon-webapid{,-front,-worker} \
    /usr/lib/x86_64-linux-gnu/lib{mailserver-webapi.so.0,quillon-platform.so.0,quillon-quota-postgresql.so}; do
  ! run ldd "$binary" | grep "not found" || fail "$binary misses libraries"
  # Under /usr the loader looks by itself.
  ! readelf -d "$tree/$binary" | grep -E 'R(UN)?PATH' || fail "$binary looks for libraries by itself"
done
run systemd-analyze verify --man=no quillon-webapid.service quillon-quota-sync.path quillon-quota-sync.timer ||
  fail "the units"

echo "== use"
apt install --no-install-recommends curl  # only now: it would bring a library that the packages could miss
run /packages/use_installed.sh /usr /packages/handlers.md quillon-web
# With the configuration as it is installed.
run quillonctl user set-quota --limit 2M --warning 1M ann
[ -s "$tree/var/lib/quillon/quota.db" ] || fail "no quota store"

echo "== upgrade, and back"
"$here/raise_version.sh" "$packages" "$tree/packages/newer" 9.0.0
versions() { dpkg-query --admindir="$tree/var/lib/dpkg" -W -f '${Version}\n' "${ours[@]}" | sort -u; }
settings=$tree/etc/quillon/mailserver.toml
version=$(versions)
limits=$(cksum <"$tree/var/lib/quillon/quota.db")
# A default that nobody has changed is replaced without a question.
apt install --no-install-recommends $(cd "$tree" && printf '/%s ' packages/newer/*.deb)
[ "$(versions)" = 9.0.0 ] || fail "not all packages are upgraded: $(versions)"
grep -q "version 9.0.0" "$settings" || fail "the default configuration is not the new one"
sed -i 's/^#max_uid = .*/max_uid = 50000/' "$settings"
! run apt-get -qq install -y $(cd "$packages" && printf '/packages/%s ' *.deb) >/dev/null 2>"$WORK/refused" ||
  fail "it goes back without being told to"
grep -q -e --allow-downgrades "$WORK/refused" || fail "the refusal is not clear: $(cat "$WORK/refused")"
apt install --no-install-recommends --allow-downgrades -o Dpkg::Options::=--force-confold \
  $(cd "$packages" && printf '/packages/%s ' *.deb)
[ "$(versions)" = "$version" ] || fail "not all packages are those of before: $(versions)"
grep -q '^max_uid = 50000' "$settings" || fail "the configuration was changed"
[ "$(cksum <"$tree/var/lib/quillon/quota.db")" = "$limits" ] || fail "the quota store was changed"
run quillonctl user set-quota --limit 2M --warning 1M ann

echo "== remove"
apt remove --purge curl
apt remove "${ours[@]}"
[ -e "$tree/etc/quillon/mailserver.toml" ] || fail "the configuration was removed"
run dpkg --purge "${ours[@]}" >/dev/null 2>&1 || fail "dpkg --purge"
apt autoremove --purge
# Only data is more than before.
paths | diff "$WORK/before" - | grep '^[<>]' | grep -vxE '> \./var/lib/quillon(/quota\.db.*)?' >"$WORK/leftovers" || true
[ ! -s "$WORK/leftovers" ] || { cat "$WORK/leftovers" >&2; fail "this is more or less than before"; }
[ -s "$tree/var/lib/quillon/quota.db" ] || fail "the quota store is gone"
echo "== all is well"
