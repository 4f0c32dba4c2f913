"""Real mail servers, each started from a private configuration on loopback ports."""

import base64
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time


SKIPPED = 77


def need(*programs):
    """Ends the test as skipped where a server is not installed or cannot be started."""
    missing = [program for program in programs if shutil.which(program) is None]
    if missing or os.geteuid() != 0:
        print("skipped: needs", ", ".join(missing) if missing else "root to start mail servers")
        sys.exit(SKIPPED)


def free_ports(count):
    """Ports that nobody listens on now."""
    sockets = [socket.socket() for _ in range(count)]
    for each in sockets:
        each.bind(("127.0.0.1", 0))
    ports = [each.getsockname()[1] for each in sockets]
    for each in sockets:
        each.close()
    return ports


def make_certificates(folder):
    """A certificate authority and a certificate of "localhost" and 127.0.0.1."""

    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=folder, check=True, capture_output=True)

    with open(os.path.join(folder, "san"), "w") as file:
        file.write("subjectAltName=DNS:localhost,IP:127.0.0.1\n")
    openssl("req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj", "/CN=Test CA",
            "-keyout", "ca.key", "-out", "ca.pem")
    openssl("req", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
            "-keyout", "server.key", "-out", "server.csr")
    openssl("x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
            "-CAcreateserial", "-days", "2", "-extfile", "san", "-out", "server.pem")


class Server:
    """A server process in a folder of its own. Ends with the `with` block."""

    def __init__(self, user):
        self.folder = tempfile.mkdtemp(prefix="taveml-interop-")
        os.chmod(self.folder, 0o755)
        self.user = user
        self.process = None

    def path(self, *names):
        return os.path.join(self.folder, *names)

    def write(self, name, text, mode=0o644):
        with open(self.path(name), "w") as file:
            file.write(text)
        os.chmod(self.path(name), mode)

    def give_to_user(self, *names):
        record = pwd.getpwnam(self.user)
        for folder, folders, files in os.walk(self.path(*names)):
            for name in [folder] + [os.path.join(folder, each) for each in folders + files]:
                os.chown(name, record.pw_uid, record.pw_gid)

    def start(self, command, port):
        log = open(self.path("output"), "wb")
        self.process = subprocess.Popen(command, stdout=log, stderr=log, stdin=subprocess.DEVNULL,
                                        start_new_session=True)
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and self.process.poll() is None:
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return
            except OSError:
                time.sleep(0.05)
        logs = self.logs()
        self.__exit__()
        raise RuntimeError("does not start: " + logs)

    def logs(self):
        text = ""
        for folder, _, files in os.walk(self.folder):
            for name in files:
                path = os.path.join(folder, name)
                # A regular file: Dovecot has sockets with such names.
                if ("log" in name or name == "output") and os.path.isfile(path):
                    with open(path, errors="replace") as file:
                        text += f"--- {name}\n{file.read()}"
        return text

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process is not None:
            self.end_process()
        shutil.rmtree(self.folder, ignore_errors=True)

    def end_process(self):
        if self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            pass
        # Children too, which would create the folder anew for a last line in their log.
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.process.wait()


def mail_owner():
    """Who owns the Maildirs. An Exim with a private configuration has given up the right to deliver
    as anybody but its own user."""
    try:
        return pwd.getpwnam("Debian-exim").pw_name
    except KeyError:
        return "mail"


def maildir_paths(maildir):
    """The mails of a Maildir, oldest first. Reading one over POP3 moves it from new/ to cur/."""
    found = []
    for folder in (os.path.join(maildir, each) for each in ("new", "cur")):
        if os.path.isdir(folder):
            found += [os.path.join(folder, name) for name in os.listdir(folder)]
    return sorted(found, key=os.path.basename)


def read_mails(maildir):
    mails = []
    for path in maildir_paths(maildir):
        with open(path, "rb") as file:
            mails.append(file.read())
    return mails


