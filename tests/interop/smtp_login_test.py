"""Every login method against Exim, whose DIGEST-MD5 is that of Cyrus SASL.

    smtp_login_test.py SMTP_LOGIN [COUNT]

COUNT accounts with long passwords measure how often the shortened digest of CRAM-MD5, and the
digest of DIGEST-MD5, make a login fail.
"""

import os
import random
import string
import subprocess
import sys

import servers

OK, AUTH, METHOD, CA_REFUSED = "00000000", "51071102", "51073201", "51074804"


def log_in(program, server, port, accounts, tls=0, trusted=True):
    ca = server.path("ca.pem") if trusted else os.devnull
    environment = dict(os.environ, SSL_CERT_FILE=ca, SSL_CERT_DIR=os.devnull, TAV_DBGLOG="stderr")
    text = "".join(f"{user}\t{password}\n" for user, password in accounts)
    done = subprocess.run([program, "localhost", str(port), str(tls)], input=text.encode(),
                          capture_output=True, env=environment, timeout=1200)
    for _, password in accounts:
        assert password.encode() not in done.stderr, "a password in the log"
    return done.stdout.decode().split()


def random_password(length):
    return "".join(random.choices(string.ascii_letters + string.digits, k=length))


def check_methods(program, server):
    for method in servers.Exim.METHODS:
        for tls in 0, 2:
            port = server.ports[method]
            codes = log_in(program, server, port, [("anna", "geheim 1"), ("anna", "falsch")], tls)
            assert codes == [OK, AUTH], (method, tls, codes)
            print(f"{method}{' under STARTTLS' if tls else ''}: right password in, wrong one out")
    # All methods announced: a wrong password fails with every one of them, on a connection each.
    codes = log_in(program, server, server.ports["ALL"], [("anna", "geheim 1"), ("anna", "falsch")])
    assert codes == [OK, AUTH], codes
    with open(server.path("mainlog")) as file:
        tried = [line for line in file if "Incorrect authentication data" in line][-4:]
    names = [line.split(" authenticator failed")[0].split()[-1] for line in tried]
    assert names == ["cram", "digest", "plain", "login"], names
    print("all announced: tried in the order", ", ".join(names))
    codes = log_in(program, server, server.ports["ALL"], [("anna", "geheim 1")], 2, trusted=False)
    assert codes == [CA_REFUSED], codes
    print("certificate of an unknown issuer: refused")


def measure(program, server, method, accounts):
    codes = log_in(program, server, server.ports[method], accounts)
    failed = [account for account, code in zip(accounts, codes) if code != OK]
    assert all(code in (OK, AUTH) for code in codes), set(codes)
    share = 100 * len(failed) / len(accounts)
    print(f"{method}: {len(failed)} of {len(accounts)} right passwords refused ({share:.1f} %)")
    return failed


def main():
    servers.need("/usr/sbin/exim4", "saslpasswd2")
    program = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 0
    random.seed(11)
    long_accounts = [(f"user{i}", random_password(65 + i % 30)) for i in range(count)]
    with servers.Exim([("anna", "geheim 1")] + long_accounts) as server:
        check_methods(program, server)
        if count:
            measure(program, server, "CRAM-MD5", long_accounts)
            measure(program, server, "DIGEST-MD5", long_accounts)


main()
