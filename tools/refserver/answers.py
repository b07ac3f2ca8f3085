"""Answer shapes of the simulated access-management server: the one source.

Every function returns the exact text of one SOAP 1.2 answer envelope. The
services build their replies with them, and tests render the same texts
through the control port:

    POST /render {"answer": "<function name>", "args": {<keyword arguments>}}

(qvtest::RenderAnswer(name, argsJson) in the C++ tests). All arguments are
keyword arguments with JSON-friendly values, so any call can be made from
JSON. Values are XML-escaped where they are inserted; a value given as None
leaves its element (or attribute) out, which is how tests make answers with
missing parts.

Common keyword arguments:
  wls_namespace / zeb_namespace  the login-service / device-service namespace
                                 URIs (defaults from service_api.py)
  wls_prefix / zeb_prefix        the prefixes the answer binds them to
  soap_prefix                    the prefix of the SOAP 1.2 envelope ("soap")
  action                         a wsa:Action for a SOAP header; None (the
                                 default) sends no header
  xml_declaration                start with an XML declaration (default True)

Functions:
  get_policy_response(auth_infos=[...])
  get_public_key_response(algorithm, strength, length, key)
  get_act_response(act, signature=None)
  saml_assertion(assertion_id, name_identifier=None, issue_instant=...)
  rstr_assertion_response(assertion_id, name_identifier=None, ...)
  rstr_challenge_response(challenge, context=None)
  cancel_response(cancelled=True)
  soap_fault(code="soap:Sender", subcode=None, subcode_namespace=..., declare_on="value", reason=..., detail=None)

This module must stay free of dependencies beyond the standard library.
"""
from typing import Any, Dict, List, Optional

from service_api import DEFAULT_WLS_NAMESPACE, DEFAULT_ZEB_NAMESPACE

NS_SOAP = "http://www.w3.org/2003/05/soap-envelope"
NS_WSA = "http://schemas.xmlsoap.org/ws/2004/08/addressing"
NS_WST = "http://schemas.xmlsoap.org/ws/2005/02/trust"
NS_WSP = "http://schemas.xmlsoap.org/ws/2004/09/policy"
NS_SP = "http://schemas.xmlsoap.org/ws/2005/07/securitypolicy"
NS_SAML11 = "urn:oasis:names:tc:SAML:1.0:assertion"
SAML11_TOKEN_TYPE = "http://docs.oasis-open.org/wss/oasis-wss-saml-token-profile-1.1#SAMLV1.1"
WST_ISSUE_RESPONSE_ACTION = NS_WST + "/RSTR/Issue"
WST_CANCEL_RESPONSE_ACTION = NS_WST + "/RSTR/Cancel"
SAML_PASSWORD_METHOD = "urn:oasis:names:tc:SAML:1.0:am:password"
SAML_BEARER = "urn:oasis:names:tc:SAML:1.0:cm:bearer"

XML_DECLARATION = '<?xml version="1.0" encoding="utf-8"?>'


def escape(value: Any) -> str:
    """Text or attribute value with the five XML special characters escaped."""
    text = str(value)
    return (text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")
            .replace('"', "&quot;").replace("'", "&apos;"))


def _xmlns(prefix: str, uri: str) -> str:
    return ' xmlns:%s="%s"' % (prefix, escape(uri))


def _element(name: str, value: Any) -> str:
    """<name>value</name>, or nothing when value is None."""
    if value is None:
        return ""
    return "<%s>%s</%s>" % (name, escape(value), name)


def _envelope(body: str, soap_prefix: str = "soap", action: Optional[str] = None,
              envelope_declarations: str = "", xml_declaration: bool = True) -> str:
    s = soap_prefix
    header = ""
    if action is not None:
        header = '<%s:Header><wsa:Action%s>%s</wsa:Action></%s:Header>' % (
            s, _xmlns("wsa", NS_WSA), escape(action), s)
    return "%s<%s:Envelope%s%s>%s<%s:Body>%s</%s:Body></%s:Envelope>" % (
        XML_DECLARATION if xml_declaration else "", s, _xmlns(s, NS_SOAP), envelope_declarations,
        header, s, body, s, s)


