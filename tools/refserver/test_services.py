"""Self-test of the simulator services, without a server: requests shaped
like the add-in's are built here, parsed with lxml and handed to the
services directly."""
import base64
import hashlib
import hmac
import unittest

from lxml import etree

import device_service
import token_service
from device_service import DeviceService
from policy_service import PolicyService
from service_api import InstanceState, Request
from token_service import TokenService

NS = {
    "soap": "http://www.w3.org/2003/05/soap-envelope",
    "wst": "http://schemas.xmlsoap.org/ws/2005/02/trust",
    "wsse": "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd",
    "samlv11": "urn:oasis:names:tc:SAML:1.0:assertion",
}
WST = NS["wst"]
TOKEN_TYPE = "http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLV1.1"
ASSERTION_ID_TYPE = ("http://docs.oasis-open.org/wss/2004/XX/oasis-2004XX-wss-saml-token-profile-1.0"
                     "#SAMLAssertionID")
BASE64_TYPE = ("http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-soap-message-security-1.0"
               "#Base64Binary")


def envelope(header: str, body: str) -> bytes:
    return ('<?xml version="1.0" encoding="utf-8"?>'
            '<soap:Envelope xmlns:xsd="http://www.w3.org/2001/XMLSchema" '
            'xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" '
            'xmlns:soap="http://www.w3.org/2003/05/soap-envelope" '
            'xmlns:wsse="%s" '
            'xmlns:wsu="http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd" '
            'xmlns:wsa="http://schemas.xmlsoap.org/ws/2004/08/addressing">%s%s</soap:Envelope>'
            % (NS["wsse"], header, body)).encode("utf-8")


def request(path: str, data: bytes) -> Request:
    return Request(method="POST", path=path, headers=[("Content-Type", "application/soap+xml; charset=utf-8")],
                   body=data, tls=False, connection=1, xml=etree.fromstring(data))


def b64_lines(data: bytes) -> str:
    """Base64 with CR LF every 76 characters, as the add-in writes it."""
    text = base64.b64encode(data).decode("ascii")
    return "\r\n".join(text[i:i + 76] for i in range(0, len(text), 76))


def rst(state: InstanceState, auth_type: str, info: str, credentials: str) -> Request:
    header = ("<soap:Header><wsa:Action>%s/RST/Issue</wsa:Action><wsa:To></wsa:To></soap:Header>" % WST)
    body = ('<soap:Body><wst:RequestSecurityToken xmlns:wst="%s" xmlns:wsse="%s" xmlns:wls="%s">'
            "<wst:RequestType>%s/Issue</wst:RequestType><wst:TokenType>%s</wst:TokenType>"
            "<wls:AuthInfo><wls:Info>%s</wls:Info><wls:AuthType>%s</wls:AuthType></wls:AuthInfo>"
            "%s</wst:RequestSecurityToken></soap:Body>"
            % (WST, NS["wsse"], state.wls_namespace, WST, TOKEN_TYPE, info, auth_type, credentials))
    return request("/wls/STSServer.actv", envelope(header, body))


def rst_data(state, auth_type, info, data: bytes) -> Request:
    return rst(state, auth_type, info, "<wls:AuthenticationData>%s</wls:AuthenticationData>" % b64_lines(data))


def rstr(state: InstanceState, context: str, data: bytes, ntlm_order: bool = False) -> Request:
    header = ("<soap:Header><wsa:Action>%s/RSTR/Issue</wsa:Action><wsa:To></wsa:To></soap:Header>" % WST)
    if ntlm_order:
        start = ('<wst:RequestSecurityTokenResponse xmlns:wst="%s" xmlns:wsse="%s" wst:Context="%s" xmlns:wls="%s">'
                 % (WST, NS["wsse"], context, state.wls_namespace))
    else:
        start = ('<wst:RequestSecurityTokenResponse xmlns:wst="%s" xmlns:wsse="%s" xmlns:wls="%s" wst:Context="%s">'
                 % (WST, NS["wsse"], state.wls_namespace, context))
    body = ("<soap:Body>%s<wst:RequestType>%s/Issue</wst:RequestType>"
            "<wls:AuthenticationData>%s</wls:AuthenticationData></wst:RequestSecurityTokenResponse></soap:Body>"
            % (start, WST, b64_lines(data)))
    return request("/wls/STSServer.actv", envelope(header, body))


