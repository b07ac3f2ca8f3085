"""The security token service (WS-Trust 2005/02 at the STS path).

Requests are told apart by wsa:Action, falling back to the body element:

  RST issue   wst:RequestSecurityToken    Basic, Basic2 (one shot), or the
                                          first leg of SDL, SDL2, NTLM
  RSTR issue  wst:RequestSecurityTokenResponse  second leg, by wst:Context
  RST cancel  wst:RequestSecurityToken with RequestType .../Cancel

Users come from state.users ({user id: {"password", "domain",
"name_identifier"}}). A successful login issues a SAML 1.1 assertion with a
fresh AssertionID, recorded in state.assertions (id -> user id); the
assertion's NameIdentifier is the user's name_identifier when set, else the
user id. Wrong credentials give the login fault FailedAuthentication (Code
soap:Sender), status 500. A cancel appends the assertion id to state.cancels.
Pending challenges live in state.challenges (context -> data).

Kept in state.extra for tests: "logins", one entry per finished login
attempt: {"mechanism", "user", "domain", "result"} ("ok" or the fault
subcode).
"""
import base64
import datetime
import hashlib
import hmac
import os
import struct
import time
import uuid
from typing import Any, Dict, List, Optional, Tuple

import answers
import service_util as su
from service_api import InstanceState, Reply, Request

SDL_CHALLENGE_PREFIX = "SDLChallengeRequest"
SDL_CHALLENGE_BYTES = 16

# ---------------------------------------------------------------------------
# Digests of the SDL mechanisms.


def _latin1(password: str) -> bytes:
    # Characters without an ISO-8859-1 form become "?", as the client's
    # best-fit conversion does for most of them.
    return password.encode("latin-1", errors="replace")


def sdl2_expected(user_id: str, password: str, challenge: bytes) -> bytes:
    """UTF-8 of user id, a blank and hex(HMAC-MD5(MD5(password), challenge));
    an empty password keys the HMAC with nothing."""
    key = hashlib.md5(_latin1(password)).digest() if password else b""
    digest = hmac.new(key, challenge, hashlib.md5).hexdigest()
    return (user_id + " " + digest).encode("utf-8")


def sdl_expected(password: str, challenge: bytes) -> bytes:
    """hex(MD5(hex(MD5(password)) + challenge)); an empty password hashes
    the challenge alone."""
    prefix = hashlib.md5(_latin1(password)).hexdigest().encode("ascii") if password else b""
    return hashlib.md5(prefix + challenge).hexdigest().encode("ascii")


# ---------------------------------------------------------------------------
# NTLM: the server half (CHALLENGE out, AUTHENTICATE checked).

NTLMSSP_SIGNATURE = b"NTLMSSP\x00"
NTLM_NEGOTIATE_UNICODE = 0x00000001
NTLM_REQUEST_TARGET = 0x00000004
NTLM_NEGOTIATE_SIGN = 0x00000010
NTLM_NEGOTIATE_SEAL = 0x00000020
NTLM_NEGOTIATE_NTLM = 0x00000200
NTLM_NEGOTIATE_ALWAYS_SIGN = 0x00008000
NTLM_TARGET_TYPE_DOMAIN = 0x00010000
NTLM_EXTENDED_SESSIONSECURITY = 0x00080000
NTLM_NEGOTIATE_TARGET_INFO = 0x00800000
NTLM_NEGOTIATE_VERSION = 0x02000000
NTLM_NEGOTIATE_128 = 0x20000000
NTLM_NEGOTIATE_KEY_EXCH = 0x40000000
NTLM_NEGOTIATE_56 = 0x80000000