def get_policy_response(auth_infos: Optional[List[Dict[str, Any]]] = None,
                        wls_namespace: str = DEFAULT_WLS_NAMESPACE, wls_prefix: str = "wls",
                        soap_prefix: str = "soap", action: Optional[str] = None,
                        xml_declaration: bool = True) -> str:
    """The login policy.

    auth_infos: list of {"Info": str, "AuthType": str, "EnableCredentialCache":
    "true" | "false" | any text | None}; a key that is missing or None leaves
    its element out. Each entry becomes one wls:AuthInfo under
    wls:GetPolicyResponse/wls:Policy/wls:LoginAppCustomPolicy/wsp:Policy/
    wsp:ExactlyOne/sp:SamlToken/wsp:Policy/wls:Claims/wls:LoginAppInfo, in
    list order. wls_prefix: the prefix bound to wls_namespace (any name; the
    client's queries do not depend on it).
    """
    w = wls_prefix
    entries = ""
    for info in auth_infos or []:
        entries += "<%s:AuthInfo>%s%s%s</%s:AuthInfo>" % (
            w,
            _element(w + ":Info", info.get("Info")),
            _element(w + ":AuthType", info.get("AuthType")),
            _element(w + ":EnableCredentialCache", info.get("EnableCredentialCache")),
            w)
    body = (
        "<{w}:GetPolicyResponse{decl}>"
        "<{w}:Policy>"
        "<{w}:LoginAppCustomPolicy>"
        "<wsp:Policy>"
        "<wsp:ExactlyOne>"
        "<sp:SamlToken>"
        "<wsp:Policy>"
        "<{w}:Claims>"
        "<{w}:LoginAppInfo>"
        "{entries}"
        "</{w}:LoginAppInfo>"
        "</{w}:Claims>"
        "</wsp:Policy>"
        "</sp:SamlToken>"
        "</wsp:ExactlyOne>"
        "</wsp:Policy>"
        "</{w}:LoginAppCustomPolicy>"
        "</{w}:Policy>"
        "</{w}:GetPolicyResponse>"
    ).format(w=w, entries=entries,
             decl=_xmlns(w, wls_namespace) + _xmlns("wsp", NS_WSP) + _xmlns("sp", NS_SP))
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def get_public_key_response(algorithm: Optional[str] = "1", strength: Optional[str] = "2048",
                            length: Optional[str] = None, key: Optional[str] = "",
                            zeb_namespace: str = DEFAULT_ZEB_NAMESPACE, zeb_prefix: str = "zeb",
                            soap_prefix: str = "soap", action: Optional[str] = None,
                            xml_declaration: bool = True) -> str:
    """The device service's public key.

    algorithm, strength, length, key: the texts of zeb:PublicKeyAlgorithm,
    zeb:PublicKeyStrength, zeb:PublicKeyLength and zeb:PublicKey (the key as
    Base64 of its DER form) inside zeb:GetPublicKeyResponse/zeb:PublicKeyEntry;
    None leaves that element out. length None (the default) leaves it out
    too; pass the key's byte count as text to send it.
    """
    z = zeb_prefix
    entry = (_element(z + ":PublicKeyAlgorithm", algorithm) + _element(z + ":PublicKeyStrength", strength)
             + _element(z + ":PublicKeyLength", length) + _element(z + ":PublicKey", key))
    body = "<{z}:GetPublicKeyResponse{decl}><{z}:PublicKeyEntry>{entry}</{z}:PublicKeyEntry></{z}:GetPublicKeyResponse>".format(
        z=z, decl=_xmlns(z, zeb_namespace), entry=entry)
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def get_act_response(act: Optional[str] = "", signature: Optional[str] = None,
                     zeb_namespace: str = DEFAULT_ZEB_NAMESPACE, zeb_prefix: str = "zeb",
                     soap_prefix: str = "soap", action: Optional[str] = None,
                     xml_declaration: bool = True) -> str:
    """The access-control token.

    act: text of zeb:ACTBinary (Base64); signature: text of zeb:ACTSignature
    (Base64), left out when None (the default), both inside
    zeb:GetACTResponse/zeb:ACTEntry. act None leaves zeb:ACTBinary out.
    """
    z = zeb_prefix
    entry = _element(z + ":ACTBinary", act) + _element(z + ":ACTSignature", signature)
    body = "<{z}:GetACTResponse{decl}><{z}:ACTEntry>{entry}</{z}:ACTEntry></{z}:GetACTResponse>".format(
        z=z, decl=_xmlns(z, zeb_namespace), entry=entry)
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def saml_assertion(assertion_id: str, name_identifier: Optional[str] = None,
                   issue_instant: str = "2026-01-01T00:00:00Z",
                   not_on_or_after: Optional[str] = "2026-01-01T08:00:00Z",
                   issuer: str = "urn:orvel:zeb:sts",
                   authentication_method: str = SAML_PASSWORD_METHOD,
                   saml_prefix: str = "saml") -> str:
    """A SAML 1.1 assertion element (not an envelope).

    assertion_id: the AssertionID attribute; name_identifier: the text of
    AuthenticationStatement/Subject/NameIdentifier, left out when None (the
    subject then has only its confirmation); issue_instant, not_on_or_after
    (None leaves the Conditions element out), issuer, authentication_method:
    the attributes of those names; saml_prefix: the prefix bound to the SAML
    1.0/1.1 assertion namespace on the element itself.
    """
    p = saml_prefix
    conditions = ""
    if not_on_or_after is not None:
        conditions = '<%s:Conditions NotBefore="%s" NotOnOrAfter="%s"/>' % (
            p, escape(issue_instant), escape(not_on_or_after))
    name = _element(p + ":NameIdentifier", name_identifier)
    return (
        '<{p}:Assertion{decl} MajorVersion="1" MinorVersion="1" AssertionID="{aid}" Issuer="{iss}" '
        'IssueInstant="{inst}">'
        "{conditions}"
        '<{p}:AuthenticationStatement AuthenticationMethod="{method}" AuthenticationInstant="{inst}">'
        "<{p}:Subject>{name}"
        "<{p}:SubjectConfirmation><{p}:ConfirmationMethod>{bearer}</{p}:ConfirmationMethod></{p}:SubjectConfirmation>"
        "</{p}:Subject>"
        "</{p}:AuthenticationStatement>"
        "</{p}:Assertion>"
    ).format(p=p, decl=_xmlns(p, NS_SAML11), aid=escape(assertion_id), iss=escape(issuer),
             inst=escape(issue_instant), conditions=conditions, method=escape(authentication_method),
             name=name, bearer=SAML_BEARER)


