"""Further SMTP servers, each with a port for every TLS mode and login method that it can do.

    with Postfix([("anna", "geheim 1")]) as server:
        server.port("starttls", "CRAM-MD5"), server.reason("plain", "APOP"), server.mails()

A client chooses its login method from what a server announces. So that each can be tried, a port
announces one method, and the port of "ALL" all of them. Mail for any address is taken after a login
only, but on the port of "none" from everybody. With a `dovecot`, the port of "POP-before-SMTP"
takes mail from an address that logged in there less than POP_SECONDS ago, and both have one
certificate. `size_limit` is announced; how exactly it is kept differs between the servers.
"""

import json
import os
import shutil
import signal
import ssl
import subprocess
import sys
import time

import servers
import unpacked

METHODS = ("PLAIN", "LOGIN", "CRAM-MD5", "DIGEST-MD5")
NO_LOGIN, POP_LOGIN = "none", "POP-before-SMTP"
POP_SECONDS = 60
MODES = ("plain", "starttls", "tls")
REALM = "test.example"
ACCOUNTS_UID = 64100


class SmtpServer(unpacked.Offer):
    """What a client needs to know of an SMTP server."""

    SIZE_VARIES = 0

    def place_certificates(self, dovecot):
        if dovecot is None:
            servers.make_certificates(self.folder)
            return
        for name in "ca.pem", "server.pem", "server.key":
            shutil.copy(dovecot.path(name), self.path(name))

    def port(self, mode, method="ALL"):
        """The port that announces this method. Without TLS and with STARTTLS it is the same one."""
        return self.ports[("TLS-" if mode == "tls" else "") + method]

    def wait_for_mails(self, count, seconds=60):
        """The mails, as soon as there are that many: a server delivers after it has accepted."""
        deadline = time.monotonic() + seconds
        while len(self.mails()) < count:
            if time.monotonic() > deadline:
                raise RuntimeError(f"not delivered: {len(self.mails())} of {count} mails")
            time.sleep(0.05)
        return self.mails()


def method_ports(methods):
    """A port for each method and for all of them, encrypted on request and from the beginning."""
    names = [kind + method for kind in ("", "TLS-")
             for method in (*methods, NO_LOGIN, POP_LOGIN, "ALL")]
    return dict(zip(names, servers.free_ports(len(names))))


def login_of(port_name):
    return port_name[len("TLS-"):] if port_name.startswith("TLS-") else port_name


def announced(port_name, methods=METHODS):
    """The methods that the port of this name announces."""
    name = login_of(port_name)
    return {"ALL": methods, NO_LOGIN: (), POP_LOGIN: ()}.get(name, (name,))


def recent_login(dovecot):
    """A script that says with its exit code whether its argument logged in at Dovecot of late."""
    addresses = dovecot.path("logins", "addresses") if dovecot else os.devnull
    return f"""#!/bin/sh
latest=$(sed -n "s/^$1: //p" {addresses} | head -n 1)
[ $(($(date +%s) - ${{latest:-0}})) -le {POP_SECONDS} ]
"""


