#!/bin/bash
# hosts.sh, for tests to source that boot hosts with the packages, and do on them what documents say: blocks of
# commands, each below a line "<!-- run: NAME -->". A test's arguments are PACKAGES, the folder with the Debian
# packages, and BASE, a minimal Debian tree, which is not changed. It needs root and a Debian mirror.
# Whoever sources this is started anew, in namespaces of its own, and WORK is a folder that is removed at the end.
set -euo pipefail
export LC_ALL=C

packages=$(realpath "$1") base=$(realpath "$2") here=$(dirname "$(realpath "$0")")
fail() { echo "FAILED: $*" >&2; exit 1; }

if [ "${3-}" = host ]; then
  # In namespaces of the host's own.
  cd "$WORK/$4"
  mount -t overlay host -o "lowerdir=$WORK/layer:$base,upperdir=$WORK/$4/upper,workdir=$WORK/$4/work" tree
  echo "$4" >tree/etc/hostname
  printf '%s\n' '127.0.0.1 localhost' '10.99.0.1 mail1' '10.99.0.2 mail2' >tree/etc/hosts
  exec "$here/boot_tree.sh" "$WORK/$4/tree"
fi
if [ "${3-}" != inside ]; then
  work=$(mktemp -d)
  trap 'rm -rf --one-file-system "$work"' EXIT
  WORK=$work timeout 600 unshare --mount --pid --mount-proc --fork --kill-child --propagation private \
    "$0" "$packages" "$base" inside
  exit
fi

# The commands of a block of the DOCUMENT, a file in docs.
block() {  # NAME
  echo "$DOCUMENT $1" >>"$WORK/used"
  awk -v mark="<!-- run: $1 -->" '
    $0 == mark { is_found = 1; next }
    is_found && /^```/ { if (is_inside) exit; is_inside = 1; next }
    is_inside' "$here/../../docs/$DOCUMENT" | grep . || fail "$DOCUMENT has no block $1"
}
all_blocks_were_run() {
  local file=$here/../../docs/$DOCUMENT unused marks blocks
  unused=$(sed -n 's/^<!-- run: \(.*\) -->$/\1/p' "$file" | sort |
    comm -23 - <(sed -n "s/^$DOCUMENT //p" "$WORK/used" | sort -u))
  [ -z "$unused" ] || fail "these blocks of $DOCUMENT were not run: $unused"
  marks=$(grep -c '^<!-- run: ' "$file") blocks=$(grep -c '^```sh$' "$file")
  [ "$marks" = "$blocks" ] || fail "of $blocks blocks of commands in $DOCUMENT, $marks have a name"
}

# What is the same on all hosts: what a host needs to boot, and what COMMANDS, which find the packages in the
# folder "packages", install besides.
make_layer() {  # COMMANDS
  local tree=$WORK/tree
  mkdir "$WORK"/{layer,layer-work,tree}
  mount -t overlay layer -o "lowerdir=$base,upperdir=$WORK/layer,workdir=$WORK/layer-work" "$tree"
  mount -t proc proc "$tree/proc"
  mount --rbind /dev "$tree/dev"
  cp -L /etc/resolv.conf "$tree/etc/resolv.conf"
  mkdir "$tree/root/packages"
  cp "$packages"/*.deb "$tree/root/packages"
  {
    echo 'export DEBIAN_FRONTEND=noninteractive; cd'
    echo 'apt-get -qq update; apt-get -qq install --no-install-recommends systemd-sysv dbus iproute2 procps'
    echo "$1"
  } | chroot "$tree" bash -euo pipefail >"$WORK/install.log" 2>&1 || { cat "$WORK/install.log"; fail install; }
  umount -R "$tree"
}

declare -A process
boot() {  # NAME
  mkdir -p "$WORK/$1"/{upper,work,tree}
  setpriv --pdeathsig KILL unshare --mount --pid --ipc --uts --net --cgroup --fork --kill-child \
    --propagation private "$0" "$packages" "$base" host "$1" >"$WORK/$1/log" 2>&1 &
  local namespaces=$!
  for _ in $(seq 100); do
    process[$1]=$(tr -d ' ' <"/proc/$namespaces/task/$namespaces/children")
    [ -z "${process[$1]}" ] || return 0
    sleep 0.05
  done
  fail "$1 does not begin: $(cat "$WORK/$1/log")"
}
in_host() {  # NAME COMMAND...
  nsenter --target "${process[$1]}" --mount --pid --ipc --uts --net --cgroup \
    env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "${@:2}"
}
wait_for() {  # NAME
  for _ in $(seq 300); do
    ! in_host "$1" systemctl is-active --quiet multi-user.target 2>/dev/null || return 0
    sleep 0.2
  done
  fail "$1 does not boot: $(tail -5 "$WORK/$1/log")"
}

# Runs commands on a host, as in one shell; shows what they print when they fail.
on() {  # NAME <<<COMMANDS
  (echo cd; cat) | in_host "$1" bash -euo pipefail >"$WORK/output" 2>&1 || { cat "$WORK/output"; fail "on $1"; }
}
does() {  # NAME BLOCK...
  local name commands
  for name in "${@:2}"; do
    echo "   $1: $name"
    commands=$(block "$name")
    on "$1" <<<"$commands"
  done
}
shows() {  # TEXT: the commands before have printed it
  grep -qF -e "$1" "$WORK/output" || { cat "$WORK/output"; fail "'$1' is not there"; }
}