NTLM_SERVER_FLAGS = (NTLM_NEGOTIATE_UNICODE | NTLM_REQUEST_TARGET | NTLM_NEGOTIATE_NTLM
                     | NTLM_NEGOTIATE_ALWAYS_SIGN | NTLM_TARGET_TYPE_DOMAIN | NTLM_EXTENDED_SESSIONSECURITY
                     | NTLM_NEGOTIATE_TARGET_INFO | NTLM_NEGOTIATE_VERSION | NTLM_NEGOTIATE_128
                     | NTLM_NEGOTIATE_56)
# Granted only when the client asks for them.
NTLM_OPTIONAL_FLAGS = NTLM_NEGOTIATE_SIGN | NTLM_NEGOTIATE_SEAL | NTLM_NEGOTIATE_KEY_EXCH

NTLM_DOMAIN = "REFDOMAIN"
NTLM_COMPUTER = "REFSERVER"
NTLM_DNS_DOMAIN = "refdomain.test"
NTLM_DNS_COMPUTER = "refserver.refdomain.test"
# Windows 10 (10.0.19041), NTLM revision 15.
NTLM_VERSION = struct.pack("<BBHBBBB", 10, 0, 19041, 0, 0, 0, 15)


def _av_pair(av_id: int, value: bytes) -> bytes:
    return struct.pack("<HH", av_id, len(value)) + value


def _filetime_now() -> bytes:
    return struct.pack("<Q", int((time.time() + 11644473600) * 10_000_000))


def ntlm_negotiate_flags(negotiate: bytes) -> Optional[int]:
    """The flags of an NTLM NEGOTIATE message, or None when it is not one."""
    if len(negotiate) < 16 or negotiate[:8] != NTLMSSP_SIGNATURE:
        return None
    if struct.unpack_from("<I", negotiate, 8)[0] != 1:
        return None
    return struct.unpack_from("<I", negotiate, 12)[0]


def ntlm_challenge_message(client_flags: int, server_challenge: bytes) -> bytes:
    """An NTLM CHALLENGE message with target information for NTLMv2."""
    flags = NTLM_SERVER_FLAGS | (client_flags & NTLM_OPTIONAL_FLAGS)
    target_name = NTLM_DOMAIN.encode("utf-16-le")
    target_info = (_av_pair(2, NTLM_DOMAIN.encode("utf-16-le"))
                   + _av_pair(1, NTLM_COMPUTER.encode("utf-16-le"))
                   + _av_pair(4, NTLM_DNS_DOMAIN.encode("utf-16-le"))
                   + _av_pair(3, NTLM_DNS_COMPUTER.encode("utf-16-le"))
                   + _av_pair(7, _filetime_now())
                   + _av_pair(0, b""))
    header_size = 56
    name_offset = header_size
    info_offset = name_offset + len(target_name)
    return (NTLMSSP_SIGNATURE + struct.pack("<I", 2)
            + struct.pack("<HHI", len(target_name), len(target_name), name_offset)
            + struct.pack("<I", flags)
            + server_challenge
            + b"\x00" * 8
            + struct.pack("<HHI", len(target_info), len(target_info), info_offset)
            + NTLM_VERSION
            + target_name + target_info)


def ntlm_parse_authenticate(message: bytes) -> Optional[Dict[str, Any]]:
    """The fields of an NTLM AUTHENTICATE message, or None when it is not one."""
    if len(message) < 64 or message[:8] != NTLMSSP_SIGNATURE:
        return None
    if struct.unpack_from("<I", message, 8)[0] != 3:
        return None

    def field(offset: int) -> bytes:
        length, _, start = struct.unpack_from("<HHI", message, offset)
        if start + length > len(message):
            raise ValueError("field outside the message")
        return message[start:start + length]

    try:
        flags = struct.unpack_from("<I", message, 60)[0]
        encoding = "utf-16-le" if flags & NTLM_NEGOTIATE_UNICODE else "latin-1"
        return {
            "lm": field(12),
            "nt": field(20),
            "domain": field(28).decode(encoding, errors="replace"),
            "user": field(36).decode(encoding, errors="replace"),
            "workstation": field(44).decode(encoding, errors="replace"),
            "flags": flags,
        }
    except (ValueError, struct.error):
        return None


