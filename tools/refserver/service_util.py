"""Small helpers the simulator services share: reading the client's SOAP
request with the client's prefixes, tolerant Base64, and fault replies."""
import base64
import binascii
import re
from typing import Dict, List, Optional

import answers
from service_api import InstanceState, Reply

NS_SOAP = "http://www.w3.org/2003/05/soap-envelope"
NS_WSA = "http://schemas.xmlsoap.org/ws/2004/08/addressing"
NS_WST = "http://schemas.xmlsoap.org/ws/2005/02/trust"
NS_WSSE = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-secext-1.0.xsd"
NS_WSU = "http://docs.oasis-open.org/wss/2004/01/oasis-200401-wss-wssecurity-utility-1.0.xsd"
NS_SAML11 = "urn:oasis:names:tc:SAML:1.0:assertion"

WST_ISSUE_ACTION = NS_WST + "/RST/Issue"
WST_ISSUE_RESPONSE_ACTION = NS_WST + "/RSTR/Issue"
WST_CANCEL_ACTION = NS_WST + "/RST/Cancel"
WST_CANCEL_TYPE = NS_WST + "/Cancel"

# An HTTP status for every fault the simulator sends: SOAP 1.2 over HTTP
# answers faults with 500.
FAULT_STATUS = 500


def namespaces(state: InstanceState) -> Dict[str, str]:
    """The prefixes of the client's XPath queries, bound for this instance."""
    return {
        "soap": NS_SOAP, "wsa": NS_WSA, "wst": NS_WST, "wsse": NS_WSSE, "wsu": NS_WSU,
        "samlv11": NS_SAML11, "wls": state.wls_namespace, "zeb": state.zeb_namespace,
    }


def first(root, path: str, state: InstanceState):
    """The first node at path (relative to the envelope), or None."""
    if root is None:
        return None
    found = root.xpath(path, namespaces=namespaces(state))
    return found[0] if found else None


def text(root, path: str, state: InstanceState) -> Optional[str]:
    """The text at path (an element's text, empty for an empty element, or an
    attribute's value); None when nothing is there."""
    node = first(root, path, state)
    if node is None:
        return None
    if isinstance(node, str):
        return str(node)
    return node.text or ""


def texts(root, path: str, state: InstanceState) -> List[str]:
    if root is None:
        return []
    return [(n.text or "") if not isinstance(n, str) else str(n)
            for n in root.xpath(path, namespaces=namespaces(state))]


def action(root, state: InstanceState) -> str:
    return (text(root, "soap:Header/wsa:Action", state) or "").strip()


def b64decode(value: Optional[str]) -> Optional[bytes]:
    """Base64 text (with CR LF or other white space anywhere) to bytes; None
    when it is missing or not Base64."""
    if value is None:
        return None
    compact = re.sub(r"\s+", "", value)
    try:
        return base64.b64decode(compact, validate=True)
    except (binascii.Error, ValueError):
        return None


def b64encode(data: bytes) -> str:
    return base64.b64encode(data).decode("ascii")


def xml_reply(text_: str, status: int = 200) -> Reply:
    return Reply(status=status, body=text_.encode("utf-8"))


def login_fault(state: InstanceState, subcode: str, reason: str, code: str = "soap:Sender") -> Reply:
    """A login-service fault: subcode in the wls namespace, its prefix
    declared on the subcode's soap:Value."""
    return xml_reply(answers.soap_fault(code=code, subcode="wls:" + subcode,
                                        subcode_namespace=state.wls_namespace, declare_on="value",
                                        reason=reason), FAULT_STATUS)


def device_fault(state: InstanceState, subcode: str, reason: str, code: str = "soap:Receiver") -> Reply:
    """A device-service fault: subcode in the zeb namespace, its prefix
    declared on the subcode's soap:Value."""
    return xml_reply(answers.soap_fault(code=code, subcode="zeb:" + subcode,
                                        subcode_namespace=state.zeb_namespace, declare_on="value",
                                        reason=reason), FAULT_STATUS)


def record(state: InstanceState, key: str, entry) -> None:
    """Appends a JSON-friendly entry to the list state.extra[key]."""
    state.extra.setdefault(key, []).append(entry)
