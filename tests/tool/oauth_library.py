"""A provider on Authlib, so that client and provider do not share one reading of RFC 8628."""

import sys

# Debian's packages, whichever Python runs this: they fit each other.
sys.path.insert(0, "/usr/lib/python3/dist-packages")

from authlib.integrations.flask_oauth2 import AuthorizationServer
from authlib.oauth2.rfc6749 import ClientMixin, InvalidScopeError, TokenMixin
from authlib.oauth2.rfc6749.grants import RefreshTokenGrant
from authlib.oauth2.rfc8628 import (DeviceAuthorizationEndpoint, DeviceCodeGrant,
                                    DeviceCredentialDict)
from flask import Flask

DEVICE = "geraetewort"


class Client(ClientMixin):
    def __init__(self, secret):
        self.secret = secret

    def get_client_id(self):
        return "tool"

    def check_client_secret(self, secret):
        return secret == self.secret

    def check_endpoint_auth_method(self, method, _):
        return method == ("client_secret_post" if self.secret else "none")

    def check_grant_type(self, _):
        return True

    def get_allowed_scope(self, scope):
        return scope


class Token(TokenMixin):
    def __init__(self, scope):
        self.scope = scope

    def check_client(self, _):
        return True

    def get_scope(self):
        return self.scope

    def get_expires_in(self):
        return 3600


class Library:
    """Answers what `word` says, see provider.py. `accepted` is what may be exchanged for tokens."""

    def __init__(self, access, refresh):
        self.credential, self.accepted = {}, ()
        app = Flask(__name__)
        app.config.update(OAUTH2_ACCESS_TOKEN_GENERATOR=access,
                          OAUTH2_REFRESH_TOKEN_GENERATOR=refresh)
        server = AuthorizationServer(app, self.client, lambda token, request: None)
        server.register_endpoint(self.device_endpoint())
        for grant in self.grants():
            server.register_grant(grant)
        app.post("/token")(server.create_token_response)
        app.post("/device", endpoint="device")(
            lambda: server.create_endpoint_response("device_authorization"))
        self.server, self.web = server, app.test_client()

    def answer(self, word, secret, accepted, path, body):
        """The status and the document."""
        self.word, self.secret, self.accepted = word, secret, accepted
        self.server.scopes_supported = ["none"] if word == "invalid_scope" else None
        answer = self.web.post(path, base_url="https://localhost", data=body,
                               content_type="application/x-www-form-urlencoded")
        return answer.status_code, answer.get_json()

    def client(self, name):
        is_known = name == "tool" and self.word != "invalid_client"
        return Client(self.secret) if is_known else None

    def device_endpoint(library):
        class Endpoint(DeviceAuthorizationEndpoint):
            EXPIRES_IN, INTERVAL = 60, 1

            def generate_device_code(self):
                return DEVICE

            def generate_user_code(self):
                return "WDJB-MJHT"

            def get_verification_uri(self):
                return "https://login.example.com/device"

            def save_device_credential(self, client_id, scope, data):
                library.credential = {"client_id": client_id, "scope": scope, **data}
        return Endpoint

    def grants(library):
        class Device(DeviceCodeGrant):
            def query_device_credential(self, code):
                past = {"expires_at": 1} if library.word == "expired_token" else {}
                is_open = code == library.credential.get("device_code") and code in library.accepted
                return DeviceCredentialDict(library.credential, **past) if is_open else None

            def query_user_grant(self, _):
                return {"ok": ("anna", True), "access_denied": ("anna", False)}.get(library.word)

            def should_slow_down(self, _):
                return library.word == "slow_down"

        class Refresh(RefreshTokenGrant):
            INCLUDE_NEW_REFRESH_TOKEN = True
            TOKEN_ENDPOINT_AUTH_METHODS = DeviceCodeGrant.TOKEN_ENDPOINT_AUTH_METHODS

            def authenticate_refresh_token(self, token):
                if library.word == "invalid_scope":
                    raise InvalidScopeError  # what was granted is no longer given
                is_good = token in library.accepted and library.word != "invalid_grant"
                return Token(library.credential["scope"]) if is_good else None

            def authenticate_user(self, _):
                return "anna"

            def revoke_old_credential(self, _):
                pass
        return Device, Refresh
