#!/bin/bash
# install_test.sh CMAKE BUILD SOURCE: installs the build into a tree of its own, at a prefix of its own,
# and uses it there.
set -euo pipefail
export LC_ALL=C

cmake=$1 build=$2 source=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAILED: $*" >&2; exit 1; }

DESTDIR=$work/tree "$cmake" --install "$build" --prefix /opt/quillon >/dev/null
prefix=$work/tree/opt/quillon

echo "== nothing in it names the folders of the build"
! grep -rIl -e "$build" -e "$source" "$prefix" || fail "these texts do"
while read -r file; do
  paths=$(readelf -d "$file" | sed -n 's/.*R\(UN\)\?PATH.*\[\(.*\)\]/\2/p')
  [[ $paths =~ ^(\$ORIGIN[a-z0-9_/.-]*)?$ ]] || fail "$file looks for libraries in $paths"
done < <(find "$prefix" -type f \( -name '*.so*' -o -perm /111 \))

echo "== the libraries have names and versions"
for library in libmailserver-webapi libquillon-platform; do
  file=$(realpath "$prefix"/lib*/$library.so)
  [[ $file =~ \.so\.[0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "$file has no version"
  readelf -d "$file" | grep -q "SONAME.*\[$library\.so\.0\]" || fail "$file has another SONAME"
done
[ -e "$(dirname "$file")/libquillon-quota-postgresql.so" ] || fail "the module for PostgreSQL is missing"

echo "== the headers need nothing but each other"
(cd "$prefix/include" && find . -name '*.h' -printf '#include <%P>\n') >"$work/all.cc"
g++ -std=c++17 -fsyntax-only -Wall -Werror -I "$prefix/include" -isystem /usr/include/jsoncpp "$work/all.cc"

"$(dirname "$0")/use_installed.sh" "$prefix" "$source/docs/handlers.md" nobody