def cancel(assertion_id: str, saml: str) -> Request:
    header = ('<soap:Header><wsa:Action>%s/RST/Cancel</wsa:Action><wsa:To></wsa:To>'
              '<wsse:Security soap:mustUnderstand="1">%s</wsse:Security></soap:Header>' % (WST, saml))
    body = ('<soap:Body><wst:RequestSecurityToken xmlns:wst="%s"><wst:RequestType>%s/Cancel</wst:RequestType>'
            '<wst:CancelTarget><wsse:SecurityTokenReference><wsse:KeyIdentifier ValueType="%s" EncodingType="%s">'
            '%s</wsse:KeyIdentifier></wsse:SecurityTokenReference></wst:CancelTarget>'
            '</wst:RequestSecurityToken></soap:Body>' % (WST, WST, ASSERTION_ID_TYPE, BASE64_TYPE, assertion_id))
    return request("/wls/STSServer.actv", envelope(header, body))


def device_header(state: InstanceState, operation: str, saml: str) -> str:
    return ('<soap:Header><wsa:Action wsu:Id="Action-0f8fad5b-d9cb-469f-a165-70867728950e">%s/%s</wsa:Action>'
            '<wsa:To></wsa:To><wsse:Security soap:mustUnderstand="1">%s</wsse:Security></soap:Header>'
            % (state.zeb_namespace, operation, saml))


def get_public_key(state: InstanceState, saml: str) -> Request:
    body = '<soap:Body><GetPublicKeyRequest xmlns="%s" /></soap:Body>' % state.zeb_namespace
    return request("/zeb/Drv-Comm.actv", envelope(device_header(state, "GetPublicKey", saml), body))


def get_act(state: InstanceState, saml: str, cipher: str = "", acv=("0",), fp_name="printer&amp;1") -> Request:
    cipher_xml = "<CipherData/>" if not cipher else "<CipherData>%s</CipherData>" % cipher
    body = ('<soap:Body><GetACTRequest xmlns="%s"><ACTParameter><FPIDType>0</FPIDType><FPName>%s</FPName>'
            "<CryptoInfo><HMACInfo><HMACAlgorithm>%s</HMACAlgorithm><HMACKeyStrength>%s</HMACKeyStrength></HMACInfo>"
            "<EncryptKeyInfo><EncryptKeyAlgorithm>0</EncryptKeyAlgorithm><EncryptKeyStrength>0</EncryptKeyStrength>"
            "</EncryptKeyInfo><PublicKeyInfo><PublicKeyAlgorithm>%s</PublicKeyAlgorithm>"
            "<PublicKeyStrength>%s</PublicKeyStrength></PublicKeyInfo>"
            "<CipherDataInfo>%s</CipherDataInfo></CryptoInfo>"
            "<SecurityInfoCreationMode>1</SecurityInfoCreationMode><UserExtraInfoCreationMode>0"
            "</UserExtraInfoCreationMode><LegacyDeviceValidMode>1</LegacyDeviceValidMode>"
            "<ACVArray>%s</ACVArray></ACTParameter></GetACTRequest></soap:Body>"
            % (state.zeb_namespace, fp_name, "1" if cipher else "0", "160" if cipher else "0",
               "1" if cipher else "0", "2048" if cipher else "0", cipher_xml,
               "".join("<ACVValue>%s</ACVValue>" % v for v in acv)))
    return request("/zeb/Drv-Comm.actv", envelope(device_header(state, "GetACT", saml), body))


def parse(reply):
    return etree.fromstring(reply.body)


def xpath_text(root, path, namespaces):
    found = root.xpath(path, namespaces=namespaces)
    if not found:
        return None
    node = found[0]
    return str(node) if isinstance(node, str) else (node.text or "")


