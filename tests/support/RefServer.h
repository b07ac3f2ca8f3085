// Client of the reference server's control port, for tests. The server runs
// for the whole ctest run (scripts/refserver-ctl writes its control port to
// <build>/refserver.port); each test makes an instance of its own: a simulated
// access-management server on fresh loopback ports (HTTP and HTTPS) with its
// own state, faults and request log, removed when the Instance is destroyed.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace qvtest {

struct RecordedRequest {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> headers;  // in order received
    std::string body;                                          // raw bytes
    bool tls = false;
    int connection = 0;                                        // TCP connection id
    std::string Header(const std::string& name) const;         // "" if absent
};

class RefServerInstance {
public:
    // configJson: an object with any InstanceState fields (see
    // tools/refserver/service_api.py), e.g. {"users": {...}, "policy": [...]}.
    explicit RefServerInstance(const std::string& configJson = "{}");
    ~RefServerInstance();
    RefServerInstance(const RefServerInstance&) = delete;
    RefServerInstance& operator=(const RefServerInstance&) = delete;

    bool Ok() const { return m_id >= 0; }
    int HttpPort() const { return m_httpPort; }
    int HttpsPort() const { return m_httpsPort; }

    // Adds fault rules (a JSON array or object; see tools/refserver/faults.py).
    bool AddFaults(const std::string& faultsJson);
    // Removes every fault rule not yet used up.
    bool ClearFaults();
    // Replaces parts of the state (same form as the constructor's config).
    bool Configure(const std::string& configJson);
    std::vector<RecordedRequest> Requests();
    // Any value of the instance's state as JSON text, e.g. "cancels".
    std::string StateJson(const std::string& field);

private:
    int m_id = -1;
    int m_httpPort = 0;
    int m_httpsPort = 0;
};

// Bytes of a Base64 text; characters outside the alphabet ('=', blanks) are
// skipped.
std::string Base64Decode(const std::string& in);

// Renders an answer shape of tools/refserver/answers.py with JSON arguments.
std::string RenderAnswer(const std::string& name, const std::string& argsJson = "{}");

// Raw call to the control port: method, path, JSON body -> response body;
// status in *status when given.
std::string ControlCall(const std::string& method, const std::string& path, const std::string& body,
                        int* status = nullptr);

}  // namespace qvtest
