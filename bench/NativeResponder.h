// The benchmark's side of bench/native/canned_responder: a native Linux
// process (started by scripts/bench) that serves the same canned answers on
// loopback with TCP_NODELAY and TCP_QUICKACK, which a responder inside a
// Windows (Wine) process cannot set. Without quick ACKs, every reused
// connection stalls for the peer's delayed ACK between the headers and the
// body that Wine's WinHTTP writes separately. The answers and capture markers
// are handed over, and captured requests read back, through control requests
// on the same port under a path prefix no service uses.
#pragma once

#include "support/CannedResponder.h"

#include <string>
#include <vector>

class NativeResponder {
public:
    explicit NativeResponder(int port);
    ~NativeResponder();

    // Hands over the answers (matched as CannedResponder matches them) and
    // the capture markers; false when the responder does not answer.
    bool Load(const std::vector<CannedAnswer>& answers, const std::vector<std::string>& markers);
    int Port() const { return m_port; }
    // The last request whose body contained `marker`.
    CapturedRequest Captured(const std::string& marker);

private:
    // One control request on a connection of its own; the answer's body.
    bool Control(const char* name, const std::string& body, std::string& answer);

    int m_port;
    bool m_started = false;
};
