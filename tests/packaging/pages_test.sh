#!/bin/bash
# pages_test.sh PAGES QUILLONCTL CONFIGURATION: the manual pages in the folder PAGES are well-formed and
# leave nothing out; the completion offers what there is.
set -euo pipefail
export LC_ALL=C.UTF-8

pages=$1 quillonctl=$2 configuration=$3
fail() { echo "FAILED: $*" >&2; exit 1; }
text_of() { groff -man -k -Tutf8 -P-c -rLL=1000n "$pages/$1" | sed 's/.\x08//g'; }

for page in quillonctl.1 quillon-webapid.8 mailserver.toml.5; do
  warnings=$(groff -man -ww -k -Tutf8 -z "$pages/$page" 2>&1)
  [ -z "$warnings" ] || fail "$page: $warnings"
done

manual=$(text_of quillonctl.1)
for command in "user import-quota" "group share-quota" "no-owner remove" "host batch" token; do
  grep -q "^ *quillonctl $command " <<<"$manual" || fail "quillonctl.1 has no $command"
  while read -r option; do
    grep -q -e "$option" <<<"$manual" || fail "quillonctl.1 has no $option of $command"
  done < <("$quillonctl" $command --help | grep -o -e '--[a-z-]*')
done

keys=$(text_of mailserver.toml.5)
while read -r setting; do
  grep -q -F "$setting" <<<"$keys" || fail "mailserver.toml.5 has no $setting"
done < <(sed -n 's/^#\([a-z_]* = .*\)/\1/p' "$configuration")

source "$pages/quillonctl.bash"
completes() {  # LINE WANTED...: the last word of the line is being typed
  local wanted="${*:2}"
  IFS=' ' read -ra COMP_WORDS <<<"$1"
  [[ $1 != *' ' ]] || COMP_WORDS+=("")
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMPREPLY=()
  _quillonctl
  [ "${COMPREPLY[*]}" = "$wanted" ] || fail "completion of '$1': '${COMPREPLY[*]}', not '$wanted'"
}
completes "quillonctl us" user usage
completes "quillonctl user set" set-quota
completes "quillonctl user list --s" --sort
completes "quillonctl user list --sort per" percent
completes "quillonctl user list alice --rev" --reverse
completes "quillonctl --host mail2 user cl" clear-quota clear-storage
completes "quillonctl user list --acc" --account
completes "quillonctl --account user us" user usage
completes "quillonctl user list --above "
cd "$pages"
completes "quillonctl --config quillonctl.b" quillonctl.bash
