// The device list under many threads at once, in-process: each thread adds,
// finds and removes sessions of its own while the others do the same, as
// concurrent Open and Close calls do. Afterwards the list is empty (no
// handle ever added is found) and every thread found each of its sessions
// while it was in the list, and never another thread's in its place.
#include <gtest/gtest.h>
#include <windows.h>

#include <atomic>
#include <thread>
#include <vector>

#include "device/CDevice.h"
#include "device/CDeviceList.h"

namespace {

TEST(CDeviceList, ConcurrentAddFindRemoveLeavesItEmpty) {
    constexpr int kThreads = 16;
    constexpr int kSessionsPerThread = 200;
    constexpr int kOpenAtOnce = 4;  // each thread keeps a few in the list
    CDeviceList list;
    std::atomic<DWORD> counter{0};
    std::atomic<int> misses{0};
    std::atomic<bool> go{false};
    std::vector<std::thread> workers;
    for (int t = 0; t < kThreads; ++t) {
        workers.emplace_back([&] {
            while (!go.load()) Sleep(0);
            std::vector<CDevice*> open;
            for (int i = 0; i < kSessionsPerThread; ++i) {
                CDevice* device = new CDevice(L"127.0.0.1", ++counter);
                if (!list.Add(device)) misses++;
                open.push_back(device);
                for (CDevice* d : open)
                    if (list.GetCDevice(d->Handle()) != d) misses++;
                if (open.size() == kOpenAtOnce || i + 1 == kSessionsPerThread) {
                    for (CDevice* d : open) {
                        list.Remove(d);
                        if (list.GetCDevice(d->Handle()) != nullptr) misses++;
                        delete d;
                    }
                    open.clear();
                }
            }
        });
    }
    go = true;
    for (std::thread& w : workers) w.join();

    EXPECT_EQ(misses.load(), 0);
    const DWORD last = counter.load();
    EXPECT_EQ(last, static_cast<DWORD>(kThreads * kSessionsPerThread));
    int stillThere = 0;
    for (DWORD h = 1; h <= last; ++h)
        if (list.GetCDevice(h)) ++stillThere;
    EXPECT_EQ(stillThere, 0);
}

}  // namespace
