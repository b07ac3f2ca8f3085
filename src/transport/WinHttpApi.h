// Every WinHTTP function the channel calls, as one table of pointers. The
// channel always calls through the installed table: the platform's own
// functions, unless a test installed a scripted platform that plays what
// Windows does where the platform the tests run on does otherwise.
#pragma once

#include <windows.h>
#include <winhttp.h>

struct WinHttpApi {
    decltype(&::WinHttpOpen) Open;
    decltype(&::WinHttpSetOption) SetOption;
    decltype(&::WinHttpQueryOption) QueryOption;
    decltype(&::WinHttpConnect) Connect;
    decltype(&::WinHttpOpenRequest) OpenRequest;
    decltype(&::WinHttpAddRequestHeaders) AddRequestHeaders;
    decltype(&::WinHttpSendRequest) SendRequest;
    decltype(&::WinHttpWriteData) WriteData;
    decltype(&::WinHttpReceiveResponse) ReceiveResponse;
    decltype(&::WinHttpQueryHeaders) QueryHeaders;
    decltype(&::WinHttpQueryDataAvailable) QueryDataAvailable;
    decltype(&::WinHttpReadData) ReadData;
    decltype(&::WinHttpCrackUrl) CrackUrl;
    decltype(&::WinHttpCloseHandle) CloseHandle;

    // The table in use.
    static const WinHttpApi& Current();
    // The platform's own functions.
    static const WinHttpApi& Platform();
    // Tests only: calls go through `api` from now on (null: the platform's
    // own again). Install before a channel opens a handle and remove after
    // the last one is closed: a handle is closed through the table in use.
    static void InstallForTest(const WinHttpApi* api);
};
