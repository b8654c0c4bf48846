"""Delivers mail over LMTP, as a mail server that has received it hands it to the one that keeps it.

usage: demo-deliver.py SOCKET FOLDER          all messages FOLDER/NAME/*.eml, to NAME each
       demo-deliver.py SOCKET NAME FILE       one message; prints the server's answer

Exit code 1 when a message of a folder was not taken: the answer is printed.
"""

import email
import pathlib
import signal
import smtplib
import sys


def deliver(server, name, file):
    """Answers what the server says, to the recipient when it refuses that one."""
    message = file.read_bytes()
    sender = email.message_from_bytes(message)["From"]
    server.mail(sender)
    code, text = server.rcpt(name)
    if code == 250:
        code, text = server.data(message)
    else:
        server.rset()
    return f"{code} {text.decode()}"


def deliver_all(server, folder):
    files = sorted(folder.glob("*/*.eml"), key=lambda file: file.name)
    shows_progress = sys.stdout.isatty()
    for done, file in enumerate(files, 1):
        answer = deliver(server, file.parent.name, file)
        if not answer.startswith("250 "):
            sys.exit(f"{file}: {answer}")
        if shows_progress:
            print(f"\r{done} of {len(files)} messages delivered", end="", flush=True)
    print("" if shows_progress else f"{len(files)} messages delivered")


def main():
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # ends without a trace
    path, *what = sys.argv[1:]
    server = smtplib.LMTP(path, local_hostname="demo.example")
    server.ehlo()  # which is LHLO here
    if len(what) == 1:
        deliver_all(server, pathlib.Path(what[0]))
    else:
        name, file = what
        print(deliver(server, name, pathlib.Path(file)))
    server.quit()


try:
    main()
except (OSError, smtplib.SMTPException) as error:
    sys.exit(f"{error}")
