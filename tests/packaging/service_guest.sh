#!/bin/bash
# What service_test.sh runs in the tree that it has booted.
set -euo pipefail
export LC_ALL=C

fail() { echo "FAILED: $*"; journalctl --no-pager -u quillon-webapid | tail -30; exit 1; }
expect() {  # WANTED GOT WHAT
  [ "$1" = "$2" ] || fail "$3: expected '$1', got '$2'"
}
make_maildir() {  # NAME OWNER
  mkdir -p "/var/spool/quillon/local/$1"/{cur,new,tmp}
  echo hello >"/var/spool/quillon/local/$1/cur/1"
  chown -R "$2" "/var/spool/quillon/local/$1"
  chmod -R go= "/var/spool/quillon/local/$1"
}
remote() { quillonctl --host 127.0.0.1 --account boss --password-file /root/password "$@"; }

useradd ann
make_maildir ann ann:ann
make_maildir gone 40000:40000
(umask 077 && echo 'correct horse battery' >/root/password)
quillonctl account add --role admin --password-stdin boss </root/password
! systemctl is-active --quiet quillon-webapid || fail "it was started without being asked"
systemctl enable --now redis-server quillon-webapid
quillonctl host trust --yes 127.0.0.1

echo "== the front is an account of its own"
expect quillon-web "$(ps -o user:32= -p "$(pgrep -f /quillon-webapid-front)" | tr -d ' ')" "its account"

echo "== the workers do their work"
remote user set-quota --limit 2048 --warning 1024 ann
remote usage count ann
expect "ann yes 2K - 6B /var/spool/quillon/local/ann" \
  "$(remote user show ann | awk 'NR == 2 { $1 = $1; print }')" "what is known of ann"
remote no-owner refresh --wait
expect "40000 gone 6B" "$(remote no-owner list | awk 'NR == 2 { $1 = $1; print }')" "ownerless mail"
remote no-owner remove --yes 40000
remote user clear-storage --yes ann
expect "" "$(ls /var/spool/quillon/local)" "what is left of the mail"
remote privilege revoke ann
quillonctl host status --account boss --password-file /root/password 127.0.0.1

echo "== what is not its business is out of reach"
worker=$(pgrep -f /quillon-webapid-worker | head -1)
for path in /usr /etc/passwd /var/log; do
  ! nsenter --mount --target "$worker" test -w "$path" || fail "$path can be written to"
done
! nsenter --mount --target "$worker" ls /home 2>/dev/null | grep -q . || fail "/home can be seen"

echo "== it is reloaded, mended and stopped"
systemctl reload quillon-webapid
pkill -KILL -f /quillon-webapid-front
sleep 1
remote user list ann >/dev/null || fail "no answer after the front's end"
systemctl stop quillon-webapid
! pgrep -f /quillon-webapid || fail "something of it still runs"
expect inactive "$(systemctl is-active quillon-webapid || true)" "its state"
! journalctl --no-pager -u quillon-webapid | grep -E 'not permitted|not implemented|Read-only' ||
  fail "its confinement was in its way"

systemd-analyze security --no-pager quillon-webapid | tail -1
echo "all is well"
