#include "support/FakeWinHttp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <cwctype>

namespace qvtest {

namespace {

enum Kind { kSession = 1, kConnection, kRequest };

// The security flags a request may be given; any other bit is refused.
constexpr DWORD kIgnoreFlags = SECURITY_FLAG_IGNORE_UNKNOWN_CA | SECURITY_FLAG_IGNORE_CERT_WRONG_USAGE |
                               SECURITY_FLAG_IGNORE_CERT_CN_INVALID | SECURITY_FLAG_IGNORE_CERT_DATE_INVALID;

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

HINTERNET FailHandle(DWORD error) {
    SetLastError(error);
    return nullptr;
}

// A name WinHttpConnect takes as it stands: no blanks, and a colon only
// inside an IPv6 literal's brackets.
bool TakesServerName(const std::wstring& name) {
    if (name.empty()) return false;
    for (wchar_t c : name)
        if (std::iswspace(c)) return false;
    return name.find(L':') == std::wstring::npos || name[0] == L'[';
}

}  // namespace

struct FakeWinHttp::Handle {
    int kind = 0;
    std::wstring host;
    INTERNET_PORT port = 0;
    Request request;
    Answer answer;
    bool sent = false;
    bool received = false;
    size_t record = 0;  // index into m_requests once sent
    size_t chunk = 0;
    size_t offset = 0;
};

FakeWinHttp* FakeWinHttp::s_installed = nullptr;

const WinHttpApi FakeWinHttp::kTable = {
    &FakeWinHttp::Open,         &FakeWinHttp::SetOption,       &FakeWinHttp::QueryOption,
    &FakeWinHttp::Connect,      &FakeWinHttp::OpenRequest,     &FakeWinHttp::AddRequestHeaders,
    &FakeWinHttp::SendRequest,  &FakeWinHttp::WriteData,       &FakeWinHttp::ReceiveResponse,
    &FakeWinHttp::QueryHeaders, &FakeWinHttp::QueryDataAvailable, &FakeWinHttp::ReadData,
    &FakeWinHttp::CrackUrl,     &FakeWinHttp::CloseHandle,
};

FakeWinHttp::Answer FakeWinHttp::Body(const std::string& body, DWORD status) {
    Answer answer;
    answer.status = status;
    answer.chunks.push_back(body);
    return answer;
}

FakeWinHttp::Answer FakeWinHttp::Status(DWORD status) {
    Answer answer;
    answer.status = status;
    answer.contentType = L"text/html";
    answer.chunks.push_back("<html>status</html>");
    return answer;
}

FakeWinHttp::Answer FakeWinHttp::Redirect(const std::wstring& location) {
    Answer answer = Status(302);
    answer.location = location;
    return answer;
}

FakeWinHttp::Answer FakeWinHttp::SendFails(DWORD error) {
    Answer answer;
    answer.sendError = error;
    return answer;
}

FakeWinHttp::Answer FakeWinHttp::ReceiveFails(DWORD error) {
    Answer answer;
    answer.receiveError = error;
    return answer;
}

FakeWinHttp::FakeWinHttp() {
    EXPECT_EQ(s_installed, nullptr) << "one FakeWinHttp at a time";
    s_installed = this;
    WinHttpApi::InstallForTest(&kTable);
}

FakeWinHttp::~FakeWinHttp() {
    WinHttpApi::InstallForTest(nullptr);
    s_installed = nullptr;
    EXPECT_TRUE(m_handles.empty()) << m_handles.size() << " WinHTTP handles were left open";
    for (Handle* h : m_handles) delete h;
}

void FakeWinHttp::Queue(Answer answer) {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    m_queue.push_back(std::move(answer));
}

void FakeWinHttp::Repeat(Answer answer) {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    m_repeat = std::move(answer);
    m_hasRepeat = true;
}

std::vector<std::wstring> FakeWinHttp::Connects() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_connects;
}

std::vector<std::pair<DWORD, DWORD>> FakeWinHttp::SessionOptions() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_sessionOptions;
}

std::vector<DWORD> FakeWinHttp::RefusedSessionOptions() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_refusedSessionOptions;
}

std::vector<FakeWinHttp::Request> FakeWinHttp::Requests() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_requests;
}

size_t FakeWinHttp::SendAttempts() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_sendAttempts;
}

size_t FakeWinHttp::OpenHandles() const {
    std::lock_guard<std::recursive_mutex> hold(m_lock);
    return m_handles.size();
}

FakeWinHttp::Handle* FakeWinHttp::NewHandle(int kind, Handle* parent) {
    Handle* h = new Handle;
    h->kind = kind;
    if (parent) {
        h->host = parent->host;
        h->port = parent->port;
    }
    m_handles.insert(h);
    return h;
}