class Dovecot(Server):
    """Dovecot's POP3 on two ports: "PLAIN", which announces STLS, and "TLS", encrypted at once.

    Every account has a Maildir of its own. It takes passwords in the clear, because a client on the
    same address counts as secured anyhow. The APOP stamp stands in every greeting.
    """

    def __init__(self, accounts):
        super().__init__(mail_owner())
        self.ports = dict(zip(("PLAIN", "TLS"), free_ports(2)))
        self.users = [user for user, _ in accounts]
        self.delivered = 0
        make_certificates(self.folder)
        self.write("passwords", "".join(self.password_line(*account) for account in accounts))
        self.write("remember-login", self.login_script(), 0o755)
        self.write("dovecot.conf", self.configuration())
        for user in self.users:
            for name in "new", "cur", "tmp":
                os.makedirs(os.path.join(self.maildir(user), name))
        os.mkdir(self.path("logins"))
        self.write("logins/addresses", "")
        self.give_to_user("mail")
        self.give_to_user("logins")
        self.start(["/usr/sbin/dovecot", "-F", "-c", self.path("dovecot.conf")],
                   self.ports["PLAIN"])

    @staticmethod
    def password_line(user, password):
        # In Base64, so that a password may contain the separator of the fields.
        return f"{user}:{{PLAIN.b64}}{base64.b64encode(password.encode()).decode()}\n"

    def login_script(self):
        """Notes who logged in and when, the latest first, for Exim to look up; then goes on."""
        addresses = self.path("logins", "addresses")
        return f"""#!/bin/sh
{{ echo "$IP: $(date +%s)"; cat {addresses}; }} > {addresses}.$$
mv {addresses}.$$ {addresses}
exec "$@"
"""

    def configuration(self):
        return f"""
base_dir = {self.path('run')}
state_dir = {self.path('state')}
log_path = {self.path('dovecot.log')}
listen = 127.0.0.1
protocols = pop3
ssl = yes
ssl_cert = <{self.path('server.pem')}
ssl_key = <{self.path('server.key')}
disable_plaintext_auth = no
auth_mechanisms = plain login cram-md5 digest-md5 apop
auth_failure_delay = 0
first_valid_uid = 1
mail_location = maildir:{self.path('mail')}/%u:INDEX=MEMORY
mail_max_userip_connections = 100
passdb {{
  driver = passwd-file
  args = username_format=%u {self.path('passwords')}
}}
userdb {{
  driver = static
  args = uid={self.user} gid={self.user} home={self.path('mail')}/%u
}}
service pop3-login {{
  inet_listener pop3 {{
    port = {self.ports['PLAIN']}
  }}
  inet_listener pop3s {{
    port = {self.ports['TLS']}
    ssl = yes
  }}
}}
service anvil {{
  unix_listener anvil-auth-penalty {{
    mode = 0
  }}
}}
service pop3 {{
  executable = pop3 pop3-postlogin
}}
service pop3-postlogin {{
  executable = script-login {self.path('remember-login')}
  user = {self.user}
  unix_listener pop3-postlogin {{
  }}
}}
"""

    def maildir(self, user=None):
        """The Maildir of a user, of the first account when none is named."""
        return self.path("mail", user or self.users[0])

    def deliver(self, mail, user=None):
        """Puts the bytes of a mail into the Maildir as they are."""
        self.delivered += 1
        name = f"{int(time.time())}.M{self.delivered:06}P{os.getpid()}.localhost"
        waiting = os.path.join(self.maildir(user), "tmp", name)
        with open(waiting, "wb") as file:
            file.write(mail)
        owner = pwd.getpwnam(self.user)
        os.chown(waiting, owner.pw_uid, owner.pw_gid)
        os.rename(waiting, os.path.join(self.maildir(user), "new", name))

    def mails(self, user=None):
        """What is left in the Maildir, oldest first."""
        return read_mails(self.maildir(user))

    def wait_for_mails(self, count, user=None, seconds=20):
        """The mails, as soon as there are that many: a server delivers after it has accepted."""
        deadline = time.monotonic() + seconds
        while len(self.mails(user)) < count:
            if time.monotonic() > deadline:
                raise RuntimeError(f"not delivered: {len(self.mails(user))} of {count} mails")
            time.sleep(0.05)
        return self.mails(user)

    def clear(self, user=None):
        """Empties the Maildir and forgets who logged in."""
        for path in maildir_paths(self.maildir(user)):
            os.remove(path)
        self.write("logins/addresses", "")


