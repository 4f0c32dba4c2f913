"""Further POP3 servers, each with a port for every TLS mode that it can do.

    with Courier([("anna", "geheim 1")]) as server:
        server.deliver(mail)
        server.port("stls"), server.reason("stls", "APOP"), server.mails()
"""

import os
import re
import socket
import subprocess
import sys
import time

import servers
import unpacked

METHODS = ("USER/PASS", "APOP")
MODES = ("plain", "stls", "tls")
FIRST_UID = 64100


def unix_lines(mail):
    """As servers keep mails: they send every line with the end that POP3 asks for."""
    return mail.replace(b"\r\n", b"\n")


class Pop3Server(unpacked.Offer):
    """What a client needs to know of a POP3 server."""

    def port(self, mode):
        return self.ports["TLS" if mode == "tls" else "PLAIN"]

    def wait_until_left(self, count, user=None, seconds=10):
        """The mails, as soon as there are only that many: some delete after the reply to QUIT."""
        deadline = time.monotonic() + seconds
        while len(self.mails(user)) > count:
            if time.monotonic() > deadline:
                raise RuntimeError(f"not deleted: {len(self.mails(user))} mails, not {count}")
            time.sleep(0.05)
        return self.mails(user)


class Dovecot(Pop3Server, servers.Dovecot):
    """Dovecot as for the other tests."""

    NAME = "Dovecot"
    PACKAGES = ("dovecot-pop3d",)
    capabilities = dict.fromkeys(MODES, METHODS)

    def __init__(self, accounts):
        if os.geteuid() != 0 or not os.path.exists("/usr/sbin/dovecot"):
            raise unpacked.Unavailable("Dovecot: needs root and dovecot-pop3d")
        super().__init__(accounts)


class MaildirServer(unpacked.UnpackedServer, Pop3Server):
    """A server that finds the mails of an account in /var/vmail/ACCOUNT/Maildir."""

    def __init__(self, accounts):
        super().__init__()
        self.users = [user for user, _ in accounts]
        self.delivered = 0
        self.ports = dict(zip(("PLAIN", "TLS"), servers.free_ports(2)))
        servers.make_certificates(self.folder)
        self.place_folder("/var/vmail")
        for user in self.users:
            for name in "", "Maildir", "Maildir/new", "Maildir/cur", "Maildir/tmp":
                folder = self.path("data/var/vmail", user, name)
                os.mkdir(folder)
                os.chown(folder, self.uid(user), self.uid(user))

    def uid(self, user=None):
        return FIRST_UID + self.users.index(user or self.users[0])

    def add_accounts(self, accounts):
        """Makes the accounts accounts of the machine, with a PAM that looks at nothing else."""
        for user, password in accounts:
            self.add_user(user, self.uid(user), f"/var/vmail/{user}", password)

    def place_pam(self, service):
        self.place(f"/etc/pam.d/{service}", "auth required pam_unix.so nodelay\n"
                   "account required pam_unix.so\nsession required pam_permit.so\n")

    def maildir(self, user=None):
        return self.path("data/var/vmail", user or self.users[0], "Maildir")

    def deliver(self, mail, user=None):
        """Puts a mail into the Maildir, with its line ends as Unix has them."""
        self.delivered += 1
        name = f"{int(time.time())}.M{self.delivered:06}P{os.getpid()}.localhost"
        waiting = os.path.join(self.maildir(user), "tmp", name)
        with open(waiting, "wb") as file:
            file.write(unix_lines(mail))
        os.chown(waiting, self.uid(user), self.uid(user))
        os.rename(waiting, os.path.join(self.maildir(user), "new", name))

    def mails(self, user=None):
        """What is left in the Maildir, oldest first."""
        return servers.read_mails(self.maildir(user))

    def clear(self, user=None):
        for path in servers.maildir_paths(self.maildir(user)):
            os.remove(path)