bool FakeWinHttp::Known(HINTERNET h, int kind, Handle** out) {
    Handle* handle = static_cast<Handle*>(h);
    if (!m_handles.count(handle) || (kind && handle->kind != kind)) return false;
    *out = handle;
    return true;
}

FakeWinHttp::Answer FakeWinHttp::NextAnswer() {
    if (!m_queue.empty()) {
        Answer answer = std::move(m_queue.front());
        m_queue.pop_front();
        return answer;
    }
    if (m_hasRepeat) return m_repeat;
    ADD_FAILURE() << "a request was sent with no answer scripted";
    return SendFails(ERROR_WINHTTP_CANNOT_CONNECT);
}

HINTERNET WINAPI FakeWinHttp::Open(LPCWSTR, DWORD, LPCWSTR, LPCWSTR, DWORD) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    return self->NewHandle(kSession, nullptr);
}

BOOL WINAPI FakeWinHttp::SetOption(HINTERNET h, DWORD option, LPVOID buffer, DWORD length) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* handle = nullptr;
    if (!self->Known(h, 0, &handle)) return Fail(ERROR_INVALID_HANDLE);
    if (!buffer || length != sizeof(DWORD)) return Fail(ERROR_INVALID_PARAMETER);
    DWORD value = 0;
    std::memcpy(&value, buffer, sizeof(value));

    if (handle->kind == kRequest) {
        if (option == WINHTTP_OPTION_SECURITY_FLAGS) {
            if (value & ~kIgnoreFlags) return Fail(ERROR_INVALID_PARAMETER);
            handle->request.securityFlags = value;
            return TRUE;
        }
        if (option == WINHTTP_OPTION_DISABLE_FEATURE) {
            handle->request.disableFeature = value;
            return TRUE;
        }
        return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_TYPE);
    }
    if (handle->kind != kSession) return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_TYPE);
    DWORD refusal = 0;
    if (option == WINHTTP_OPTION_SECURE_PROTOCOLS && (value & ~self->m_supportedProtocols))
        refusal = ERROR_INVALID_PARAMETER;
    else if (option == WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT)
        refusal = self->m_receiveResponseTimeoutError;
    else if (option == WINHTTP_OPTION_DISABLE_FEATURE || option == WINHTTP_OPTION_SECURITY_FLAGS)
        refusal = ERROR_WINHTTP_INCORRECT_HANDLE_TYPE;  // request handles only
    if (refusal) {
        self->m_refusedSessionOptions.push_back(option);
        return Fail(refusal);
    }
    self->m_sessionOptions.emplace_back(option, value);
    return TRUE;
}

BOOL WINAPI FakeWinHttp::QueryOption(HINTERNET h, DWORD option, LPVOID buffer, LPDWORD length) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* handle = nullptr;
    if (!self->Known(h, kRequest, &handle)) return Fail(ERROR_INVALID_HANDLE);
    if (option != WINHTTP_OPTION_SECURITY_FLAGS) return Fail(ERROR_WINHTTP_INVALID_OPTION);
    if (!length || *length < sizeof(DWORD) || !buffer) {
        if (length) *length = sizeof(DWORD);
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(buffer, &handle->request.securityFlags, sizeof(DWORD));
    *length = sizeof(DWORD);
    return TRUE;
}

HINTERNET WINAPI FakeWinHttp::Connect(HINTERNET h, LPCWSTR name, INTERNET_PORT port, DWORD) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* session = nullptr;
    if (!self->Known(h, kSession, &session)) return FailHandle(ERROR_INVALID_HANDLE);
    std::wstring host = name ? name : L"";
    self->m_connects.push_back(host + L":" + std::to_wstring(port));
    if (!TakesServerName(host)) return FailHandle(ERROR_WINHTTP_INVALID_URL);
    Handle* connection = self->NewHandle(kConnection, nullptr);
    connection->host = host;
    connection->port = port;
    return connection;
}

HINTERNET WINAPI FakeWinHttp::OpenRequest(HINTERNET h, LPCWSTR, LPCWSTR path, LPCWSTR, LPCWSTR, LPCWSTR*,
                                          DWORD flags) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* connection = nullptr;
    if (!self->Known(h, kConnection, &connection)) return FailHandle(ERROR_INVALID_HANDLE);
    Handle* request = self->NewHandle(kRequest, connection);
    request->request.host = connection->host;
    request->request.port = connection->port;
    request->request.path = path ? path : L"/";
    request->request.openFlags = flags;
    return request;
}

BOOL WINAPI FakeWinHttp::AddRequestHeaders(HINTERNET h, LPCWSTR headers, DWORD length, DWORD) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!headers) return Fail(ERROR_INVALID_PARAMETER);
    request->request.headers += length == static_cast<DWORD>(-1L) ? std::wstring(headers)
                                                                  : std::wstring(headers, length);
    return TRUE;
}

