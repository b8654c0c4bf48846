# Writes mailboxes of generated messages as maildirs.
#   awk -v root=FOLDER -v now=EPOCH [-v is_on_its_way=1] -f demo-mail.awk ACCOUNTS
# ACCOUNTS is a file in passwd format; the mail of each of its users goes to FOLDER/NAME, whose folders
# exist already. Mail on its way is a file for each message, which a mail server has yet to put there. The
# same accounts give the same messages.

function pick(list) { return list[1 + int(rand() * list[0])] }

function words_of(text, list,    n) { n = split(text, list, " "); list[0] = n }

function sentence(    text, n) {
  text = pick(words)
  text = toupper(substr(text, 1, 1)) substr(text, 2)
  for (n = 4 + int(rand() * 9); n > 0; n--) text = text " " pick(words)
  return text "."
}

# Lines of at most 72 characters, ended as on the wire.
function paragraph(    text, line, i, n, parts) {
  for (i = 2 + int(rand() * 4); i > 0; i--) text = text " " sentence()
  n = split(text, parts, " ")
  text = ""
  for (i = 1; i <= n; i++) {
    if (length(line) + length(parts[i]) > 71) { text = text line "\r\n"; line = "" }
    line = line (line == "" ? "" : " ") parts[i]
  }
  return text line "\r\n\r\n"
}

function attachment(lines,    text, i) {
  for (i = 0; i < lines; i++) text = text substr(base64, 1 + int(rand() * 64), 76) "\r\n"
  return text
}

function message(to, when, number,    from, text, boundary, i) {
  from = pick(people)
  while (from == to) from = pick(people)
  text = (is_on_its_way ? "" : "Return-Path: <" address(from) ">\r\n") \
    "Date: " strftime("%a, %d %b %Y %H:%M:%S +0000", when, 1) "\r\n" \
    "From: " address(from) "\r\n" \
    "To: " address(to) "\r\n" \
    "Subject: " substr(sentence(), 1, 60) "\r\n" \
    "Message-ID: <" when "." number "@demo.example>\r\n" \
    "MIME-Version: 1.0\r\n"
  if (rand() < 0.7) {
    text = text "Content-Type: text/plain; charset=utf-8\r\n\r\n"
    for (i = 1 + int(rand() * 6); i > 0; i--) text = text paragraph()
    return text
  }
  boundary = "=_" when "_" number
  text = text "Content-Type: multipart/mixed; boundary=\"" boundary "\"\r\n\r\n" \
    "--" boundary "\r\nContent-Type: text/plain; charset=utf-8\r\n\r\n" paragraph() \
    "--" boundary "\r\nContent-Type: application/octet-stream; name=\"report.bin\"\r\n" \
    "Content-Transfer-Encoding: base64\r\nContent-Disposition: attachment; filename=\"report.bin\"\r\n\r\n"
  return text attachment(20 + int(rand() * 900)) "--" boundary "--\r\n"
}

# Letters beyond ASCII have no place in an address without an extension.
function address(name,    text) {
  text = tolower(name)
  gsub(/[^a-z0-9.-]+/, "-", text)
  return text "@demo.example"
}

function deliver(name, folder, number,    when, text, is_read, path) {
  when = now - int(rand() * 200) * 86400 - int(rand() * 86400)
  text = message(name, when, number)
  is_read = rand() < 0.8
  path = root "/" name "/"
  if (is_on_its_way) path = path (100000 + number) ".eml"
  else path = path folder (is_read ? "cur/" : "new/") when ".M" (100000 + number) "P1.demo,S=" \
    length(text) (is_read ? ":2,S" : "")
  printf "%s", text > path
  close(path)
}

BEGIN {
  FS = ":"
  srand(7)
  words_of("the quarterly figures arrive before noon and nobody asked for another meeting about them " \
           "please read attached draft send comments until friday our server moves next week expect " \
           "short pauses while mail keeps flowing lunch is at one bring your own plans budget travel " \
           "report customer contract answer question thanks regards team project release version", words)
  for (i = 0; i < 160; i++) base64 = base64 substr("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", \
                                                   1 + int(rand() * 64), 1)
}

{ people[++people[0]] = $1 }

END {
  for (p = 1; p <= people[0]; p++) {
    count = 3 + int(rand() * rand() * 60)
    for (n = 1; n <= count; n++) deliver(people[p], rand() < 0.3 ? ".Archive/" : "", ++total)
  }
  print total
}