def rstr_assertion_response(assertion_id: Optional[str] = "_assertion-1", name_identifier: Optional[str] = None,
                            issue_instant: str = "2026-01-01T00:00:00Z",
                            not_on_or_after: Optional[str] = "2026-01-01T08:00:00Z",
                            issuer: str = "urn:orvel:zeb:sts", saml_prefix: str = "saml",
                            soap_prefix: str = "soap", action: Optional[str] = None,
                            xml_declaration: bool = True) -> str:
    """A WS-Trust issue answer carrying a SAML 1.1 assertion.

    wst:RequestSecurityTokenResponse/wst:RequestedSecurityToken/<assertion>,
    the assertion made by saml_assertion() with the same-named arguments.
    assertion_id None sends the answer without wst:RequestedSecurityToken.
    """
    token = ""
    if assertion_id is not None:
        token = "<wst:RequestedSecurityToken>%s</wst:RequestedSecurityToken>" % saml_assertion(
            assertion_id, name_identifier, issue_instant, not_on_or_after, issuer, saml_prefix=saml_prefix)
    body = ("<wst:RequestSecurityTokenResponse%s><wst:TokenType>%s</wst:TokenType>%s"
            "</wst:RequestSecurityTokenResponse>") % (_xmlns("wst", NS_WST), SAML11_TOKEN_TYPE, token)
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def rstr_challenge_response(challenge: Optional[str] = "", context: Optional[str] = None,
                            wls_namespace: str = DEFAULT_WLS_NAMESPACE, wls_prefix: str = "wls",
                            soap_prefix: str = "soap", action: Optional[str] = None,
                            xml_declaration: bool = True) -> str:
    """The first answer of a challenge login (NTLM, SDL, SDL2).

    challenge: text of wls:AuthenticationData (None leaves it out); context:
    the wst:Context attribute of wst:RequestSecurityTokenResponse, left out
    when None (the default).
    """
    w = wls_prefix
    ctx = "" if context is None else ' wst:Context="%s"' % escape(context)
    body = "<wst:RequestSecurityTokenResponse%s%s%s>%s</wst:RequestSecurityTokenResponse>" % (
        _xmlns("wst", NS_WST), _xmlns(w, wls_namespace), ctx, _element(w + ":AuthenticationData", challenge))
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def cancel_response(cancelled: bool = True, soap_prefix: str = "soap", action: Optional[str] = None,
                    xml_declaration: bool = True) -> str:
    """The answer to a WS-Trust cancel: an otherwise empty
    wst:RequestSecurityTokenResponse, holding wst:RequestedTokenCancelled when
    cancelled is true (the default).
    """
    inner = "<wst:RequestedTokenCancelled/>" if cancelled else ""
    body = "<wst:RequestSecurityTokenResponse%s>%s</wst:RequestSecurityTokenResponse>" % (
        _xmlns("wst", NS_WST), inner)
    return _envelope(body, soap_prefix, action, xml_declaration=xml_declaration)