class Exim(SmtpServer, servers.Exim):
    """Exim as for the other tests, with the ports of the servers here."""

    NAME = "Exim"
    PACKAGES = ("exim4-daemon-heavy",)
    capabilities = dict.fromkeys(MODES, (NO_LOGIN, *METHODS, POP_LOGIN))

    def __init__(self, accounts, size_limit=300_000_000, dovecot=None):
        if os.geteuid() != 0 or not shutil.which("/usr/sbin/exim4"):
            raise unpacked.Unavailable("Exim: needs root and exim4-daemon-heavy")
        self.size_limit = size_limit
        self.watched = dovecot
        # Not as the Dovecot that this delivers to: here all mail goes to one place.
        super().__init__(accounts)

    def write_sasl(self, accounts):
        # The last step before the configuration, which needs both.
        self.ports = method_ports(METHODS)
        self.place_certificates(self.watched)
        super().write_sasl(accounts)

    def when_port(self, *methods):
        ports = [port for name, port in self.ports.items() if login_of(name) in methods]
        return "inlist{$received_port}{%s}" % " : ".join(map(str, ports))

    def advertise(self, method):
        return "server_advertise_condition = ${if %s{yes}{no}}" % self.when_port(method, "ALL")

    def who_may_send(self):
        login = "0"
        if self.watched:
            login = "${lookup{$sender_host_address}lsearch{%s}{$value}{0}}" % (
                self.watched.path("logins", "addresses"))
        recent = "<{${eval:$tod_epoch-%s}}{%d}" % (login, POP_SECONDS)
        return f"""accept authenticated = *
  accept condition = ${{if {self.when_port(NO_LOGIN)}}}
  accept condition = ${{if and{{{{{self.when_port(POP_LOGIN)}}}{{{recent}}}}}}}
  deny message = log in first"""

    def configuration(self):
        encrypted = [port for name, port in self.ports.items() if name.startswith("TLS-")]
        lines = [line for line in super().configuration().splitlines()
                 if not line.startswith("message_size_limit")]
        return "\n".join([f"message_size_limit = {self.size_limit}",
                          f"tls_on_connect_ports = {' : '.join(map(str, encrypted))}", *lines, ""])


class SaslServer(unpacked.UnpackedServer, SmtpServer):
    """A server whose logins are those of Cyrus SASL, with the passwords in its database."""

    SASL_PACKAGES = ("sasl2-bin", "libsasl2-modules")
    capabilities = dict.fromkeys(MODES, (NO_LOGIN, *METHODS, POP_LOGIN))

    def place_passwords(self, accounts, uid):
        """Makes the database, which `uid` can read."""
        folder = self.place_folder("/etc/sasldb")
        for user, password in accounts:
            self.run_inside("saslpasswd2", "-p", "-c", "-f", "/etc/sasldb/sasldb2", "-u", REALM,
                            user, data=password)
        os.chown(os.path.join(folder, "sasldb2"), uid, uid)

    def add_login_reader(self, dovecot):
        """The user who may read Dovecot's list of logins."""
        self.add_user("logins", os.stat(dovecot.path("logins")).st_uid if dovecot else 65534)

    @staticmethod
    def sasl_configuration():
        return ("pwcheck_method: auxprop\nauxprop_plugin: sasldb\n"
                f"sasldb_path: /etc/sasldb/sasldb2\nmech_list: {' '.join(METHODS)}\n")