class Exim(Server):
    """Exim with one port for each login method, and one for all of them.

    With a `dovecot`, mail for one of its users goes into the Maildir of that user, and both servers
    have the same certificate. With `pop_seconds`, an SMTP login does not help: an address may send
    for that many seconds after a POP3 login from it, otherwise each recipient is refused.
    """

    METHODS = ("CRAM-MD5", "DIGEST-MD5", "PLAIN", "LOGIN")
    REALM = "test.example"

    def __init__(self, accounts, dovecot=None, pop_seconds=0):
        super().__init__("Debian-exim")
        self.ports = dict(zip(self.METHODS + ("ALL",), free_ports(5)))
        self.dovecot = dovecot
        self.pop_seconds = pop_seconds
        if dovecot:
            for name in "ca.pem", "server.pem", "server.key":
                shutil.copy(dovecot.path(name), self.path(name))
        else:
            make_certificates(self.folder)
        self.write("passwords", "".join(f"{user}: {password}\n" for user, password in accounts))
        self.write_sasl(accounts)
        self.write("exim.conf", self.configuration())
        os.mkdir(self.path("spool"))
        os.mkdir(self.path("mail"))
        self.give_to_user()
        os.chown(self.path("exim.conf"), 0, 0)
        self.start(["/usr/sbin/exim4", "-C", self.path("exim.conf"), "-bdf", "-q1h"],
                   self.ports["ALL"])

    def write_sasl(self, accounts):
        self.write("sasl.conf", "")
        os.mkdir(self.path("sasl"))
        self.write("sasl/exim.conf", "pwcheck_method: auxprop\nauxprop_plugin: sasldb\n"
                   f"sasldb_path: {self.path('sasldb2')}\nmech_list: DIGEST-MD5\n")
        for user, password in accounts:
            subprocess.run(["saslpasswd2", "-p", "-c", "-f", self.path("sasldb2"), "-u", self.REALM,
                            user], input=password.encode(), check=True)

    def advertise(self, method):
        return ('server_advertise_condition = ${if or{{eq{$received_port}{%d}}'
                '{eq{$received_port}{%d}}}{yes}{no}}' % (self.ports[method], self.ports["ALL"]))

    def who_may_send(self):
        if not self.pop_seconds:
            return "accept authenticated = *\n  deny message = log in first"
        login = "${lookup{$sender_host_address}lsearch{%s}{$value}{0}}" % (
            self.dovecot.path("logins", "addresses"))
        recent = "${if <{${eval:$tod_epoch-%s}}{%d}}" % (login, self.pop_seconds)
        return f"accept condition = {recent}\n  deny message = log in over POP3 first"

    def dovecot_router(self):
        if not self.dovecot:
            return ""
        return (f"dovecot:\n  driver = accept\n  local_parts = {' : '.join(self.dovecot.users)}\n"
                "  transport = dovecot")

    def dovecot_transport(self):
        if not self.dovecot:
            return ""
        return (f"dovecot:\n  driver = appendfile\n  maildir_format\n"
                f"  user = {self.user}\n  directory = {self.dovecot.path('mail')}/$local_part_data")

    def configuration(self):
        secret = "${lookup{$auth%d}lsearch{%s}{$value}fail}"
        check = "${if eq{$auth%d}{${lookup{$auth%d}lsearch{%s}{$value}fail}}{yes}{no}}"
        passwords = self.path("passwords")
        return f"""
exim_user = {self.user}
exim_group = {self.user}
primary_hostname = mail.{self.REALM}
spool_directory = {self.path('spool')}
log_file_path = {self.path('%slog')}
pid_file_path = {self.path('pid')}
local_interfaces = 127.0.0.1
daemon_smtp_ports = {' : '.join(str(port) for port in self.ports.values())}
keep_environment =
add_environment = SASL_CONF_PATH={self.path('sasl')}
tls_advertise_hosts = *
tls_certificate = {self.path('server.pem')}
tls_privatekey = {self.path('server.key')}
host_lookup =
rfc1413_query_timeout = 0s
smtp_accept_max = 0
message_size_limit = 300M
acl_smtp_rcpt = check_rcpt
acl_smtp_data = check_data
begin acl
check_rcpt:
  {self.who_may_send()}
check_data:
  accept
begin routers
{self.dovecot_router()}
box:
  driver = accept
  transport = box
begin transports
{self.dovecot_transport()}
box:
  driver = appendfile
  directory = {self.path('mail')}
  maildir_format
  user = {self.user}
begin retry
* * F,1h,1m
begin authenticators
cram:
  driver = cram_md5
  public_name = CRAM-MD5
  {self.advertise('CRAM-MD5')}
  server_secret = {secret % (1, passwords)}
  server_set_id = $auth1
digest:
  driver = cyrus_sasl
  public_name = DIGEST-MD5
  {self.advertise('DIGEST-MD5')}
  server_realm = {self.REALM}
  server_set_id = $auth1
plain:
  driver = plaintext
  public_name = PLAIN
  {self.advertise('PLAIN')}
  server_prompts = :
  server_condition = {check % (3, 2, passwords)}
  server_set_id = $auth2
login:
  driver = plaintext
  public_name = LOGIN
  {self.advertise('LOGIN')}
  server_prompts = Username:: : Password::
  server_condition = {check % (2, 1, passwords)}
  server_set_id = $auth1
"""

    def mails(self):
        """What was delivered, but not to Dovecot's users, oldest first."""
        return read_mails(self.path("mail"))
