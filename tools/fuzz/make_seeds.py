"""Writes the fuzzer's seed corpus: real answers of the simulated server.

    /usr/bin/python3 make_seeds.py <output folder>

Every seed is rendered by tools/refserver/answers.py, the one source of the
server's answer shapes, so the seeds follow the simulator when it changes.
The set covers each answer kind with its usual values, parts left out,
other prefixes, and a fault for every subcode the add-in knows. Seeds are
written as UTF-8 files named <nn>-<answer>.xml; the folder is emptied of
older seeds first. Output is deterministic.
"""
import base64
import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "refserver"))

import answers  # noqa: E402
from service_api import DEFAULT_WLS_NAMESPACE, DEFAULT_ZEB_NAMESPACE  # noqa: E402

LOGIN_SUBCODES = [
    "BadRequest", "FailedAuthentication", "NoSuchAccount", "NetworkAccessError", "IllegalArgument",
    "InvalidRequest", "InvalidSecurityToken", "InvalidSecurity", "InvalidTimeRange", "RequestFailed",
    "SecurityTokenUnavailable", "UnableToRenew", "UnableToRetrievePolicy", "UnsupportedAlgorithm",
    "UnsupportedSecurityToken", "ElementDoesNotExist", "ElementExist", "General", "MaxSession",
    "AuthenticationBusy", "UnknownException", "ISORequired", "Policy", "AuthenticationBadElements",
    "ExpiredData", "InvalidScope", "RenewNeeded", "LockOutError", "SoapRequestMessageError",
    "LoginServiceError",
]
DEVICE_SUBCODES = [
    "SoapRequestMessageError", "SoapResponseMessageError", "RoleMappingDataError", "DriverLogicError",
    "IllegalActParameter", "GetActErrorNotZebMode", "InvalidContext", "GetActErrorRequestHmacKey", "GetActError",
]
CODES = ["soap:Sender", "soap:Receiver", "soap:VersionMismatch", "soap:MustUnderstand",
         "soap:DataEncodingUnknown", "env:Receiver", "Unknown"]

# A 1024-bit RSA public key in DER (PKCS #1), fixed so that the corpus does
# not change from run to run: modulus of 128 0xC5 bytes with the top bit set,
# exponent 65537.
_MODULUS = b"\x00" + b"\xC5" * 128
_RSA_DER = (b"\x30\x81\x89" + b"\x02\x81\x81" + _MODULUS + b"\x02\x03\x01\x00\x01")
PUBLIC_KEY = base64.b64encode(_RSA_DER).decode()


def seeds():
    policy = [{"Info": "Domain login", "AuthType": "NTLM", "EnableCredentialCache": "true"},
              {"Info": "Card", "AuthType": "Basic2", "EnableCredentialCache": "false"},
              {"Info": "Digest", "AuthType": "SDL2"}]
    yield "get_policy_response", {"auth_infos": policy}
    yield "get_policy_response", {"auth_infos": []}
    yield "get_policy_response", {"auth_infos": [{"Info": "x" * 100, "AuthType": "Basic" * 20,
                                                  "EnableCredentialCache": "TRUE"}],
                                  "wls_prefix": "p", "action": "urn:a"}
    yield "get_policy_response", {"auth_infos": [{"Info": "\u65e5\u672c <&> \U0001F600", "AuthType": "SDL"}] * 5,
                                  "xml_declaration": False}
    yield "get_public_key_response", {"key": PUBLIC_KEY, "length": str(len(_RSA_DER))}
    yield "get_public_key_response", {"algorithm": None, "strength": None, "key": None}
    yield "get_public_key_response", {"key": PUBLIC_KEY[:40], "zeb_prefix": "d", "soap_prefix": "env"}
    yield "get_act_response", {"act": base64.b64encode(bytes(range(256))).decode(),
                               "signature": base64.b64encode(b"\x01" * 20).decode()}
    yield "get_act_response", {"act": "", "signature": None}
    yield "get_act_response", {"act": None, "signature": "=="}
    yield "rstr_assertion_response", {"assertion_id": "_assertion-1", "name_identifier": "LAB\\alice"}
    yield "rstr_assertion_response", {"assertion_id": None}
    yield "rstr_assertion_response", {"assertion_id": "a\"'<>&", "not_on_or_after": None, "saml_prefix": "s",
                                      "action": answers.WST_ISSUE_RESPONSE_ACTION}
    yield "rstr_challenge_response", {"challenge": base64.b64encode(b"challenge-bytes" * 4).decode(),
                                      "context": "ctx-1"}
    yield "rstr_challenge_response", {"challenge": None, "context": None}
    yield "cancel_response", {"cancelled": True, "action": answers.WST_CANCEL_RESPONSE_ACTION}
    yield "cancel_response", {"cancelled": False}
    for code in CODES:
        yield "soap_fault", {"code": code, "detail": "detail text"}
    for name in LOGIN_SUBCODES:
        yield "soap_fault", {"subcode": "wls:" + name, "subcode_namespace": DEFAULT_WLS_NAMESPACE}
    for name in DEVICE_SUBCODES:
        yield "soap_fault", {"code": "soap:Receiver", "subcode": "zeb:" + name,
                             "subcode_namespace": DEFAULT_ZEB_NAMESPACE}
    yield "soap_fault", {"subcode": "q:FailedAuthentication", "declare_on": "envelope"}
    yield "soap_fault", {"subcode": "wls:NoSuchAccount", "declare_on": "none", "reason": None}
    yield "soap_fault", {"subcode": "wls:General", "value_attributes": {"a": "b"}, "soap_prefix": "env"}


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: make_seeds.py <output folder>")
    out = sys.argv[1]
    os.makedirs(out, exist_ok=True)
    for name in os.listdir(out):
        if name.endswith(".xml"):
            os.remove(os.path.join(out, name))
    count = 0
    for count, (function, args) in enumerate(seeds(), 1):
        text = getattr(answers, function)(**args)
        with open(os.path.join(out, "%02d-%s.xml" % (count, function)), "wb") as f:
            f.write(text.encode("utf-8"))
    print("make_seeds: %d seeds in %s" % (count, out))


if __name__ == "__main__":
    main()
