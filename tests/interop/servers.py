"""Real mail servers, each started from a private configuration on loopback ports."""

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

    def give_to_user(self):
        record = pwd.getpwnam(self.user)
        for folder, folders, files in os.walk(self.folder):
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
        raise RuntimeError("does not start: " + self.logs())

    def logs(self):
        text = ""
        for folder, _, files in os.walk(self.folder):
            for name in files:
                if "log" in name or name == "output":
                    with open(os.path.join(folder, name), errors="replace") as file:
                        text += f"--- {name}\n{file.read()}"
        return text

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process is not None and self.process.poll() is None:
            os.killpg(self.process.pid, signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                os.killpg(self.process.pid, signal.SIGKILL)
                self.process.wait()
        shutil.rmtree(self.folder, ignore_errors=True)


class Exim(Server):
    """Exim with one port for each login method, and one for all of them."""

    METHODS = ("CRAM-MD5", "DIGEST-MD5", "PLAIN", "LOGIN")
    REALM = "test.example"

    def __init__(self, accounts):
        super().__init__("Debian-exim")
        self.ports = dict(zip(self.METHODS + ("ALL",), free_ports(5)))
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
  accept authenticated = *
  deny message = log in first
check_data:
  accept
begin routers
box:
  driver = accept
  transport = box
begin transports
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
        """What was delivered, oldest first."""
        folder = self.path("mail", "new")
        names = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
        return [open(os.path.join(folder, name), "rb").read() for name in names]
