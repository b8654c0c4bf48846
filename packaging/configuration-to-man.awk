# mailserver.toml as the manual page's list of keys: the comment above a group of keys is their text.
function escape(text) {
  gsub(/\\/, "\\e", text)
  gsub(/-/, "\\-", text)
  return text
}
function flush_group(    i) {
  for (i = 1; i <= keys; i++) {
    print (i == 1 ? ".TP" : ".TQ") "\n\\fB" escape(key[i]) "\\fR = " escape(value[i])
  }
  if (keys > 0) {
    printf "%s", text
  }
  keys = 0
  text = ""
}
/^\[/ { is_table = 1; print ".SS " $0; next }
!is_table { next }
/^$/ { flush_group(); next }
/^#[a-z_]+ = / {
  keys++
  key[keys] = substr($1, 2)
  value[keys] = substr($0, index($0, " = ") + 3)
  next
}
/^# / { text = text escape(substr($0, 3)) "\n"; next }
{ print "configuration-to-man.awk: what is this: " $0 > "/dev/stderr"; exit 1 }
END { flush_group() }
