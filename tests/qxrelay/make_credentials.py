#!/usr/bin/env python3
"""Makes keys and tokens of an operator, an account and a user for a test's server: make_credentials.py DIRECTORY [SUBJECT...]

Writes DIRECTORY/server.conf, which a server includes, and DIRECTORY/user.creds, with which a client connects. The user
may publish to the given subjects; without any, to all. openssl makes and uses the keys; nothing of them outlives the test.
"""
import base64
import json
import pathlib
import subprocess
import sys
import time

OPERATOR, ACCOUNT, USER, SEED = (14 << 3, 0, 20 << 3, 18 << 3)  # the first byte of a key
UNLIMITED = -1


def openssl(*arguments, data=b""):
    return subprocess.run(["openssl", *arguments], input=data, capture_output=True, check=True).stdout


def encoded(payload):
    """The bytes with a checksum (CRC-16/XMODEM), in base32."""
    crc = 0
    for byte in payload:
        crc ^= byte << 8
        for _ in range(8):
            crc = (crc << 1 ^ 0x1021 if crc & 0x8000 else crc << 1) & 0xFFFF
    return base64.b32encode(payload + crc.to_bytes(2, "little")).decode().rstrip("=")


class Key:
    def __init__(self, directory, name, kind):
        self.file = directory / f"{name}.key"
        private = openssl("genpkey", "-algorithm", "ed25519", "-outform", "DER")
        self.file.write_bytes(openssl("pkey", "-inform", "DER", data=private))
        public = openssl("pkey", "-inform", "DER", "-pubout", "-outform", "DER", data=private)
        self.public = encoded(bytes([kind]) + public[-32:])
        self.seed = encoded(bytes([SEED | kind >> 5, (kind & 31) << 3]) + private[-32:])

    def sign(self, text):
        message = self.file.with_suffix(".message")
        message.write_bytes(text)
        return openssl("pkeyutl", "-sign", "-rawin", "-inkey", str(self.file), "-in", str(message))


def part(data):
    return base64.urlsafe_b64encode(data).rstrip(b"=")


def token(issuer, subject, name, claims):
    body = {"jti": name, "iat": int(time.time()), "iss": issuer.public, "sub": subject.public, "name": name,
            "nats": {**claims, "version": 2}}
    text = part(b'{"typ":"JWT","alg":"ed25519-nkey"}') + b"." + part(json.dumps(body).encode())
    return (text + b"." + part(issuer.sign(text))).decode()


def account_claims():
    limits = dict.fromkeys(["subs", "conn", "leaf", "imports", "exports", "data", "payload", "mem_storage",
                            "disk_storage", "streams", "consumer"], UNLIMITED)
    return {"type": "account", "limits": {**limits, "wildcards": True}}


def main():
    directory = pathlib.Path(sys.argv[1])
    operator, system = Key(directory, "operator", OPERATOR), Key(directory, "system", ACCOUNT)
    account, user = Key(directory, "account", ACCOUNT), Key(directory, "user", USER)
    (directory / "operator.jwt").write_text(token(operator, operator, "operator", {"type": "operator"}))
    system_token = token(operator, system, "SYS", {"type": "account"})
    account_token = token(operator, account, "QX", account_claims())
    publish = {"allow": sys.argv[2:]} if sys.argv[2:] else {}
    claims = {"type": "user", "pub": publish, "sub": {}, "subs": UNLIMITED, "data": UNLIMITED, "payload": UNLIMITED}
    user_token = token(account, user, "host", claims)
    (directory / "server.conf").write_text(
        f'operator: "{directory}/operator.jwt"\nsystem_account: {system.public}\nresolver: MEMORY\n'
        f"resolver_preload: {{\n  {system.public}: {system_token}\n  {account.public}: {account_token}\n}}\n")
    (directory / "user.creds").write_text(
        f"-----BEGIN NATS USER JWT-----\n{user_token}\n------END NATS USER JWT------\n\n"
        f"-----BEGIN USER NKEY SEED-----\n{user.seed}\n------END USER NKEY SEED------\n")


if __name__ == "__main__":
    main()
