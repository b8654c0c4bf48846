#!/bin/bash
# dovecot_test.sh PACKAGES BASE: boots a host with the packages and with Debian's Dovecot, does on it what
# docs/dovecot.md says, every block of commands in it, each below a line "<!-- run: NAME -->", and delivers mail.
# PACKAGES has the Debian packages, BASE is a minimal Debian tree, which is not changed. Needs root and a Debian
# mirror.
# shellcheck source-path=SCRIPTDIR source=hosts.sh
source "$(dirname "$0")/hosts.sh"
DOCUMENT=dovecot.md

# What the host's shell knows.
tools='
says() { printf "%s\r\n" "$@" >&"${COPROC[1]}"; }
hears() { while read -r answer <&"${COPROC[0]}" && [[ $answer == ???-* ]]; do :; done; }
# Sends a message over LMTP, and prints what Dovecot says to it.
deliver() {  # NAME BYTES
  local answer command
  coproc nc -U /run/dovecot/lmtp
  hears
  for command in "LHLO test" "MAIL FROM:<test@example.org>" "RCPT TO:<$1>"; do
    says "$command"
    hears
  done
  if [[ $answer == 250* ]]; then
    says DATA
    hears
    says "Subject: test" "" "$(head -c "$2" /dev/zero | tr "\0" x)" .
    hears
  fi
  echo "$answer"
  says QUIT
  wait
}
soon() {  # COMMAND...: it succeeds in a while
  for _ in $(seq 200); do
    ! "$@" >/dev/null 2>&1 || return 0
    sleep 0.1
  done
  echo "not within twenty seconds: $*"
  systemctl --no-pager status "quillon-quota-*"
  return 1
}
is_known() { doveadm user "$1"; }
is_unknown() { ! doveadm user "$1"; }
all_are_known() { quillonctl quota sync --dry-run | grep "^mail users: 0 to be added, 0 to be changed, 0 to be removed"; }
'
guest() { on mail1 <<<"$tools$(cat)"; }  # <<<COMMANDS

echo "== a host with the packages and Dovecot"
install=$(DOCUMENT=operations.md block install; DOCUMENT=operations.md block postgresql-install; block packages)
make_layer "$install"$'\napt-get install -y --no-install-recommends dovecot-pgsql netcat-openbsd'
boot mail1
wait_for mail1
guest <<<'useradd ann'

echo "== what docs/dovecot.md says"
DOCUMENT=operations.md does mail1 spool
does mail1 folder redis-socket userdb settings doctor
shows "ok      dovecot userdb: ann is found, with the limit"
guest <<<'echo ann:secret | chpasswd; doveadm auth test ann secret; ! doveadm auth test ann wrong || exit 1'

echo "== mail is counted, and refused beyond the limit"
guest <<<'deliver ann 2000; wc -c </var/spool/quillon/local/ann/new/*'
shows "250 2.0.0"
bytes=$(tail -n 1 "$WORK/output")
[ "$bytes" -gt 2000 ] || fail "a message of $bytes bytes"
guest <<<'quillonctl user set-quota --limit 4K --warning 3K ann; quillonctl user list --json; deliver ann 2000'
shows "\"usage\" : $bytes"
shows "552 5.2.2"
guest <<<'rm /var/spool/quillon/local/ann/new/*'
does mail1 recount
guest <<<'quillonctl user list --json'
shows "\"usage\" : 0"
guest <<<'quillonctl user set-quota --limit 8K --warning 1K ann; deliver ann 2000
  is_warned() { grep --recursive --quiet "^Subject: Your mailbox" /var/spool/quillon/local/ann/new; }; soon is_warned'

echo "== whoever comes and goes is known, and has the groups' limits"
guest <<<'useradd bob; sleep 2; deliver bob 100'
shows "550 5.1.1"
does mail1 sync
guest <<<'systemctl stop quillon-quota-sync.timer  # which would do it, too
  useradd carl; soon is_known carl; is_known bob; deliver carl 100'
shows "250 2.0.0"
guest <<<'groupadd sales; quillonctl group set-quota --limit 5000000 --warning 4000000 sales
  gpasswd -a bob sales; has_limit() { doveadm user bob | grep bytes=5000000; }; soon has_limit
  userdel bob; soon is_unknown bob; is_known carl'
does mail1 doctor
shows "ok      changes of accounts: quillon-quota-sync.path"

echo "== who comes while the accounts are read"
guest <<<'mkdir -p /run/systemd/system/quillon-quota-sync.service.d; cd /run/systemd/system/quillon-quota-sync.service.d
  printf "%s\n" "[Service]" ExecStartPost="/bin/sleep 3" >slow.conf
  systemctl daemon-reload
  has_read() { [ "$(systemctl show --property SubState --value quillon-quota-sync.service)" = start-post ]; }
  useradd dora; soon has_read; useradd emil; has_read; soon is_known emil
  rm slow.conf; systemctl daemon-reload'

echo "== many who come one after the other"
guest <<<'for i in $(seq 50); do useradd "many$i"; sleep 0.2; done; soon all_are_known; is_known many50
  systemctl is-active quillon-quota-sync.path; ! systemctl --failed --no-legend | grep quillon || exit 1'

echo "== the timer alone"
guest <<<'systemctl stop quillon-quota-sync.path; sleep 3; useradd fay; sleep 3; is_unknown fay
  mkdir -p /run/systemd/system/quillon-quota-sync.timer.d
  printf "%s\n" "[Timer]" OnBootSec=1s >/run/systemd/system/quillon-quota-sync.timer.d/soon.conf
  systemctl daemon-reload; systemctl start quillon-quota-sync.timer; soon is_known fay
  systemctl stop quillon-quota-sync.timer; systemctl start quillon-quota-sync.path'

echo "== a quota store in PostgreSQL"
DOCUMENT=operations.md does mail1 postgresql-database postgresql-switch postgresql-copy postgresql-compare
does mail1 settings
guest <<<'rm /var/lib/quillon/quota.db*; deliver ann 8000'
shows "552 5.2.2"
guest <<<'useradd gus; soon is_known gus; deliver gus 100'
shows "250 2.0.0"

echo "== virtual users"
DOCUMENT=operations.md does mail1 virtual-users
does mail1 watch-virtual-users
guest <<<'replace() { cp /etc/quillon/passwd /etc/quillon/new; cat >>/etc/quillon/new; mv /etc/quillon/new /etc/quillon/passwd; }
  echo "hal:x:20003:20000::/nonexistent:/usr/sbin/nologin" | replace
  soon is_known hal; is_unknown carl; deliver hal 100; stat --format %u:%g:%a /var/spool/quillon/local/hal
  echo "ian:x:2000" | replace
  fails() { systemctl is-failed quillon-quota-sync.service; }; soon fails; is_known hal
  sed "s/^ian:.*/ian:x:20004:20000:::/" /etc/quillon/passwd >/etc/quillon/new; mv /etc/quillon/new /etc/quillon/passwd
  soon is_known ian; ! fails || exit 1'
shows "20003:20000:700"

echo "== nothing hinders the service, and nothing is left of it"
guest <<<'! journalctl --no-pager -u "quillon-quota-*" | grep -E "not permitted|not implemented|Read-only|Permission" || exit 1
  systemd-analyze security --no-pager quillon-quota-sync.service | tail -n 1
  apt-get purge -y quillon-tools; rm -r /etc/systemd/system/quillon-quota-sync.path.d
  ! systemctl list-units --all --no-legend "quillon-quota-*" | grep . || exit 1
  ! find /etc/systemd/system -name "quillon-*" | grep . || exit 1'

all_blocks_were_run
echo "== all is well"
