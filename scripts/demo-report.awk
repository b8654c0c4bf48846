# Makes the report of "quillonctl user list" by hand, but for its head and the blanks between its columns,
# from lines of name, limit, warning and usage in bytes, with "-" for what is not there.

function size(bytes,    unit) {
  if (bytes == "-") return bytes
  unit = 1
  while (unit < 4 && int(bytes * 10 + 0.5) >= 10240) { bytes /= 1024; unit++ }
  return sprintf(bytes == int(bytes) ? "%d" : "%.1f", bytes) substr("BKMG", unit, 1)
}

function bar(percent,    text, i) {
  for (i = 10; i <= 100; i += 10) text = text (percent >= i ? "#" : ".")
  return "[" text "]"
}

{
  percent = $2 == "-" ? "" : $4 * 100 / $2
  print $1, size($2), size($3), size($4), percent == "" ? "-" : sprintf("%.1f%% %s", percent, bar(percent))
  total += $4
}

END { print NR, NR == 1 ? "user," : "users,", size(total), "used" }
