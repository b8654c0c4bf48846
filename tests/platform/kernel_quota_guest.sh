#!/bin/busybox sh
# The first process of the virtual machine that kernel_quota_test.sh starts. Its last line says how it
# went.
/bin/busybox --install -s /bin
export PATH=/bin:/usr/sbin
mount -t devtmpfs devtmpfs /dev
mount -t proc proc /proc
exec >/dev/ttyS1 2>&1 </dev/null

failures=0
check() {  # WHAT EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then
    echo "ok: $1"
  else
    echo "FAILED: $1: expected [$2], got [$3]"
    failures=$((failures + 1))
  fi
}
finish() {
  if [ "$failures" = 0 ]; then
    echo "all quotas as expected"
  else
    cat /tmp/probe.log
    echo "$failures FAILED"
  fi
  exec >/dev/null 2>&1  # the port is closed when all of this has left it
  poweroff -f
}
stop() { echo "FAILED: $1"; failures=$((failures + 1)); finish; }
# The answers of a probe's steps in one line, and how it failed if it did. Starting a probe is what
# takes time here.
ask() {
  probe "$@" >/tmp/answers 2>>/tmp/probe.log || echo "exit status $?" >>/tmp/answers
  tr '\n' ' ' </tmp/answers | sed 's/ $//'
}

for module in /modules/*; do
  insmod "$module" || stop "cannot load $module"
done

# ann is in three groups besides her primary one, eve in none.
cat >/etc/passwd <<END
root:x:0:0::/:/bin/sh
ann:x:1001:2001::/:/bin/sh
bob:x:1002:2001::/:/bin/sh
carl:x:1003:2001::/:/bin/sh
dora:x:1004:2005::/:/bin/sh
eve:x:1005:2006::/:/bin/sh
END
cat >/etc/group <<END
root:x:0:
staff:x:2001:
sales:x:2002:ann,bob
support:x:2003:ann,bob
idle:x:2004:ann
small:x:2005:
alone:x:2006:
END
printf 'passwd: files\ngroup: files\n' >/etc/nsswitch.conf

mount_image() {  # TYPE NAME [OPTIONS]
  mkdir -p "/$2"
  mount -t "$1" -o "loop$3" "/$2.img" "/$2" || stop "cannot mount $2"
}
mount_image ext4 quotas ,usrquota,grpquota
mount_image ext4 users-only ,usrquota
mount_image ext4 none
mount_image xfs xfs ,usrquota,grpquota

# Soft and hard limit in units of 1024 bytes; the zeros are those of the number of files.
limit() {  # -u|-g NAME SOFT HARD [FOLDER]
  setquota "$1" "$2" "$3" "$4" 0 0 "${5:-/quotas}" || stop "cannot set the quota of $2"
}
limit -u ann 2000 3000
limit -u carl 2048 0
limit -u dora 0 10
limit -g sales 0 5000
limit -g support 6000 9216
limit -g small 0 1

mkdir /quotas/mail
check "a hard limit, rounded up; the largest of the groups; a soft limit; under a megabyte; none" \
  "3 9 2 1 0" \
  "$(ask /quotas/mail user=ann user=bob user=carl user=dora user=eve)"
check "a group's limit; one under a megabyte; none" "5 1 0" \
  "$(ask /quotas/mail group=sales group=small group=staff)"
check "without rights" "3 9 5" \
  "$(ask /quotas/mail euid=65534 user=ann user=bob group=sales euid=0)"

ann='{"name":"ann","support_share_quota":true}'
staff='{"name":"staff","support_share_quota":true,"subject_type":"group"}'
ann_without_limits='{"data":{"user_quota":[{"shares":[{"group_limit":0,"name":"Quillon","quota":0}],"support_share_quota":true}]},"success":true}'
no_user_quota='{"data":{"user_quota":[]},"success":true}'
no_group_quota='{"data":{"group_quota":[]},"success":true}'
check "the whole answers" \
  '{"data":{"user_quota":[{"shares":[{"group_limit":9,"name":"Quillon","quota":3}],"support_share_quota":true}]},"success":true} {"data":{"group_quota":[{"shares":[{"name":"Quillon","quota":0}],"support_share_quota":true}]},"success":true}' \
  "$(ask /quotas/mail api="$ann" api="$staff")"

check "a user's limit that changes between two calls" "3 6" \
  "$(ask /quotas user=ann run="setquota -u ann 0 6144 0 0 /quotas" user=ann)"
check "a group's limit that changes between two calls" "9 10 0" \
  "$(ask /quotas user=bob run="setquota -g sales 0 10240 0 0 /quotas" user=bob \
      run="setquota -g sales 0 0 0 0 /quotas" group=sales)"

# What is told is what holds: of 8 MB about 6, because the file system needs blocks of its own, too.
chmod 1777 /quotas/mail
su ann -c 'dd if=/dev/zero of=/quotas/mail/file bs=1k count=8192' 2>>/tmp/probe.log
sync
size=$(du -k /quotas/mail/file | cut -f 1)
echo "$size KiB could be written"
check "what can be written" "about 6 MB" \
  "$([ "$size" -gt 5632 ] && [ "$size" -lt 6656 ] && echo "about 6 MB")"

check "a file system with quotas of users only" "$ann_without_limits $no_group_quota" \
  "$(ask /users-only api="$ann" api="$staff")"
limit -u ann 0 3000 /xfs
limit -g sales 0 5000 /xfs
check "XFS: a hard limit; that of a group; none" "3 5 0 5 0" \
  "$(ask /xfs user=ann user=bob user=eve group=sales group=staff)"
umount /xfs
mount_image xfs xfs
check "XFS without its options" "$no_user_quota $no_group_quota" \
  "$(ask /xfs api="$ann" api="$staff")"
for place in /none / /proc; do
  check "$place, without quotas" "$no_user_quota $no_group_quota 0 0" \
    "$(ask $place api="$ann" api="$staff" user=ann group=sales)"
done

check "a missing root" "error 3008" "$(ask /no-such-root user=ann)"
mount -o remount,ro /quotas
check "quotas that are off while nothing can be written" "$no_user_quota $no_group_quota" \
  "$(ask /quotas api="$ann" api="$staff")"
umount /quotas
mount_image ext4 quotas
check "limits that are kept, but not enforced" "0 0" "$(ask /quotas user=ann group=support)"
check "what can be written then" "more" \
  "$(su ann -c 'dd if=/dev/zero of=/quotas/mail/more bs=1k count=2048' 2>>/tmp/probe.log && echo more)"
mount -o remount,ro /none
check "/none, read-only" "0 0" "$(ask /none user=ann group=sales)"
finish
