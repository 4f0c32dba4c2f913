"""A provider on Authlib, so that client and provider do not share one reading of RFC 8628."""

import sys
from types import SimpleNamespace

# Debian's packages, whichever Python runs this: they fit each other.
sys.path.insert(0, "/usr/lib/python3/dist-packages")

from authlib.integrations.flask_oauth2 import AuthorizationServer
from authlib.oauth2.rfc6749 import InvalidScopeError
from authlib.oauth2.rfc6749.grants import RefreshTokenGrant
from authlib.oauth2.rfc8628 import (DeviceAuthorizationEndpoint, DeviceCodeGrant,
                                    DeviceCredentialDict)
from flask import Flask


class Endpoint(DeviceAuthorizationEndpoint):
    EXPIRES_IN, INTERVAL = 60, 1

    def generate_device_code(self):
        return "geraetewort"

    def generate_user_code(self):
        return "WDJB-MJHT"

    def get_verification_uri(self):
        return "https://login.example.com/device"

    def save_device_credential(self, client_id, scope, data):
        self.server.credential = {"client_id": client_id, "scope": scope, **data}


class DeviceGrant(DeviceCodeGrant):
    def query_device_credential(self, code):
        past = {"expires_at": 1} if self.server.word == "expired_token" else {}
        is_open = code in self.server.accepted and code == self.server.credential["device_code"]
        return DeviceCredentialDict(self.server.credential, **past) if is_open else None

    def query_user_grant(self, _):
        return {"ok": ("anna", True), "access_denied": ("anna", False)}.get(self.server.word)

    def should_slow_down(self, _):
        return self.server.word == "slow_down"


class RefreshGrant(RefreshTokenGrant):
    INCLUDE_NEW_REFRESH_TOKEN = True
    TOKEN_ENDPOINT_AUTH_METHODS = DeviceCodeGrant.TOKEN_ENDPOINT_AUTH_METHODS

    def authenticate_refresh_token(self, token):
        if self.server.word == "invalid_scope":
            raise InvalidScopeError  # what was granted is no longer given
        is_good = token in self.server.accepted and self.server.word != "invalid_grant"
        return is_good and SimpleNamespace(
            check_client=lambda _: True, get_expires_in=lambda: 3600,
            get_scope=lambda: self.server.credential["scope"])

    def authenticate_user(self, _):
        return "anna"

    def revoke_old_credential(self, _):
        pass  # provider.py does


class Library(AuthorizationServer):
    def __init__(self, access, refresh):
        app = Flask(__name__)
        app.config.update(OAUTH2_ACCESS_TOKEN_GENERATOR=access,
                          OAUTH2_REFRESH_TOKEN_GENERATOR=refresh)
        super().__init__(app, self.client, lambda token, request: None)
        self.register_endpoint(Endpoint)
        self.register_grant(DeviceGrant)
        self.register_grant(RefreshGrant)
        app.post("/token")(self.create_token_response)
        app.post("/device", endpoint="device")(
            lambda: self.create_endpoint_response(Endpoint.ENDPOINT_NAME))
        self.web = app.test_client()

    def answer(self, word, secret, accepted, path, body):
        """The status and the document. `accepted` is what may be exchanged for tokens."""
        self.word, self.secret, self.accepted = word, secret, accepted
        self.scopes_supported = ["none"] if word == "invalid_scope" else None
        answer = self.web.post(path, base_url="https://localhost", data=body,
                               content_type="application/x-www-form-urlencoded")
        return answer.status_code, answer.get_json()

    def client(self, name):
        method = "client_secret_post" if self.secret else "none"
        return SimpleNamespace(
            get_client_id=lambda: name, check_client_secret=lambda secret: secret == self.secret,
            check_endpoint_auth_method=lambda used, _: used == method,
            check_grant_type=lambda _: True, get_allowed_scope=lambda scope: scope
        ) if name == "tool" and self.word != "invalid_client" else None