class Postfix(SaslServer):
    """Postfix, with Cyrus SASL for all methods."""

    NAME = "Postfix"
    SIZE_VARIES = 8  # bytes by which its count of one mail differs from time to time
    PACKAGES = ("postfix", *SaslServer.SASL_PACKAGES)
    UID, DROP = 64001, 64002
    PROGRAMS = """
cleanup unix n - n - 0 cleanup
qmgr unix n - n 300 1 qmgr
tlsmgr unix - - n 1000? 1 tlsmgr
rewrite unix - - n - - trivial-rewrite
bounce unix - - n - 0 bounce
defer unix - - n - 0 bounce
proxymap unix - - n - - proxymap
virtual unix - n n - - virtual
retry unix - - n - - error
anvil unix - - n - 1 anvil
postlog unix-dgram n - n - 1 postlogd
pop-first unix - n n - 0 spawn user=logins argv=/usr/lib/postfix/pop-first
"""
    POLICY = """#!/bin/sh
while read -r line; do
  case $line in
    client_address=*) address=${line#*=} ;;
    "") if /usr/lib/postfix/seen-of-late "$address"; then answer=permit
        else answer="reject log in over POP3 first"; fi
        printf "action=%s\\n\\n" "$answer" ;;
  esac
done
"""
    # The restrictions of the ports without a login over SMTP.
    RESTRICTIONS = {NO_LOGIN: "permit_mynetworks, reject",
                    POP_LOGIN: "check_policy_service unix:private/pop-first, reject"}

    def __init__(self, accounts, size_limit=300_000_000, dovecot=None):
        super().__init__()
        self.size_limit = size_limit
        self.ports = method_ports(METHODS)
        self.place_certificates(dovecot)
        self.add_user("postfix", self.UID)
        self.add_user("postdrop", self.DROP)
        self.place("/etc/postfix/main.cf", self.configuration())
        self.place("/etc/postfix/master.cf", self.services())
        self.place("/etc/postfix/sasl/smtpd.conf", self.sasl_configuration())
        self.place("/usr/lib/postfix/seen-of-late", recent_login(dovecot), 0o755)
        self.place("/usr/lib/postfix/pop-first", self.POLICY, 0o755)
        self.add_login_reader(dovecot)
        self.place_passwords(accounts, self.UID)
        for path, uid in (("/var/spool/postfix", 0), ("/var/lib/postfix", self.UID),
                          ("/var/log/postfix", 0), ("/var/vmail", ACCOUNTS_UID)):
            self.place_folder(path, uid)
        self.start(["postfix", "start-fg"], *self.ports.values())

    def configuration(self):
        return f"""
compatibility_level = 3.6
myhostname = mail.{REALM}
mydestination =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks =
smtpd_peername_lookup = no
alias_maps =
maillog_file = /var/log/postfix/maillog
message_size_limit = {self.size_limit}
virtual_mailbox_limit = 0
queue_minfree = 0
virtual_mailbox_domains = static:all
virtual_mailbox_maps = static:box/
virtual_mailbox_base = /var/vmail
virtual_uid_maps = static:{ACCOUNTS_UID}
virtual_gid_maps = static:{ACCOUNTS_UID}
smtpd_relay_restrictions = permit_sasl_authenticated, reject
smtpd_recipient_restrictions = permit_sasl_authenticated, reject
smtpd_sasl_auth_enable = yes
smtpd_sasl_local_domain = {REALM}
smtpd_sasl_security_options = noanonymous
smtpd_tls_security_level = may
smtpd_tls_cert_file = {self.path('server.pem')}
smtpd_tls_key_file = {self.path('server.key')}
smtpd_error_sleep_time = 0
"""

    def services(self):
        text = self.PROGRAMS
        for name, port in self.ports.items():
            methods = announced(name)
            text += f"127.0.0.1:{port} inet n - n - - smtpd\n"
            if methods:
                text += f"  -o {{ smtpd_sasl_mechanism_filter = {', '.join(methods)} }}\n"
            else:
                restrictions = self.RESTRICTIONS[login_of(name)]
                text += ("  -o smtpd_sasl_auth_enable=no -o mynetworks=127.0.0.0/8\n"
                         f"  -o {{ smtpd_relay_restrictions = {restrictions} }}\n"
                         "  -o smtpd_recipient_restrictions=\n")
            if name.startswith("TLS-"):
                text += "  -o smtpd_tls_wrappermode=yes\n"
        return text

    def mails(self):
        return servers.read_mails(self.path("data/var/vmail/box"))


