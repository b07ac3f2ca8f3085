// The module-wide registry of open sessions, searched by handle. It does not
// own the sessions; every operation holds the list's own lock, and only
// inside the call.
#pragma once

#include <list>

#include "common/AuSSSection.h"

class CDevice;

class CDeviceList {
public:
    CDevice* GetCDevice(DWORD handle);
    // False (nothing added) for a null session or when the list cannot grow.
    bool Add(CDevice* device);
    void Remove(CDevice* device);

private:
    std::list<CDevice*> m_devices;
    AuSSSection m_lock;
};
