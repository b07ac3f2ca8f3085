#include "transport/WinHttpApi.h"

#include "common/Holders.h"

#include <atomic>

namespace {

// Filled at load: the addresses of imported functions are not constants.
const WinHttpApi kPlatform = {
    ::WinHttpOpen,         ::WinHttpSetOption,       ::WinHttpQueryOption,      ::WinHttpConnect,
    ::WinHttpOpenRequest,  ::WinHttpAddRequestHeaders, ::WinHttpSendRequest,    ::WinHttpWriteData,
    ::WinHttpReceiveResponse, ::WinHttpQueryHeaders, ::WinHttpQueryDataAvailable, ::WinHttpReadData,
    ::WinHttpCrackUrl,     ::WinHttpCloseHandle,
};

std::atomic<const WinHttpApi*> g_installed{&kPlatform};

}  // namespace

const WinHttpApi& WinHttpApi::Current() { return *g_installed.load(std::memory_order_acquire); }

const WinHttpApi& WinHttpApi::Platform() { return kPlatform; }

void WinHttpApi::InstallForTest(const WinHttpApi* api) {
    g_installed.store(api ? api : &kPlatform, std::memory_order_release);
}

// The holders' close call for WinHTTP handles: through the table in use.
void qv::close::Internet(HINTERNET h) noexcept { WinHttpApi::Current().CloseHandle(h); }