class Courier(MaildirServer):
    """Courier's pop3d, which asks courier-authdaemon for the accounts of a userdb."""

    NAME = "Courier"
    PACKAGES = ("courier-pop", "courier-authlib-userdb")
    capabilities = dict.fromkeys(MODES, ("USER/PASS",))
    REASONS = {"APOP": "Courier's pop3d has no APOP: its greeting holds no stamp"}
    UID = 64031
    # A refused login is answered after this many seconds.
    REFUSAL_SECONDS = 5

    def __init__(self, accounts):
        super().__init__(accounts)
        self.add_user("courier", self.UID)
        folder = self.place_folder("/etc/courier")
        for name, text in (("userdb", self.userdb(accounts)),
                           ("authdaemonrc", 'authmodulelist="authuserdb"\ndaemons=2\n'
                            'authdaemonvar=/run/courier/authdaemon\nDEBUG_LOGIN=0\n')):
            with open(os.path.join(folder, name), "w") as file:
                file.write(text)
            os.chmod(file.name, 0o600)
        with open(os.path.join(folder, "pop3d.pem"), "wb") as file:
            for name in "server.key", "server.pem":
                with open(self.path(name), "rb") as part:
                    file.write(part.read())
        os.chmod(file.name, 0o600)
        os.chown(file.name, self.UID, self.UID)
        self.place("/usr/lib/courier/all", self.script(), 0o755)
        self.start(["/usr/lib/courier/all"], *self.ports.values())

    def userdb(self, accounts):
        return "".join(f"{user}\tuid={self.uid(user)}|gid={self.uid(user)}|home=/var/vmail/{user}|"
                       f"shell=/bin/sh|systempw={unpacked.encrypted(password)}\n"
                       for user, password in accounts)

    def script(self):
        listener = ("couriertcpd -address=127.0.0.1 -maxprocs=100 -maxperip=100 -nodnslookup "
                    "-noidentlookup")
        pop3 = ("/usr/lib/courier/courier/courierpop3login /usr/lib/courier/courier/courierpop3d "
                "Maildir")
        return f"""#!/bin/sh
set -e
mkdir -p /run/courier/authdaemon
chown -R courier:courier /run/courier
makeuserdb
/usr/lib/courier/courier-authlib/authdaemond &
until [ -S /run/courier/authdaemon/socket ]; do sleep 0.05; done
export POP3AUTH= POP3AUTH_TLS= POP3_PROXY=0 MAILDIRPATH=Maildir COURIERTLS=/usr/bin/couriertls
export TLS_CERTFILE=/etc/courier/pop3d.pem TLS_VERIFYPEER=NONE POP3_TLS_REQUIRED=0
POP3_STARTTLS=YES {listener} {self.ports['PLAIN']} {pop3} &
POP3_STARTTLS=NO POP3_TLS=1 {listener} {self.ports['TLS']} \\
    /usr/bin/couriertls -server -tcpd -user=courier {pop3} &
wait
"""


class Mailutils(MaildirServer):
    """GNU mailutils' pop3d. It takes the passwords of APOP from a database of its own."""

    NAME = "mailutils"
    PACKAGES = ("mailutils-pop3d",)
    capabilities = dict.fromkeys(MODES, METHODS)

    def __init__(self, accounts):
        super().__init__(accounts)
        self.add_accounts(accounts)
        self.place_pam("pop3d")
        os.chmod(self.path("server.key"), 0o600)
        self.place_folder("/var/apop", 0, 0o700)
        self.place("/etc/pop3d.conf", self.configuration())
        for user, password in accounts:
            # Not with --create: pop3d finds no key that this has made.
            self.run_inside("popauth", "--add", f"--user={user}", f"--password={password}",
                            "--file=/var/apop/passwords")
        self.start(["pop3d", "--config-file=/etc/pop3d.conf"], *self.ports.values())

    def configuration(self):
        return f"""
mode daemon;
foreground yes;
max-children 100;
logging {{ syslog no; }}
mailbox {{ mailbox-pattern "maildir:/var/vmail/${{user}}/Maildir"; }}
auth {{ authentication clear; authentication pam; authorization clear; authorization system; }}
pam {{ service pop3d; }}
apop-database-file "/var/apop/passwords";
mandatory-locking {{ enable no; }}
locking {{ type null; }}
apop-database-owner root;
apop-database-safety none;
tls-file-checks {{ key-file none; cert-file none; ca-file none; }}
tls {{
  ssl-certificate-file {self.path('server.pem')};
  ssl-key-file {self.path('server.key')};
}}
server 127.0.0.1:{self.ports['PLAIN']} {{ tls-mode ondemand; }}
server 127.0.0.1:{self.ports['TLS']} {{ tls-mode connection; }}
"""