class Sendmail(SaslServer):
    """sendmail, with Cyrus SASL for all methods; a daemon for each port, as all of one daemon's
    announce the same."""

    NAME = "sendmail"
    PACKAGES = ("sendmail-bin", "sendmail-cf", *SaslServer.SASL_PACKAGES)
    DELIVERY = """#!/bin/sh
cd /var/vmail && cat > "tmp.$$" && mv "tmp.$$" "$(date +%s.%N).$$.mail"
"""
    # Sees the address as the argument of a program, which writes a word or fails with EX_NOUSER.
    POP_RULES = """LOCAL_CONFIG
Krecent program /usr/libexec/sendmail/seen-of-late
LOCAL_RULESETS
SLocal_check_rcpt
R$*\t$: $(recent $&{client_addr} $: NO $)
RNO\t$#error $@ 5.7.1 $: "550 log in over POP3 first"
R$*\t$#OK
"""
    # It waits a minute for a longer name when the machine's has no dot.
    HOST = f"mail.{REALM}"

    def __init__(self, accounts, size_limit=300_000_000, dovecot=None):
        super().__init__()
        self.size_limit = size_limit
        self.ports = method_ports(METHODS)
        self.place_certificates(dovecot)
        # It takes no private key from below a folder that others may write to.
        for name, mode in ("ca.pem", 0o644), ("server.pem", 0o644), ("server.key", 0o600):
            with open(self.path(name), "rb") as file:
                self.place(f"/etc/mail/tls/{name}", file.read(), mode)
        for uid, name in enumerate(("smmta", "smmsp"), 64011):
            self.add_user(name, uid)
        self.add_user("box", ACCOUNTS_UID)
        self.add_login_reader(dovecot)
        self.place("/etc/hosts", f"127.0.0.1 localhost {self.HOST}\n")
        self.place("/etc/mail/login.mc", self.configuration())
        self.place("/etc/mail/none.mc", self.configuration("FEATURE(`promiscuous_relay')"))
        self.place("/etc/mail/POP-before-SMTP.mc", self.configuration(rules=self.POP_RULES))
        self.place("/usr/libexec/sendmail/seen-of-late", recent_login(dovecot) +
                   '[ $? -eq 0 ] && echo recent || exit 67\n', 0o755)
        self.place("/etc/mail/service.switch", "hosts files\naliases files\npasswd files\n")
        self.place("/usr/libexec/sendmail/box", self.DELIVERY, 0o755)
        self.place("/usr/lib/sasl2/Sendmail.conf", self.sasl_configuration())
        self.place_passwords(accounts, 0)
        for path, uid, mode in (("/var/spool/mqueue", 0, 0o700), ("/var/lib/sendmail", 0, 0o755),
                                ("/var/vmail", ACCOUNTS_UID, 0o755)):
            self.place_folder(path, uid, mode)
        os.mkdir(self.path("data/var/lib/sendmail/host_status"))
        self.place_daemons()
        self.start(["/usr/libexec/sendmail/all"], *self.ports.values())

    def configuration(self, feature="", rules=""):
        return f"""divert(-1)
include(`/usr/share/sendmail/cf/m4/cf.m4')
OSTYPE(`debian')
define(`confDOMAIN_NAME', `{self.HOST}')
define(`confMAX_MESSAGE_SIZE', `{self.size_limit}')
define(`confDEF_USER_ID', `logins:logins')
define(`confAUTH_REALM', `{REALM}')
define(`confAUTH_OPTIONS', `')
define(`confAUTH_MECHANISMS', `ANNOUNCED')
TRUST_AUTH_MECH(`{' '.join(METHODS)}')
define(`confCACERT', `/etc/mail/tls/ca.pem')
define(`confCACERT_PATH', `/etc/mail/tls')
define(`confSERVER_CERT', `/etc/mail/tls/server.pem')
define(`confSERVER_KEY', `/etc/mail/tls/server.key')
define(`confTO_IDENT', `0')
define(`confPID_FILE', `/dev/null')
define(`confQUEUE_LA', `1000')
define(`confREFUSE_LA', `1000')
define(`confDELAY_LA', `0')
FEATURE(`no_default_msa')
FEATURE(`nocanonify')
FEATURE(`accept_unresolvable_domains')
{feature}
DAEMON_OPTIONS(`Name=box, Addr=127.0.0.1, Port=PORTMODIFIER')
{rules}LOCAL_RULE_0
R$*\t$#box $@ box $: $1
MAILER_DEFINITIONS
Mbox, P=/usr/libexec/sendmail/box, F=n, U=box:box, A=box $u
"""

    def place_daemons(self):
        """A configuration for each port, and a script that runs them all."""
        configurations = {name: self.run_inside("m4", f"/etc/mail/{name}.mc")
                          for name in ("login", NO_LOGIN, POP_LOGIN)}
        script = f"#!/bin/sh\nhostname {self.HOST}\n"
        for name, port in self.ports.items():
            methods = announced(name)
            # Modifiers s: encrypted from the beginning; A: no login.
            modifiers = ("s" if name.startswith("TLS-") else "") + ("" if methods else "A")
            login = "login" if methods else login_of(name)
            text = configurations[login].replace("ANNOUNCED", " ".join(methods)).replace(
                "PORTMODIFIER", f"{port}{', M=' * bool(modifiers)}{modifiers}")
            self.place(f"/etc/mail/{port}.cf", text)
            script += f"/usr/libexec/sendmail/sendmail -C /etc/mail/{port}.cf -bD &\n"
        self.place("/usr/libexec/sendmail/all", script + "wait\n", 0o755)

    def mails(self):
        return read_folder(self.path("data/var/vmail"))