BOOL WINAPI FakeWinHttp::SendRequest(HINTERNET h, LPCWSTR, DWORD, LPVOID, DWORD, DWORD, DWORD_PTR) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    ++self->m_sendAttempts;
    request->answer = self->NextAnswer();
    if (request->answer.sendError) return Fail(request->answer.sendError);
    const bool secure = (request->request.openFlags & WINHTTP_FLAG_SECURE) != 0;
    if (secure && (request->answer.certificateProblems & ~request->request.securityFlags))
        return Fail(ERROR_WINHTTP_SECURE_FAILURE);
    request->sent = true;
    request->record = self->m_requests.size();
    self->m_requests.push_back(request->request);
    return TRUE;
}

BOOL WINAPI FakeWinHttp::WriteData(HINTERNET h, LPCVOID buffer, DWORD length, LPDWORD written) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!request->sent) {
        ADD_FAILURE() << "WinHttpWriteData after a failed or missing WinHttpSendRequest";
        return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    }
    self->m_requests[request->record].body.append(static_cast<const char*>(buffer), length);
    if (written) *written = length;
    return TRUE;
}

BOOL WINAPI FakeWinHttp::ReceiveResponse(HINTERNET h, LPVOID) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!request->sent) return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    if (request->answer.receiveError) return Fail(request->answer.receiveError);
    request->received = true;
    return TRUE;
}

BOOL WINAPI FakeWinHttp::QueryHeaders(HINTERNET h, DWORD infoLevel, LPCWSTR, LPVOID buffer, LPDWORD length,
                                      LPDWORD) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!request->received) return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    if (!length) return Fail(ERROR_INVALID_PARAMETER);
    std::wstring text;
    switch (infoLevel) {
        case WINHTTP_QUERY_STATUS_CODE:
            text = std::to_wstring(request->answer.status);
            break;
        case WINHTTP_QUERY_CONTENT_TYPE:
            text = request->answer.contentType;
            break;
        case WINHTTP_QUERY_LOCATION:
            text = request->answer.location;
            break;
        default:
            break;
    }
    if (text.empty()) return Fail(ERROR_WINHTTP_HEADER_NOT_FOUND);
    // Too small or no buffer: the size in bytes, terminator included.
    const DWORD needed = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    if (!buffer || *length < needed) {
        *length = needed;
        return Fail(ERROR_INSUFFICIENT_BUFFER);
    }
    std::memcpy(buffer, text.c_str(), needed);
    *length = needed - sizeof(wchar_t);
    return TRUE;
}

BOOL WINAPI FakeWinHttp::QueryDataAvailable(HINTERNET h, LPDWORD available) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!request->received) return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    const std::vector<std::string>& chunks = request->answer.chunks;
    while (request->chunk < chunks.size() && request->offset == chunks[request->chunk].size()) {
        ++request->chunk;
        request->offset = 0;
    }
    if (request->chunk == chunks.size() && request->answer.bodyError) return Fail(request->answer.bodyError);
    if (available)
        *available = request->chunk < chunks.size()
                         ? static_cast<DWORD>(chunks[request->chunk].size() - request->offset)
                         : 0;
    return TRUE;
}

BOOL WINAPI FakeWinHttp::ReadData(HINTERNET h, LPVOID buffer, DWORD toRead, LPDWORD read) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* request = nullptr;
    if (!self->Known(h, kRequest, &request)) return Fail(ERROR_INVALID_HANDLE);
    if (!request->received || !read) return Fail(ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    *read = 0;
    const std::vector<std::string>& chunks = request->answer.chunks;
    if (request->chunk < chunks.size()) {
        const std::string& chunk = chunks[request->chunk];
        size_t n = std::min<size_t>(toRead, chunk.size() - request->offset);
        std::memcpy(buffer, chunk.data() + request->offset, n);
        request->offset += n;
        *read = static_cast<DWORD>(n);
    }
    return TRUE;
}

// Cracking a URL is text work that both platforms do alike.
BOOL WINAPI FakeWinHttp::CrackUrl(LPCWSTR url, DWORD length, DWORD flags, LPURL_COMPONENTS parts) {
    return WinHttpApi::Platform().CrackUrl(url, length, flags, parts);
}

BOOL WINAPI FakeWinHttp::CloseHandle(HINTERNET h) {
    FakeWinHttp* self = s_installed;
    std::lock_guard<std::recursive_mutex> hold(self->m_lock);
    Handle* handle = nullptr;
    if (!self->Known(h, 0, &handle)) return Fail(ERROR_INVALID_HANDLE);
    self->m_handles.erase(handle);
    delete handle;
    return TRUE;
}

}  // namespace qvtest
