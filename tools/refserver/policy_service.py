"""The login policy service: answers GetPolicy with the instance's policy.

state.policy is a list of {"Info", "AuthType", "EnableCredentialCache"} dicts
that a test sets; each becomes one wls:AuthInfo, in list order.
"""
import answers
import service_util as su
from service_api import InstanceState, Reply, Request


class PolicyService:
    def __init__(self, state: InstanceState):
        self.state = state

    def handle(self, request: Request) -> Reply:
        state = self.state
        if request.xml is None:
            return su.login_fault(state, "InvalidRequest", "The request is not a SOAP envelope.")
        if su.first(request.xml, "soap:Body/*[local-name()='GetPolicyRequest']", state) is None:
            return su.login_fault(state, "InvalidRequest", "Expected a GetPolicyRequest.")
        return su.xml_reply(answers.get_policy_response(auth_infos=list(state.policy or []),
                                                        wls_namespace=state.wls_namespace))
