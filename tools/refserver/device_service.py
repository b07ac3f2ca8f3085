"""The device-communication service: the server's public key and the ACT.

GetPublicKey answers with the instance's RSA key (2048-bit; one key per
process, made on first use, unless a test put its own in state.rsa_key):
algorithm "1", strength "2048", length = byte count of the DER form, key =
Base64 of the DER PKCS #1 RSAPublicKey.

GetACT finds the client by the AssertionID of the SAML assertion in
wsse:Security (it must be one that the token service issued). With an empty
CipherData and no HMAC key held for that client it answers the fault
GetActErrorRequestHmacKey (Code soap:Receiver), status 500. A CipherData is
Base64 of the big-endian RSA PKCS #1 v1.5 block of the client's HMAC key: it
is decrypted and kept in state.hmac_keys[assertion id]. The answer carries
ACTBinary = Base64(state.act_bytes) and, unless state.sign_act is False,
ACTSignature = Base64(HMAC-SHA1(key, act bytes)).

Kept in state.extra for tests, one entry per GetACT request:
  "acv_requests"  the ACVValue texts, in request order
  "fp_names"      the FPName text
  "act_requests"  {"assertion_id", "fp_name", "acv", "hmac_algorithm",
                   "hmac_key_strength", "public_key_algorithm",
                   "public_key_strength", "cipher_data" (bool), "result"}
"""
import hashlib
import hmac
import threading

import answers
import service_util as su
from service_api import InstanceState, Reply, Request

RSA_BITS = 2048
PUBLIC_KEY_ALGORITHM = "1"

_process_key = None
_process_key_lock = threading.Lock()


def process_rsa_key():
    """The RSA private key shared by every instance of this process."""
    global _process_key
    with _process_key_lock:
        if _process_key is None:
            from cryptography.hazmat.primitives.asymmetric import rsa
            _process_key = rsa.generate_private_key(public_exponent=65537, key_size=RSA_BITS)
        return _process_key


def public_key_der(private_key) -> bytes:
    from cryptography.hazmat.primitives import serialization
    return private_key.public_key().public_bytes(serialization.Encoding.DER, serialization.PublicFormat.PKCS1)


class DeviceService:
    def __init__(self, state: InstanceState):
        self.state = state

    def _key(self):
        if self.state.rsa_key is None:
            self.state.rsa_key = process_rsa_key()
        return self.state.rsa_key

    def handle(self, request: Request) -> Reply:
        state = self.state
        root = request.xml
        if root is None:
            return su.device_fault(state, "SoapRequestMessageError", "The request is not a SOAP envelope.",
                                   code="soap:Sender")
        action = su.action(root, state)
        if action == state.zeb_namespace + "/GetPublicKey" or su.first(
                root, "soap:Body/*[local-name()='GetPublicKeyRequest']", state) is not None:
            return self._get_public_key()
        if action == state.zeb_namespace + "/GetACT" or su.first(
                root, "soap:Body/*[local-name()='GetACTRequest']", state) is not None:
            return self._get_act(root)
        return su.device_fault(state, "SoapRequestMessageError", "Unknown request.", code="soap:Sender")

    def _get_public_key(self) -> Reply:
        der = public_key_der(self._key())
        return su.xml_reply(answers.get_public_key_response(
            algorithm=PUBLIC_KEY_ALGORITHM, strength=str(self._key().key_size), length=str(len(der)),
            key=su.b64encode(der), zeb_namespace=self.state.zeb_namespace))

    def _get_act(self, root) -> Reply:
        state = self.state
        assertion_id = su.text(root, "soap:Header/wsse:Security/samlv11:Assertion/@AssertionID", state)
        base = "soap:Body/*[local-name()='GetACTRequest']/*[local-name()='ACTParameter']/"

        def field(path):
            # The request's elements are in the zeb namespace (its default).
            return su.text(root, base + path, state)

        fp_name = field("*[local-name()='FPName']")
        acv = su.texts(root, base + "*[local-name()='ACVArray']/*[local-name()='ACVValue']", state)
        crypto = "*[local-name()='CryptoInfo']/"
        cipher_text = field(crypto + "*[local-name()='CipherDataInfo']/*[local-name()='CipherData']")
        entry = {
            "assertion_id": assertion_id,
            "fp_name": fp_name,
            "acv": acv,
            "hmac_algorithm": field(crypto + "*[local-name()='HMACInfo']/*[local-name()='HMACAlgorithm']"),
            "hmac_key_strength": field(crypto + "*[local-name()='HMACInfo']/*[local-name()='HMACKeyStrength']"),
            "public_key_algorithm": field(
                crypto + "*[local-name()='PublicKeyInfo']/*[local-name()='PublicKeyAlgorithm']"),
            "public_key_strength": field(
                crypto + "*[local-name()='PublicKeyInfo']/*[local-name()='PublicKeyStrength']"),
            "cipher_data": bool(cipher_text and cipher_text.strip()),
            "result": "ok",
        }
        su.record(state, "acv_requests", acv)
        su.record(state, "fp_names", fp_name)
        su.record(state, "act_requests", entry)

        def fail(subcode, reason, code="soap:Receiver"):
            entry["result"] = subcode
            return su.device_fault(state, subcode, reason, code=code)

        if not assertion_id or assertion_id not in state.assertions:
            return fail("GetActError", "No valid SAML assertion in the security header.")

        if entry["cipher_data"]:
            block = su.b64decode(cipher_text)
            if block is None:
                return fail("IllegalActParameter", "CipherData is not Base64.", code="soap:Sender")
            try:
                from cryptography.hazmat.primitives.asymmetric import padding
                key = self._key().decrypt(block, padding.PKCS1v15())
            except ValueError:
                return fail("IllegalActParameter", "CipherData does not decrypt with the server's key.",
                            code="soap:Sender")
            state.hmac_keys[assertion_id] = key

        key = state.hmac_keys.get(assertion_id)
        if key is None:
            return fail("GetActErrorRequestHmacKey", "The server holds no HMAC key for this client.")

        act = bytes(state.act_bytes)
        signature = None
        if state.sign_act:
            signature = su.b64encode(hmac.new(key, act, hashlib.sha1).digest())
        return su.xml_reply(answers.get_act_response(act=su.b64encode(act), signature=signature,
                                                     zeb_namespace=state.zeb_namespace))