def read_folder(folder):
    """The mails that a delivery script has completed, oldest first."""
    mails = []
    for name in sorted(name for name in os.listdir(folder) if name.endswith(".mail")):
        with open(os.path.join(folder, name), "rb") as file:
            mails.append(file.read())
    return mails


class OpenSmtpd(unpacked.UnpackedServer, SmtpServer):
    """OpenSMTPD, which has logins under TLS only; and Debian's cannot do TLS."""

    NAME = "OpenSMTPD"
    PACKAGES = ("opensmtpd",)
    capabilities = {"plain": (NO_LOGIN,)}
    NO_TLS = ("Debian 12's OpenSMTPD 6.8.0p2 cannot use its private key, RSA or EC, with OpenSSL "
              "3: it ends every handshake with the alert \"internal error\" "
              "(\"error:0A080006:SSL routines::EVP lib\" in its log)")
    NO_METHOD = "OpenSMTPD knows PLAIN and LOGIN only"
    NO_POP = ("OpenSMTPD reads its tables of addresses at its start; to look up who has logged in "
              "over POP3 since, it needs a filter program of one's own")
    REASONS = {"starttls": NO_TLS, "tls": NO_TLS, "CRAM-MD5": NO_METHOD, "DIGEST-MD5": NO_METHOD,
               POP_LOGIN: NO_POP,
               "plain": "OpenSMTPD has logins under TLS only (\"auth requires tls/smtps\")"}

    def __init__(self, accounts, size_limit=300_000_000, dovecot=None):
        super().__init__()
        self.size_limit = size_limit
        self.ports = dict(zip((NO_LOGIN, "ALL", "TLS-ALL"), servers.free_ports(3)))
        self.place_certificates(dovecot)
        for uid, name in enumerate(("opensmtpd", "opensmtpq"), 64021):
            self.add_user(name, uid, "/var/lib/opensmtpd/empty")
        self.add_user("vmail", ACCOUNTS_UID, "/var/vmail")
        os.chmod(self.path("server.key"), 0o600)
        self.place("/etc/mailname", f"mail.{REALM}\n")
        self.place("/etc/smtpd.conf", self.configuration())
        self.place("/etc/smtpd.accounts", "".join(
            f"{user}\t{unpacked.encrypted(password)}\n" for user, password in accounts))
        self.place_folder("/var/vmail", ACCOUNTS_UID)
        self.place_folder("/var/spool")
        self.start(["smtpd", "-d", "-f", "/etc/smtpd.conf"], *self.ports.values())

    def port(self, mode, method="ALL"):
        """PLAIN and LOGIN are announced together."""
        if mode == "tls":
            return self.ports["TLS-ALL"]
        return self.ports[NO_LOGIN if method == NO_LOGIN else "ALL"]

    def configuration(self):
        return f"""
pki box cert "{self.path('server.pem')}"
pki box key "{self.path('server.key')}"
table accounts file:/etc/smtpd.accounts
table boxes {{ "@" = "vmail" }}
smtp max-message-size {self.size_limit}
listen on 127.0.0.1 port {self.ports[NO_LOGIN]}
listen on 127.0.0.1 port {self.ports['ALL']} tls pki box auth <accounts>
listen on 127.0.0.1 port {self.ports['TLS-ALL']} smtps pki box auth <accounts>
action box maildir "/var/vmail/box" virtual <boxes>
match from any for any action box
"""

    def mails(self):
        return servers.read_mails(self.path("data/var/vmail/box"))