def ntlm_nt_hash(password: str) -> bytes:
    """MD4 of the UTF-16LE password (impacket's, since OpenSSL 3 drops MD4)."""
    from impacket import ntlm
    return ntlm.compute_nthash(password)


def ntlmv2_valid(nt_response: bytes, server_challenge: bytes, user: str, domain: str, password: str) -> bool:
    """Checks an NTLMv2 response: NTProofStr = HMAC-MD5(NTOWFv2, challenge + blob)."""
    if len(nt_response) <= 24:
        return False  # NTLMv1 answers are refused
    key = hmac.new(ntlm_nt_hash(password), (user.upper() + domain).encode("utf-16-le"), hashlib.md5).digest()
    proof = hmac.new(key, server_challenge + nt_response[16:], hashlib.md5).digest()
    return hmac.compare_digest(proof, nt_response[:16])


# ---------------------------------------------------------------------------


def _find_user(users: Dict[str, Dict[str, Any]], user_id: str) -> Tuple[Optional[str], Optional[Dict[str, Any]]]:
    """The configured user for user_id: exact match first, then ignoring case."""
    if user_id in users:
        return user_id, users[user_id]
    for key, value in users.items():
        if key.lower() == user_id.lower():
            return key, value
    return None, None


def _domain_ok(user: Dict[str, Any], domain: Optional[str]) -> bool:
    """A configured domain must match (ignoring case); none configured accepts any."""
    expected = user.get("domain") or ""
    return not expected or (domain or "").lower() == expected.lower()