class ServiceTestBase(unittest.TestCase):
    def setUp(self):
        self.state = InstanceState()
        self.state.users = {
            "alice": {"password": "s3cret", "domain": "CORP"},
            "jsmith": {"password": "Pa$$w0rd", "domain": "", "name_identifier": "JSMITH"},
            "nopass": {"password": "", "domain": ""},
        }
        self.ns = dict(NS, wls=self.state.wls_namespace, zeb=self.state.zeb_namespace)
        self.tokens = TokenService(self.state)

    def assertAssertion(self, reply, name_identifier):
        self.assertEqual(reply.status, 200, reply.body)
        root = parse(reply)
        base = "soap:Body/wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/samlv11:Assertion"
        assertion_id = xpath_text(root, base + "/@AssertionID", self.ns)
        self.assertTrue(assertion_id)
        self.assertIn(assertion_id, self.state.assertions)
        self.assertEqual(xpath_text(root, base + "/samlv11:AuthenticationStatement/samlv11:Subject/"
                                    "samlv11:NameIdentifier", self.ns), name_identifier)
        element = root.xpath(base, namespaces=self.ns)[0]
        return assertion_id, etree.tostring(element).decode("utf-8")

    def assertFault(self, reply, code, subcode, namespace):
        self.assertEqual(reply.status, 500, reply.body)
        root = parse(reply)
        self.assertEqual(xpath_text(root, "soap:Body/soap:Fault/soap:Code/soap:Value", self.ns), code)
        value = root.xpath("soap:Body/soap:Fault/soap:Code/soap:Subcode/soap:Value", namespaces=self.ns)[0]
        prefix, _, name = value.text.partition(":")
        self.assertEqual(name, subcode)
        # The prefix is declared on soap:Value itself, where the add-in looks.
        self.assertIn(prefix, value.nsmap)
        self.assertEqual(value.nsmap[prefix], namespace)
        parent_map = value.getparent().nsmap
        self.assertFalse(parent_map.get(prefix) == namespace)

    def login_basic(self, user="alice", password="s3cret", domain="CORP"):
        fragment = "<wls:ID>%s</wls:ID><wls:PASSWORD>%s</wls:PASSWORD><wls:Domain>%s</wls:Domain>" % (
            user, password, domain)
        return self.tokens.handle(rst_data(self.state, "Basic", domain, fragment.encode("utf-8")))


class PolicyServiceTest(ServiceTestBase):
    def test_policy_entries_in_order(self):
        self.state.policy = [
            {"Info": "Windows", "AuthType": "NTLM", "EnableCredentialCache": "true"},
            {"Info": "Local", "AuthType": "SDL2", "EnableCredentialCache": "false"},
        ]
        body = ('<soap:Body><GetPolicyRequest xmlns="%s"><WsEndPoint></WsEndPoint></GetPolicyRequest></soap:Body>'
                % self.state.wls_namespace)
        header = ("<soap:Header><wsa:Action>%s/GetPolicy</wsa:Action><wsa:To></wsa:To></soap:Header>"
                  % self.state.wls_namespace)
        reply = PolicyService(self.state).handle(request("/wls/WLSPolicyService.actv", envelope(header, body)))
        self.assertEqual(reply.status, 200)
        root = parse(reply)
        types = [n.text for n in root.xpath("//wls:AuthInfo/wls:AuthType", namespaces=self.ns)]
        infos = [n.text for n in root.xpath("//wls:AuthInfo/wls:Info", namespaces=self.ns)]
        self.assertEqual(types, ["NTLM", "SDL2"])
        self.assertEqual(infos, ["Windows", "Local"])

    def test_not_an_envelope(self):
        bad = Request("POST", "/wls/WLSPolicyService.actv", [], b"nonsense", False, 1, None)
        reply = PolicyService(self.state).handle(bad)
        self.assertFault(reply, "soap:Sender", "InvalidRequest", self.state.wls_namespace)


