# One --help text as a part of a manual page: a section of its own, or with -v options_only=1 the options.
function escape(text) {
  gsub(/\\/, "\\e", text)
  gsub(/-/, "\\-", text)
  sub(/^[.']/, "\\\\\\&&", text)
  return text
}
# "--sort TEXT:{a,b}=a" → bold option, the rest in italics
function entry(text,    names, rest) {
  names = text
  sub(/ .*/, "", names)
  rest = substr(text, length(names) + 2)
  sub(/ Excludes:.*/, "", rest)
  sub(/ ?REQUIRED$/, "", rest)
  sub(/^:/, "", rest)
  sub(/^TEXT:/, "", rest)
  gsub(/,/, ", ", names)
  print ".TP\n\\fB" escape(names) "\\fR" (rest == "" ? "" : " \\fI" escape(rest) "\\fR")
}
NR == 1 { summary = $0; next }
/^Usage: / {
  usage = substr($0, 8)
  if (!options_only) {
    print ".SS " escape(usage) "\n" escape(summary) "."
  }
  next
}
/^(Options|Positionals):$/ { section = $1; next }
/^Subcommands:$/ { section = ""; next }
/^Example: / && !options_only { section = ""; print ".PP\nExample:\n.PP\n.RS\n.B " escape(substr($0, 10)) "\n.RE"; next }
/^$/ { next }
# What every command has is told once.
section == "" || /^Example: / || /-h,--help/ && !options_only { next }
/^  [^ ]/ {
  text = substr($0, 3)
  if (match(text, /  +/)) {
    description = substr(text, RSTART + RLENGTH)
    entry(substr(text, 1, RSTART - 1))
    print escape(description)
  } else {
    entry(text)
  }
  next
}
{ sub(/^ +/, ""); print escape($0) }
