#include "device/CDeviceList.h"

#include <algorithm>

#include "device/CDevice.h"

CDevice* CDeviceList::GetCDevice(DWORD handle) {
    AuSSLock lock(m_lock);
    for (CDevice* device : m_devices)
        if (device->Handle() == handle) return device;
    return nullptr;
}

bool CDeviceList::Add(CDevice* device) {
    if (!device) return false;
    AuSSLock lock(m_lock);
    try {
        m_devices.push_back(device);
    } catch (...) {
        return false;
    }
    return true;
}

void CDeviceList::Remove(CDevice* device) {
    AuSSLock lock(m_lock);
    auto it = std::find(m_devices.begin(), m_devices.end(), device);
    if (it != m_devices.end()) m_devices.erase(it);
}
