#!/bin/bash
# use_installed.sh PREFIX DOCUMENT WEB_USER: uses what is installed below PREFIX as a developer and an
# operator would, and nothing else of this project: does what DOCUMENT (docs/handlers.md) says, word for
# word. Its blocks "sh" are run in one shell; a block without a language that follows one at once is what it
# prints; every line of its blocks "cpp" is one of the example; each block "c++" is a module for itself. No
# environment variable tells where the libraries are.
set -euo pipefail
export LC_ALL=C
unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH https_proxy HTTPS_PROXY all_proxy ALL_PROXY

prefix=$1 web_user=$3
work=$(mktemp -d)
chmod 755 "$work"
finish() {
  if [ $? != 0 ] && [ -e "$work/printed" ]; then
    cat "$work/printed" >&2
    [ ! -e "$work/limit/mail.log" ] || cat "$work/limit/mail.log" >&2
  fi
  # shellcheck disable=SC2046 # process ids
  [ -z "$(jobs -p)" ] || { kill $(jobs -p); wait; }
  rm -rf "$work"
}
trap finish EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }
free_port() {
  local port
  while port=$((20000 + RANDOM % 20000)); (: <"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do :; done
  echo "$port"
}

# NUMBER.sh, NUMBER.out where it is known, all.cpp, and module-NUMBER.cc.
split_document() {
  awk -v work="$work" '
    /^```/ && file != "" { file = ""; if (is_command) after = NR + 1; is_command = 0; next }
    /^```sh$/ { number++; file = work "/" number ".sh"; is_command = 1; next }
    /^```cpp$/ { file = work "/all.cpp"; next }
    /^```c\+\+$/ { file = work "/module-" ++modules ".cc"; next }
    /^```$/ { file = NR == after ? work "/" number ".out" : "/dev/null"; next }
    file != "" { print >file }
    END { print number }' "$1"
}

blocks=$(split_document "$2")
[ "$blocks" -gt 10 ] || fail "only $blocks blocks of commands were found"
sed -i -e "s|^PREFIX=.*|PREFIX=$prefix|" -e "s|^PORT=.*|PORT=$(free_port)|" -e "s|^WEB_USER=.*|WEB_USER=$web_user|" \
  "$work"/*.sh

cd "$work"
for ((i = 1; i <= blocks; ++i)); do
  echo "== $(head -n 1 "$work/$i.sh")"
  # shellcheck disable=SC1090 # from the document
  source "$work/$i.sh" >"$work/printed" 2>&1  # not in a condition: it ends at the first failure
  [ ! -e "$work/$i.out" ] || diff "$work/$i.out" <(echo "$(<"$work/printed")") || fail "this is not what the document has (<)"
done

echo "== the document's pieces of the example"
while IFS= read -r line; do
  grep -qxF -- "$line" limit.cc main.cc || fail "the example has no line '$line'"
done <"$work/all.cpp"

echo "== the document's modules"
for module in "$work"/module-*.cc; do
  # shellcheck disable=SC2046 # options
  g++ -std=c++17 -Wall -Wextra -Werror -shared -fPIC "$module" $(pkg-config --cflags --libs mailserver-webapi) \
    -Wl,--no-undefined -o "${module%.cc}.so"
  nm --dynamic --defined-only "${module%.cc}.so" | grep ' QuillonRegisterHandlers$' >"$work/printed" || fail "$module registers nothing"
done