def soap_fault(code: str = "soap:Sender", subcode: Optional[str] = None,
               subcode_namespace: Optional[str] = DEFAULT_WLS_NAMESPACE, declare_on: str = "value",
               reason: Optional[str] = "The request failed.", reason_lang: str = "en",
               detail: Optional[str] = None, value_attributes: Optional[Dict[str, str]] = None,
               soap_prefix: str = "soap", action: Optional[str] = None,
               xml_declaration: bool = True) -> str:
    """A SOAP 1.2 fault.

    code: text of soap:Code/soap:Value, written as given (e.g. "soap:Sender",
    "env:Receiver", "x:MustUnderstandSender").
    subcode: text of soap:Code/soap:Subcode/soap:Value (e.g.
    "wls:FailedAuthentication"); None leaves soap:Subcode out.
    subcode_namespace: the URI bound to the subcode's prefix (the part before
    its first colon; nothing is declared when the subcode has no colon or
    subcode_namespace is None). Default: the login-service namespace.
    declare_on: where that prefix is declared: "value" (on the subcode's
    soap:Value element), "envelope" (on the envelope) or "none".
    reason: text of soap:Reason/soap:Text (xml:lang reason_lang); None leaves
    soap:Reason out. detail: text of soap:Detail; None leaves it out.
    value_attributes: ordinary attributes {name: value} added to the
    subcode's soap:Value element after the declaration.
    """
    if declare_on not in ("value", "envelope", "none"):
        raise ValueError("declare_on must be value, envelope or none")
    s = soap_prefix
    value_decl = ""
    envelope_decl = ""
    if subcode is not None and subcode_namespace is not None and ":" in subcode:
        decl = _xmlns(subcode.split(":", 1)[0], subcode_namespace)
        if declare_on == "value":
            value_decl = decl
        elif declare_on == "envelope":
            envelope_decl = decl
    for name, value in (value_attributes or {}).items():
        value_decl += ' %s="%s"' % (name, escape(value))

    sub = ""
    if subcode is not None:
        sub = "<{s}:Subcode><{s}:Value{decl}>{v}</{s}:Value></{s}:Subcode>".format(
            s=s, decl=value_decl, v=escape(subcode))
    text = ""
    if reason is not None:
        text = '<{s}:Reason><{s}:Text xml:lang="{lang}">{r}</{s}:Text></{s}:Reason>'.format(
            s=s, lang=escape(reason_lang), r=escape(reason))
    det = _element(s + ":Detail", detail)
    body = "<{s}:Fault><{s}:Code><{s}:Value>{c}</{s}:Value>{sub}</{s}:Code>{text}{det}</{s}:Fault>".format(
        s=s, c=escape(code), sub=sub, text=text, det=det)
    return _envelope(body, soap_prefix, action, envelope_declarations=envelope_decl,
                     xml_declaration=xml_declaration)