class InetdServer(MaildirServer):
    """A server that speaks with one client, and is started for each by something else."""

    def __init__(self, accounts, program):
        super().__init__(accounts)
        self.add_accounts(accounts)
        self.place_pam(os.path.basename(program))
        self.prepare(accounts)
        # Outside of the packages' layers, and so the same file inside.
        self.start([sys.executable, "-B", os.path.abspath(__file__), str(self.ports["PLAIN"]),
                    program], self.ports["PLAIN"])

    def prepare(self, accounts):
        """Places what else the server needs."""


class SolidPop3(InetdServer):
    """Solid POP3, which takes the secret of APOP from a file in the home of the account. It numbers
    the mails as the folder lists them, not by their age."""

    NAME = "Solid POP3"
    PACKAGES = ("solid-pop3d",)
    capabilities = {"plain": METHODS}
    REASONS = {"stls": "Solid POP3 has no TLS and no CAPA", "tls": "Solid POP3 has no TLS"}

    def __init__(self, accounts):
        super().__init__(accounts, "/usr/sbin/solid-pop3d")

    def prepare(self, accounts):
        self.add_user("spop3d", 64032)
        self.place("/etc/spop3d.conf", """<Global>
  MailDropName "Maildir"
  MailDropType maildir
  LogStatistics no
</Global>
""")
        for user, password in accounts:
            self.run_inside("setsid", "--wait", "setpriv", f"--reuid={self.uid(user)}",
                            f"--regid={self.uid(user)}", "--clear-groups", "pop_auth",
                            data=f"{password}\n{password}\n")


class Popa3d(InetdServer):
    """popa3d, which has every account's mails in one file of the mbox format."""

    NAME = "popa3d"
    PACKAGES = ("popa3d",)
    capabilities = {"plain": ("USER/PASS",)}
    REASONS = {"stls": "popa3d has no TLS and no CAPA", "tls": "popa3d has no TLS",
               "APOP": "popa3d has no APOP: its greeting holds no stamp"}

    def __init__(self, accounts):
        super().__init__(accounts, "/usr/sbin/popa3d")

    def prepare(self, accounts):
        self.add_user("popa3d", 64033)
        self.place_folder("/var/lib/popa3d")
        self.place_folder("/var/mail", 0, 0o1777)
        self.clear(*self.users)

    def mailbox(self, user=None):
        return self.path("data/var/mail", user or self.users[0])

    def deliver(self, mail, user=None):
        """A line that would begin the next mail is marked, and stays so."""
        text = re.sub(rb"(?m)^(?=From )", b">", unix_lines(mail))
        with open(self.mailbox(user), "ab") as file:
            file.write(b"From anna@test.example Thu Jan  1 00:00:00 2026\n" + text +
                       (b"\n" if text.endswith(b"\n") else b"\n\n"))

    def mails(self, user=None):
        with open(self.mailbox(user), "rb") as file:
            mails = re.split(rb"(?m)^From [^\n]*\n", file.read())[1:]
        # The empty line before the next mail is not part of it.
        return [mail[:-1] for mail in mails]

    def clear(self, *users):
        for user in users or self.users[:1]:
            with open(self.mailbox(user), "wb"):
                pass
            os.chown(self.mailbox(user), self.uid(user), self.uid(user))
            os.chmod(self.mailbox(user), 0o600)


def serve_inetd(port, program):
    """Starts the program for every client, with the connection for its input and output."""
    with socket.create_server(("127.0.0.1", port), backlog=50) as listener:
        running = []
        while True:
            client, _ = listener.accept()
            with client:
                running.append(subprocess.Popen([program], stdin=client, stdout=client))
            running = [each for each in running if each.poll() is None]


if __name__ == "__main__":
    serve_inetd(int(sys.argv[1]), sys.argv[2])
