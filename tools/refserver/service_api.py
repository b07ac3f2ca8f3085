"""Types shared by the reference server's core and its services.

The core (core.py) accepts HTTP and HTTPS connections for one *instance*,
records each request, applies injected faults (faults.py) and otherwise hands
the request to the service registered for its path:

    /wls/WLSPolicyService.actv  -> policy_service.PolicyService
    /wls/STSServer.actv         -> token_service.TokenService
    /zeb/Drv-Comm.actv          -> device_service.DeviceService

Every service is built as Service(state) and answers handle(request) -> Reply.
Answer texts come from answers.py, the one source of answer shapes.
"""
from dataclasses import dataclass, field
from typing import Any, Dict, List, Optional, Tuple

DEFAULT_WLS_NAMESPACE = "urn:orvel:zeb:wls"
DEFAULT_ZEB_NAMESPACE = "urn:orvel:zeb:drvcomm"

SOAP_CONTENT_TYPE = "application/soap+xml; charset=utf-8"


@dataclass
class Request:
    method: str
    path: str
    headers: List[Tuple[str, str]]   # in the order received
    body: bytes                      # raw, as received
    tls: bool
    connection: int                  # id of the TCP connection it came on
    xml: Any = None                  # lxml root of the SOAP envelope (None if the body did not parse)

    def header(self, name: str) -> Optional[str]:
        for k, v in self.headers:
            if k.lower() == name.lower():
                return v
        return None


@dataclass
class Reply:
    status: int = 200
    body: bytes = b""
    content_type: str = SOAP_CONTENT_TYPE
    headers: List[Tuple[str, str]] = field(default_factory=list)


@dataclass
class InstanceState:
    """What one simulated server knows. Tests set it through the control port."""
    wls_namespace: str = DEFAULT_WLS_NAMESPACE
    zeb_namespace: str = DEFAULT_ZEB_NAMESPACE
    # Login policy: list of {"Info": str, "AuthType": str, "EnableCredentialCache": "true"|"false"|None}
    policy: List[Dict[str, Any]] = field(default_factory=list)
    # user id -> {"password": str, "domain": str, "name_identifier": optional str}
    users: Dict[str, Dict[str, Any]] = field(default_factory=dict)
    # Issued assertions: assertion id -> user id; cancelled assertion ids in order.
    assertions: Dict[str, str] = field(default_factory=dict)
    cancels: List[str] = field(default_factory=list)
    # Pending challenges of SDL/SDL2/NTLM logins: context -> data.
    challenges: Dict[str, Dict[str, Any]] = field(default_factory=dict)
    # Device service: RSA private key (cryptography object) and the HMAC key
    # it holds per client (keyed by assertion id); ACT bytes to issue.
    rsa_key: Any = None
    hmac_keys: Dict[str, bytes] = field(default_factory=dict)
    act_bytes: bytes = b"ACT:sample-access-control-token"
    sign_act: bool = True
    # Free-form extras a service may keep (documented in that service).
    extra: Dict[str, Any] = field(default_factory=dict)