class BasicTest(ServiceTestBase):
    def test_basic_login(self):
        assertion_id, _ = self.assertAssertion(self.login_basic(), "alice")
        self.assertEqual(self.state.assertions[assertion_id], "alice")
        self.assertEqual(self.state.extra["logins"][-1]["result"], "ok")

    def test_fresh_assertion_ids(self):
        first, _ = self.assertAssertion(self.login_basic(), "alice")
        second, _ = self.assertAssertion(self.login_basic(), "alice")
        self.assertNotEqual(first, second)

    def test_wrong_password_is_failed_authentication(self):
        self.assertFault(self.login_basic(password="wrong"), "soap:Sender", "FailedAuthentication",
                         self.state.wls_namespace)
        self.assertEqual(self.state.assertions, {})
        self.assertEqual(self.state.extra["logins"][-1]["result"], "FailedAuthentication")

    def test_unknown_user_and_wrong_domain(self):
        self.assertFault(self.login_basic(user="mallory"), "soap:Sender", "FailedAuthentication",
                         self.state.wls_namespace)
        self.assertFault(self.login_basic(domain="OTHER"), "soap:Sender", "FailedAuthentication",
                         self.state.wls_namespace)

    def test_values_are_verbatim(self):
        self.state.users["bob"] = {"password": "a&b</wls:PASSWORD><x", "domain": ""}
        self.assertAssertion(self.login_basic(user="bob", password="a&b</wls:PASSWORD><x", domain=""), "bob")

    def test_name_identifier_differing_in_case(self):
        self.assertAssertion(self.login_basic(user="jsmith", password="Pa$$w0rd", domain=""), "JSMITH")

    def test_long_fragment_with_line_breaks(self):
        self.state.users["u" * 60] = {"password": "p" * 60, "domain": "d" * 30}
        self.assertAssertion(self.login_basic(user="u" * 60, password="p" * 60, domain="d" * 30), "u" * 60)

    def test_basic2_login(self):
        self.state.users["carol"] = {"password": "x<&>\"'y", "domain": "CORP"}
        creds = ("<wls:BasicAuthenticationData><wls:Id>carol</wls:Id><wls:Password>x&lt;&amp;&gt;&quot;&#39;y"
                 "</wls:Password><wls:Domain>corp</wls:Domain></wls:BasicAuthenticationData>")
        reply = self.tokens.handle(rst(self.state, "Basic2", "corp", creds))
        self.assertAssertion(reply, "carol")
        creds = creds.replace("x&lt;", "z&lt;")
        self.assertFault(self.tokens.handle(rst(self.state, "Basic2", "corp", creds)), "soap:Sender",
                         "FailedAuthentication", self.state.wls_namespace)


class SdlTest(ServiceTestBase):
    def first_leg(self, auth_type, user):
        reply = self.tokens.handle(rst_data(self.state, auth_type, "Local",
                                            ("SDLChallengeRequest" + user).encode("utf-8")))
        self.assertEqual(reply.status, 200, reply.body)
        root = parse(reply)
        challenge = xpath_text(root, "soap:Body/wst:RequestSecurityTokenResponse/wls:AuthenticationData", self.ns)
        context = xpath_text(root, "soap:Body/wst:RequestSecurityTokenResponse/@wst:Context", self.ns)
        self.assertTrue(challenge)
        self.assertTrue(context)
        self.assertIn(context, self.state.challenges)
        return base64.b64decode(challenge), context

    def sdl2_answer(self, user, password, challenge):
        key = hashlib.md5(password.encode("latin-1")).digest() if password else b""
        text = user + " " + hmac.new(key, challenge, hashlib.md5).hexdigest()
        return text.encode("utf-8")

    def test_sdl2_round_trip(self):
        challenge, context = self.first_leg("SDL2", "alice")
        reply = self.tokens.handle(rstr(self.state, context, self.sdl2_answer("alice", "s3cret", challenge)))
        self.assertAssertion(reply, "alice")
        self.assertNotIn(context, self.state.challenges)

    def test_sdl2_wrong_password(self):
        challenge, context = self.first_leg("SDL2", "alice")
        reply = self.tokens.handle(rstr(self.state, context, self.sdl2_answer("alice", "nope", challenge)))
        self.assertFault(reply, "soap:Sender", "FailedAuthentication", self.state.wls_namespace)

    def test_sdl2_empty_password_keys_with_nothing(self):
        challenge, context = self.first_leg("SDL2", "nopass")
        reply = self.tokens.handle(rstr(self.state, context, self.sdl2_answer("nopass", "", challenge)))
        self.assertAssertion(reply, "nopass")

    def test_sdl2_digest_matches_the_known_md5(self):
        # The password digest for "abc" is MD5("abc").
        expected_key = bytes.fromhex("900150983cd24fb0d6963f7d28e17f72")
        value = token_service.sdl2_expected("u", "abc", b"challenge")
        self.assertEqual(value, ("u " + hmac.new(expected_key, b"challenge", hashlib.md5).hexdigest()).encode())

    def test_sdl_round_trip_and_empty_password(self):
        challenge, context = self.first_leg("SDL", "alice")
        digest = hashlib.md5(hashlib.md5(b"s3cret").hexdigest().encode("ascii") + challenge).hexdigest()
        self.assertAssertion(self.tokens.handle(rstr(self.state, context, digest.encode("ascii"))), "alice")

        challenge, context = self.first_leg("SDL", "nopass")
        digest = hashlib.md5(challenge).hexdigest()
        self.assertAssertion(self.tokens.handle(rstr(self.state, context, digest.encode("ascii"))), "nopass")

    def test_sdl_wrong_answer(self):
        challenge, context = self.first_leg("SDL", "alice")
        digest = hashlib.md5(b"x" + challenge).hexdigest()
        self.assertFault(self.tokens.handle(rstr(self.state, context, digest.encode("ascii"))), "soap:Sender",
                         "FailedAuthentication", self.state.wls_namespace)

    def test_unknown_context(self):
        reply = self.tokens.handle(rstr(self.state, "ctx-unknown", b"whatever"))
        self.assertEqual(reply.status, 500)


