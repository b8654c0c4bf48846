#!/bin/bash
# use_installed.sh PREFIX EXAMPLE WEB_USER: uses what is installed below PREFIX as a developer and an
# operator would, and nothing else of this project: builds the folder EXAMPLE against it, runs the
# program, and calls the module in the installed web server, over TLS. No environment variable tells
# where the libraries are.
set -euo pipefail
export LC_ALL=C
unset LD_LIBRARY_PATH

prefix=$1 web_user=$3
work=$(mktemp -d)
server=
finish() {
  [ -z "$server" ] || { kill "$server"; wait "$server" || true; }
  rm -rf "$work"
}
trap finish EXIT
fail() { echo "FAILED: $*" >&2; [ ! -e "$work/mail.log" ] || cat "$work/mail.log" >&2; exit 1; }
expect() {  # WANTED GOT WHAT
  [ "$1" = "$2" ] || fail "$3: expected '$1', got '$2'"
}
free_port() {
  local port
  while port=$((20000 + RANDOM % 20000)); (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
  echo "$port"
}

echo "== the example, with CMake"
cp -r "$2" "$work/example"
export PKG_CONFIG_PATH CMAKE_PREFIX_PATH=$prefix
cmake -S "$work/example" -B "$work/build" >/dev/null
cmake --build "$work/build" >/dev/null

echo "== the example, with pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix/lib" -name mailserver-webapi.pc)")
read -ra flags <<<"$(pkg-config --cflags --libs mailserver-webapi)"
g++ -std=c++17 "$work"/example/*.cc "${flags[@]}" \
  -Wl,-rpath,"$(pkg-config --variable=libdir mailserver-webapi)" -o "$work/by-pkg-config"

port=$(free_port)
mkdir -m 755 "$work/handlers"
printf '%s\n' ann:x:1001:1001::/:/bin/false bob:x:1002:1001::/:/bin/false >"$work/passwd"
echo mail-users:x:1001: >"$work/group"
cat >"$work/mailserver.toml" <<EOF
[accounts]
passwd_file = "$work/passwd"
group_file = "$work/group"
privileges_file = "$work/privileges"
[quota]
store = "sqlite://$work/quota.db"
[cluster]
trusted_hosts = "$work/trusted-hosts"
[web]
address = "127.0.0.1"
https_port = $port
state_folder = "$work/state"
accounts_file = "$work/web-accounts"
user = "$web_user"
handlers_folder = "$work/handlers"
[log]
target = "file"
file = "$work/mail.log"
EOF
chmod go-w "$work/mailserver.toml"
touch "$work/mail.log"
ctl() { "$prefix/bin/quillonctl" --config "$work/mailserver.toml" "$@"; }

echo "== the program"
ctl user set-quota --limit 2M --warning 1M ann >/dev/null
ctl user set-quota --limit 3M --warning 1M bob >/dev/null
for program in "$work/build/mail-limit" "$work/by-pkg-config"; do
  expect "bob: 3145728" "$("$program" "$work/mailserver.toml" ann BOB)" "the answer of $program"
  ! "$program" "$work/mailserver.toml" carl 2>/dev/null || fail "$program does not know carl"
done

echo "== the module, in the web server"
install -m 644 "$work/build/limit.so" "$work/handlers"
(umask 077 && echo 'correct horse battery' >"$work/password")
ctl account add --role admin --password-stdin boss <"$work/password" >/dev/null
"$prefix/sbin/quillon-webapid" --config "$work/mailserver.toml" &
server=$!
for _ in $(seq 200); do
  ! (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
  kill -0 "$server" 2>/dev/null || fail "the web server has ended"
  sleep 0.05
done
ctl host trust --yes "127.0.0.1:$port" >/dev/null
answer=$(ctl host call "127.0.0.1:$port" Example.MailServer.Limit largest \
  --params '{"names":["ann","bob"]}' --account boss --password-file "$work/password")
expect '{"data":{"limit":3145728,"name":"bob"},"success":true}' \
  "$(tr -d ' \n\t' <<<"$answer")" "the answer of the module"