class Aiosmtpd(servers.Server, SmtpServer):
    """aiosmtpd, a server in Python. It has no command for it, so this file is also the program."""

    NAME = "aiosmtpd"
    PACKAGES = ("python3-aiosmtpd",)
    PROVIDED = ("PLAIN", "LOGIN")
    capabilities = dict.fromkeys(MODES, (NO_LOGIN, "PLAIN", POP_LOGIN))
    NO_METHOD = "aiosmtpd brings PLAIN and LOGIN only; others are for its user to write"
    PROMPT = ("aiosmtpd's LOGIN asks for the \"User Name\", where libtaveml answers a \"Username\" "
              "only, as other servers ask for; it announces PLAIN too, which works")
    REASONS = {"LOGIN": PROMPT, "CRAM-MD5": NO_METHOD, "DIGEST-MD5": NO_METHOD}

    def __init__(self, accounts, size_limit=300_000_000, dovecot=None):
        modules = os.path.join(unpacked.unpack(*self.PACKAGES), "usr/lib/python3/dist-packages")
        super().__init__("root")
        self.ports = method_ports(self.PROVIDED)
        self.place_certificates(dovecot)
        os.mkdir(self.path("mail"))
        self.write("settings", json.dumps({
            "accounts": dict(accounts), "size_limit": size_limit, "ports": self.ports,
            "folder": self.folder}), 0o600)
        self.write("seen-of-late", recent_login(dovecot), 0o755)
        # Of the system's Python, for which Debian's packages are.
        self.start(["env", f"PYTHONPATH={modules}", "setpriv", "--pdeathsig", "KILL",
                    "/usr/bin/python3", "-B", "-W", "ignore", os.path.abspath(__file__),
                    self.path("settings")], self.ports["TLS-ALL"])

    def mails(self):
        return read_folder(self.path("mail"))


class Box:
    """What aiosmtpd calls for each mail."""

    def __init__(self, folder):
        self.folder = os.path.join(folder, "mail")
        self.seen_of_late = os.path.join(folder, "seen-of-late")
        self.count = 0

    async def handle_EHLO(self, _server, session, _envelope, host_name, replies):
        session.host_name = host_name
        return [each for each in replies if each != "250-AUTH "]  # With no method left to announce.

    async def handle_RCPT(self, server, session, envelope, address, _options):
        if server.needs_pop_login:
            if subprocess.run([self.seen_of_late, session.peer[0]]).returncode != 0:
                return "550 log in over POP3 first"
        envelope.rcpt_tos.append(address)
        return "250 OK"

    async def handle_DATA(self, _server, _session, envelope):
        self.count += 1
        name = os.path.join(self.folder, f"{self.count:06}")
        with open(name, "wb") as file:
            file.write(envelope.original_content)
        os.rename(name, f"{name}.mail")
        return "250 OK"


def serve_aiosmtpd(settings):
    import asyncio
    from aiosmtpd.smtp import SMTP, AuthResult

    def check(_server, _session, _envelope, _method, login):
        right = settings["accounts"].get(login.login.decode())
        return AuthResult(success=right is not None and login.password == right.encode(),
                          handled=False)

    context = ssl.create_default_context(ssl.Purpose.CLIENT_AUTH)
    context.load_cert_chain(os.path.join(settings["folder"], "server.pem"),
                            os.path.join(settings["folder"], "server.key"))
    box = Box(settings["folder"])
    loop = asyncio.new_event_loop()

    def listen(name, port):
        encrypted = name.startswith("TLS-")
        methods = announced(name, Aiosmtpd.PROVIDED)
        arguments = {
            "hostname": f"mail.{REALM}", "loop": loop, "data_size_limit": settings["size_limit"],
            "auth_required": bool(methods), "auth_require_tls": False, "authenticator": check,
            "auth_exclude_mechanism": set(Aiosmtpd.PROVIDED) - set(methods),
            "tls_context": None if encrypted else context}

        def connected():
            server = SMTP(box, **arguments)
            server.needs_pop_login = login_of(name) == POP_LOGIN
            return server

        loop.run_until_complete(loop.create_server(
            connected, "127.0.0.1", port, ssl=context if encrypted else None))

    for name, port in settings["ports"].items():
        listen(name, port)
    loop.add_signal_handler(signal.SIGTERM, loop.stop)
    loop.run_forever()


if __name__ == "__main__":
    with open(sys.argv[1]) as settings_file:
        serve_aiosmtpd(json.load(settings_file))