class TokenService:
    def __init__(self, state: InstanceState):
        self.state = state

    # dispatch -------------------------------------------------------------
    def handle(self, request: Request) -> Reply:
        state = self.state
        root = request.xml
        if root is None:
            return su.login_fault(state, "InvalidRequest", "The request is not a SOAP envelope.")
        action = su.action(root, state)
        rst = su.first(root, "soap:Body/wst:RequestSecurityToken", state)
        rstr = su.first(root, "soap:Body/wst:RequestSecurityTokenResponse", state)
        request_type = (su.text(root, "soap:Body/wst:RequestSecurityToken/wst:RequestType", state) or "").strip()

        if action == su.WST_CANCEL_ACTION or (rst is not None and request_type == su.WST_CANCEL_TYPE):
            return self._cancel(root)
        if action == su.WST_ISSUE_RESPONSE_ACTION or (rst is None and rstr is not None):
            return self._second_leg(root)
        if rst is not None:
            return self._issue(root)
        return su.login_fault(state, "InvalidRequest", "Unknown request.")

    # replies --------------------------------------------------------------
    def _assertion(self, user_key: str, user: Dict[str, Any], mechanism: str, domain: Optional[str]) -> Reply:
        state = self.state
        assertion_id = "_" + uuid.uuid4().hex
        state.assertions[assertion_id] = user_key
        name = user.get("name_identifier") or user_key
        now = datetime.datetime.now(datetime.timezone.utc).replace(microsecond=0)
        su.record(state, "logins", {"mechanism": mechanism, "user": user_key, "domain": domain, "result": "ok"})
        return su.xml_reply(answers.rstr_assertion_response(
            assertion_id=assertion_id, name_identifier=name,
            issue_instant=now.strftime("%Y-%m-%dT%H:%M:%SZ"),
            not_on_or_after=(now + datetime.timedelta(hours=8)).strftime("%Y-%m-%dT%H:%M:%SZ")))

    def _refuse(self, mechanism: str, user_id: Optional[str], domain: Optional[str],
                subcode: str = "FailedAuthentication", reason: str = "Authentication failed.") -> Reply:
        su.record(self.state, "logins", {"mechanism": mechanism, "user": user_id, "domain": domain,
                                          "result": subcode})
        return su.login_fault(self.state, subcode, reason)

    # RST issue ------------------------------------------------------------
    def _issue(self, root) -> Reply:
        state = self.state
        base = "soap:Body/wst:RequestSecurityToken/"
        auth_type = (su.text(root, base + "wls:AuthInfo/wls:AuthType", state) or "").strip()
        info = su.text(root, base + "wls:AuthInfo/wls:Info", state)
        if su.first(root, base + "wls:BasicAuthenticationData", state) is not None:
            return self._basic2(root, base + "wls:BasicAuthenticationData/")
        data = su.b64decode(su.text(root, base + "wls:AuthenticationData", state))
        if data is None:
            return self._refuse(auth_type or "?", None, info, "InvalidRequest", "No authentication data.")
        if data.startswith(NTLMSSP_SIGNATURE) or auth_type.upper() == "NTLM":
            return self._ntlm_negotiate(data, info)
        if data.startswith(SDL_CHALLENGE_PREFIX.encode("utf-8")) or auth_type.upper() in ("SDL", "SDL2"):
            return self._sdl_challenge(data, "SDL" if auth_type.upper() == "SDL" else "SDL2")
        return self._basic(data)

    def _basic(self, data: bytes) -> Reply:
        try:
            fragment = data.decode("utf-8")
        except UnicodeDecodeError:
            return self._refuse("Basic", None, None, "InvalidRequest", "The fragment is not UTF-8.")
        candidates = _split_basic_fragment(fragment)
        if not candidates:
            return self._refuse("Basic", None, None, "InvalidRequest", "Malformed authentication data.")
        for user_id, password, domain in candidates:
            user_key, user = _find_user(self.state.users, user_id)
            if user is not None and user.get("password", "") == password and _domain_ok(user, domain):
                return self._assertion(user_key, user, "Basic", domain)
        user_id, _, domain = candidates[0]
        return self._refuse("Basic", user_id, domain)

    def _basic2(self, root, base: str) -> Reply:
        state = self.state
        user_id = su.text(root, base + "wls:Id", state)
        password = su.text(root, base + "wls:Password", state)
        domain = su.text(root, base + "wls:Domain", state)
        if user_id is None or password is None or domain is None:
            return self._refuse("Basic2", user_id, domain, "InvalidRequest", "Malformed authentication data.")
        user_key, user = _find_user(state.users, user_id)
        if user is not None and user.get("password", "") == password and _domain_ok(user, domain):
            return self._assertion(user_key, user, "Basic2", domain)
        return self._refuse("Basic2", user_id, domain)

    def _new_context(self, data: Dict[str, Any]) -> str:
        context = "ctx-" + uuid.uuid4().hex
        self.state.challenges[context] = data
        return context

    def _sdl_challenge(self, data: bytes, mechanism: str) -> Reply:
        try:
            text = data.decode("utf-8")
        except UnicodeDecodeError:
            text = ""
        if not text.startswith(SDL_CHALLENGE_PREFIX):
            return self._refuse(mechanism, None, None, "InvalidRequest", "Expected an SDL challenge request.")
        user_id = text[len(SDL_CHALLENGE_PREFIX):]
        challenge = os.urandom(SDL_CHALLENGE_BYTES)
        context = self._new_context({"mechanism": mechanism, "user": user_id,
                                     "challenge": base64.b64encode(challenge).decode("ascii")})
        return su.xml_reply(answers.rstr_challenge_response(challenge=su.b64encode(challenge), context=context,
                                                            wls_namespace=self.state.wls_namespace))

    def _ntlm_negotiate(self, data: bytes, domain: Optional[str]) -> Reply:
        flags = ntlm_negotiate_flags(data)
        if flags is None:
            return self._refuse("NTLM", None, domain, "InvalidRequest", "Expected an NTLM NEGOTIATE message.")
        server_challenge = os.urandom(8)
        context = self._new_context({"mechanism": "NTLM",
                                     "challenge": base64.b64encode(server_challenge).decode("ascii")})
        message = ntlm_challenge_message(flags, server_challenge)
        return su.xml_reply(answers.rstr_challenge_response(challenge=su.b64encode(message), context=context,
                                                            wls_namespace=self.state.wls_namespace))

    # RSTR (second leg) ----------------------------------------------------
    def _second_leg(self, root) -> Reply:
        state = self.state
        base = "soap:Body/wst:RequestSecurityTokenResponse"
        context = su.text(root, base + "/@wst:Context", state)
        pending = state.challenges.pop(context, None) if context is not None else None
        if pending is None:
            return self._refuse("?", None, None, "InvalidRequest", "Unknown context.")
        mechanism = pending["mechanism"]
        answer = su.b64decode(su.text(root, base + "/wls:AuthenticationData", state))
        challenge = base64.b64decode(pending["challenge"])
        if answer is None:
            return self._refuse(mechanism, pending.get("user"), None, "InvalidRequest", "No authentication data.")
        if mechanism == "NTLM":
            return self._ntlm_authenticate(answer, challenge)

        user_id = pending["user"]
        user_key, user = _find_user(state.users, user_id)
        if user is None:
            return self._refuse(mechanism, user_id, None)
        password = user.get("password", "")
        expected = (sdl2_expected(user_id, password, challenge) if mechanism == "SDL2"
                    else sdl_expected(password, challenge))
        if hmac.compare_digest(answer, expected):
            return self._assertion(user_key, user, mechanism, user.get("domain"))
        return self._refuse(mechanism, user_id, None)

    def _ntlm_authenticate(self, message: bytes, server_challenge: bytes) -> Reply:
        fields = ntlm_parse_authenticate(message)
        if fields is None:
            return self._refuse("NTLM", None, None, "InvalidRequest", "Expected an NTLM AUTHENTICATE message.")
        user_id, domain = fields["user"], fields["domain"]
        user_key, user = _find_user(self.state.users, user_id)
        if (user is None or not _domain_ok(user, domain)
                or not ntlmv2_valid(fields["nt"], server_challenge, user_id, domain, user.get("password", ""))):
            return self._refuse("NTLM", user_id, domain)
        return self._assertion(user_key, user, "NTLM", domain)

    # cancel ---------------------------------------------------------------
    def _cancel(self, root) -> Reply:
        state = self.state
        assertion_id = su.text(
            root, "soap:Body/wst:RequestSecurityToken/wst:CancelTarget/wsse:SecurityTokenReference/wsse:KeyIdentifier",
            state)
        if assertion_id is None:
            return su.login_fault(state, "InvalidRequest", "No assertion to cancel.")
        state.cancels.append(assertion_id.strip())
        return su.xml_reply(answers.cancel_response())


def _split_basic_fragment(fragment: str) -> List[Tuple[str, str, str]]:
    """Every (id, password, domain) reading of
    "<wls:ID>..</wls:ID><wls:PASSWORD>..</wls:PASSWORD><wls:Domain>..</wls:Domain>".
    The values are verbatim, so a value may itself hold one of the tags: all
    splits are offered and the first that names a valid login wins."""
    head, mid1, mid2, tail = "<wls:ID>", "</wls:ID><wls:PASSWORD>", "</wls:PASSWORD><wls:Domain>", "</wls:Domain>"
    if not (fragment.startswith(head) and fragment.endswith(tail)):
        return []
    inner = fragment[len(head):len(fragment) - len(tail)]
    out = []
    start = 0
    while True:
        i = inner.find(mid1, start)
        if i < 0:
            break
        rest = inner[i + len(mid1):]
        j_start = 0
        while True:
            j = rest.find(mid2, j_start)
            if j < 0:
                break
            out.append((inner[:i], rest[:j], rest[j + len(mid2):]))
            j_start = j + 1
        start = i + 1
    return out