class NtlmTest(ServiceTestBase):
    def round_trip(self, user, password, domain):
        from impacket import ntlm
        negotiate = ntlm.getNTLMSSPType1("WORKSTATION", domain)
        reply = self.tokens.handle(rst_data(self.state, "NTLM", domain, negotiate.getData()))
        self.assertEqual(reply.status, 200, reply.body)
        root = parse(reply)
        challenge = base64.b64decode(xpath_text(
            root, "soap:Body/wst:RequestSecurityTokenResponse/wls:AuthenticationData", self.ns))
        context = xpath_text(root, "soap:Body/wst:RequestSecurityTokenResponse/@wst:Context", self.ns)
        self.assertEqual(challenge[:8], b"NTLMSSP\x00")
        authenticate, _ = ntlm.getNTLMSSPType3(negotiate, challenge, user, password, domain, use_ntlmv2=True)
        return self.tokens.handle(rstr(self.state, context, authenticate.getData(), ntlm_order=True))

    def test_ntlm_round_trip(self):
        self.assertAssertion(self.round_trip("alice", "s3cret", "CORP"), "alice")
        self.assertEqual(self.state.extra["logins"][-1]["mechanism"], "NTLM")

    def test_ntlm_name_identifier(self):
        self.assertAssertion(self.round_trip("jsmith", "Pa$$w0rd", "ANY"), "JSMITH")

    def test_ntlm_wrong_password(self):
        self.assertFault(self.round_trip("alice", "wrong", "CORP"), "soap:Sender", "FailedAuthentication",
                         self.state.wls_namespace)

    def test_ntlm_empty_password_is_refused_for_a_user_with_one(self):
        self.assertFault(self.round_trip("alice", "", "CORP"), "soap:Sender", "FailedAuthentication",
                         self.state.wls_namespace)

    def test_not_a_negotiate_message(self):
        reply = self.tokens.handle(rst_data(self.state, "NTLM", "CORP", b"NTLMSSP\x00\x03\x00\x00\x00"))
        self.assertEqual(reply.status, 500)


class CancelTest(ServiceTestBase):
    def test_cancel_records_the_assertion(self):
        assertion_id, saml = self.assertAssertion(self.login_basic(), "alice")
        reply = self.tokens.handle(cancel(assertion_id, saml))
        self.assertEqual(reply.status, 200, reply.body)
        self.assertEqual(self.state.cancels, [assertion_id])
        root = parse(reply)
        self.assertEqual(len(root.xpath("soap:Body/wst:RequestSecurityTokenResponse", namespaces=self.ns)), 1)


