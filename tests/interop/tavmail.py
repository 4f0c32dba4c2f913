"""tavmail as a script uses it: every answer is JSON.

    tool = Tavmail("build/debug/tool/tavmail")
    answer = tool.send(["--server", "localhost:25", ...])
"""

import json
import os
import subprocess
import tempfile
from dataclasses import dataclass

NO_PERMISSION = 77
TLS = {"plain": "none", "starttls": "starttls", "stls": "starttls", "tls": "implicit"}


@dataclass
class Answer:
    code: int
    document: dict
    error: str

    @property
    def is_login_refused(self):
        return self.code == NO_PERMISSION and "refused the login" in self.error


class Tavmail:
    def __init__(self, program, seconds=60):
        self.program, self.seconds = program, seconds
        self.home = tempfile.TemporaryDirectory(prefix="taveml-tavmail-")
        self.environment = dict(os.environ, XDG_STATE_HOME=self.home.name,
                                XDG_CONFIG_HOME=self.home.name)

    def path(self, name):
        return os.path.join(self.home.name, name)

    def password_file(self, password):
        path = self.path("password-" + password.encode().hex())
        with open(os.open(path, os.O_CREAT | os.O_WRONLY | os.O_TRUNC, 0o600), "w") as file:
            file.write(password + "\n")
        return path

    def login(self, user, password, prefix=""):
        return [f"--{prefix}user", user, f"--{prefix}password-file", self.password_file(password)]

    def run(self, command, arguments, seconds=None):
        done = subprocess.run([self.program, command, "--json", *arguments], capture_output=True,
                              timeout=seconds or self.seconds, env=self.environment)
        error = done.stderr.decode(errors="replace")
        if not done.stdout and done.returncode == 0 or "Sanitizer" in error:
            raise RuntimeError(f"tavmail {command}: {error}")
        # A wrong call, or a crash, says nothing as JSON.
        return Answer(done.returncode, json.loads(done.stdout or "{}"), error)

    def send(self, arguments, seconds=None):
        return self.run("send", arguments, seconds)

    def receive(self, arguments, seconds=None):
        return self.run("receive", arguments, seconds)
