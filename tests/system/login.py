#!/usr/bin/python3
"""Logs in to a host as docs/webapi.md says, with nothing of this system.

usage: login.py URL CERTIFICATE ACCOUNT

The password is read from standard input. Prints a JSON object: "answer" is the data of the last
answer, "finish" the body of the last call. Exit code 1: "STATUS BODY" of a refusal is printed.
"""

import base64
import hashlib
import hmac
import json
import secrets
import ssl
import sys
import urllib.error
import urllib.request

FEWEST_ITERATIONS = 4096


class Refused(Exception):
    pass


class Host:
    def __init__(self, url, certificate):
        self.url = url
        self.opener = urllib.request.build_opener(
            urllib.request.ProxyHandler({}),
            urllib.request.HTTPSHandler(context=ssl.create_default_context(cafile=certificate)),
        )

    def post(self, call):
        request = urllib.request.Request(
            self.url, json.dumps(call).encode(), {"Content-Type": "application/json"}
        )
        try:
            with self.opener.open(request, timeout=20) as answer:
                envelope = json.load(answer)
        except urllib.error.HTTPError as error:
            raise Refused(f"{error.code} {error.read().decode()}") from None
        if envelope["success"] is not True:
            raise Refused(f"200 {envelope}")
        return envelope["data"]


def encode(message):
    return base64.b64encode(message.encode()).decode()


def decode(message):
    text = base64.b64decode(message, validate=True).decode()
    return dict(field.split("=", 1) for field in text.split(",")), text


def mac(key, text):
    return hmac.digest(key, text.encode(), "sha256")


def call(method, params):
    return {"api": "VELA.Core.Login", "version": 1, "method": method, "params": params}


def log_in(host, account, password):
    nonce = secrets.token_urlsafe(18)
    name = account.replace("=", "=3D").replace(",", "=2C")
    first = f"n={name},r={nonce}"
    started = host.post(call("start", {"message": encode("n,," + first)}))

    challenge, server_first = decode(started["message"])
    iterations = int(challenge["i"])
    if not challenge["r"].startswith(nonce) or iterations < FEWEST_ITERATIONS:
        sys.exit("the host does not play by the rules")
    salt = base64.b64decode(challenge["s"], validate=True)
    salted = hashlib.pbkdf2_hmac("sha256", password.encode(), salt, iterations)
    last = "c=biws,r=" + challenge["r"]
    everything = ",".join([first, server_first, last])
    client_key = mac(salted, "Client Key")
    signature = mac(hashlib.sha256(client_key).digest(), everything)
    proof = bytes(a ^ b for a, b in zip(client_key, signature))
    final = f"{last},p={base64.b64encode(proof).decode()}"
    finish = call("finish", {"login": started["login"], "message": encode(final)})
    answer = host.post(finish)

    verdict, _ = decode(answer["message"])
    expected = mac(mac(salted, "Server Key"), everything)
    if not hmac.compare_digest(base64.b64decode(verdict["v"], validate=True), expected):
        sys.exit("the host does not know the account")
    return {"answer": answer, "finish": finish}


def main():
    url, certificate, account = sys.argv[1:]
    password = sys.stdin.readline().rstrip("\n")
    try:
        print(json.dumps(log_in(Host(url, certificate), account, password)))
    except Refused as refusal:
        print(refusal)
        sys.exit(1)


main()