class DeviceServiceTest(ServiceTestBase):
    def setUp(self):
        super().setUp()
        self.device = DeviceService(self.state)
        self.assertion_id, self.saml = self.assertAssertion(self.login_basic(), "alice")

    def public_key(self):
        reply = self.device.handle(get_public_key(self.state, self.saml))
        self.assertEqual(reply.status, 200, reply.body)
        root = parse(reply)
        entry = "soap:Body/zeb:GetPublicKeyResponse/zeb:PublicKeyEntry/zeb:"
        self.assertEqual(xpath_text(root, entry + "PublicKeyAlgorithm", self.ns), "1")
        self.assertEqual(xpath_text(root, entry + "PublicKeyStrength", self.ns), "2048")
        der = base64.b64decode(xpath_text(root, entry + "PublicKey", self.ns))
        self.assertEqual(xpath_text(root, entry + "PublicKeyLength", self.ns), str(len(der)))
        self.assertEqual(der, device_service.public_key_der(self.state.rsa_key))
        return der

    def test_public_key_is_pkcs1_der(self):
        from cryptography.hazmat.primitives import serialization
        der = self.public_key()
        # RSAPublicKey: SEQUENCE { INTEGER n, INTEGER e }, not SubjectPublicKeyInfo.
        self.assertEqual(der[0], 0x30)
        self.assertEqual(der[4], 0x02)
        key = serialization.load_der_public_key(der)
        self.assertEqual(key.public_numbers(), self.state.rsa_key.public_key().public_numbers())
        self.assertEqual(key.key_size, 2048)
        # One key per process, shared by instances.
        self.assertIs(self.state.rsa_key, device_service.process_rsa_key())

    def test_first_get_act_asks_for_a_key(self):
        reply = self.device.handle(get_act(self.state, self.saml))
        self.assertFault(reply, "soap:Receiver", "GetActErrorRequestHmacKey", self.state.zeb_namespace)
        self.assertEqual(self.state.extra["acv_requests"], [["0"]])
        self.assertEqual(self.state.extra["fp_names"], ["printer&1"])

    def test_get_act_with_encrypted_key(self):
        from cryptography.hazmat.primitives import serialization
        from cryptography.hazmat.primitives.asymmetric import padding
        self.public_key()
        public = serialization.load_der_public_key(self.state.rsa_key.public_key().public_bytes(
            serialization.Encoding.DER, serialization.PublicFormat.SubjectPublicKeyInfo))
        hmac_key = bytes(range(20))
        block = public.encrypt(hmac_key, padding.PKCS1v15())  # big-endian, as the add-in sends it
        reply = self.device.handle(get_act(self.state, self.saml, cipher=b64_lines(block),
                                           acv=("257", "256")))
        self.assertEqual(reply.status, 200, reply.body)
        root = parse(reply)
        entry = "soap:Body/zeb:GetACTResponse/zeb:ACTEntry/zeb:"
        act = base64.b64decode(xpath_text(root, entry + "ACTBinary", self.ns))
        signature = base64.b64decode(xpath_text(root, entry + "ACTSignature", self.ns))
        self.assertEqual(act, self.state.act_bytes)
        self.assertEqual(signature, hmac.new(hmac_key, act, hashlib.sha1).digest())
        self.assertEqual(self.state.hmac_keys[self.assertion_id], hmac_key)
        self.assertEqual(self.state.extra["acv_requests"], [["257", "256"]])
        self.assertTrue(self.state.extra["act_requests"][0]["cipher_data"])

        # The key is held now: a request without CipherData is answered too.
        self.state.sign_act = False
        reply = self.device.handle(get_act(self.state, self.saml))
        self.assertEqual(reply.status, 200, reply.body)
        self.assertIsNone(xpath_text(parse(reply), entry + "ACTSignature", self.ns))

    def test_bad_cipher_data(self):
        reply = self.device.handle(get_act(self.state, self.saml, cipher=b64_lines(b"\x01" * 256)))
        self.assertEqual(reply.status, 500)
        self.assertNotIn(self.assertion_id, self.state.hmac_keys)

    def test_unknown_assertion(self):
        saml = self.saml.replace(self.assertion_id, "_forged")
        reply = self.device.handle(get_act(self.state, saml))
        self.assertFault(reply, "soap:Receiver", "GetActError", self.state.zeb_namespace)


if __name__ == "__main__":
    unittest.main()
