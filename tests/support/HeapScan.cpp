#include "support/HeapScan.h"

#include <malloc.h>

#include <cstring>

namespace qvtest {

namespace {
constexpr size_t kArenaBytes = 256 * 1024;

bool Contains(const BYTE* data, size_t size, const Needle& needle, size_t* offset) {
    if (needle.size == 0 || size < needle.size) return false;
    const BYTE first = needle.bytes[0];
    const BYTE* end = data + (size - needle.size) + 1;
    for (const BYTE* at = data; at < end;) {
        const void* found = std::memchr(at, first, static_cast<size_t>(end - at));
        if (!found) return false;
        at = static_cast<const BYTE*>(found);
        if (std::memcmp(at, needle.bytes, needle.size) == 0) {
            *offset = static_cast<size_t>(at - data);
            return true;
        }
        ++at;
    }
    return false;
}
}  // namespace

SecretArena::SecretArena() {
    m_base = static_cast<BYTE*>(VirtualAlloc(nullptr, kArenaBytes, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
}

SecretArena::~SecretArena() {
    if (!m_base) return;
    SecureZeroMemory(m_base, kArenaBytes);
    VirtualFree(m_base, 0, MEM_RELEASE);
}

void* SecretArena::Take(size_t bytes) {
    const size_t aligned = (bytes + 15) & ~static_cast<size_t>(15);
    if (!m_base || aligned > kArenaBytes - m_used) return nullptr;
    void* block = m_base + m_used;
    m_used += aligned;
    return block;
}

size_t ScanCrtHeap(const std::vector<Needle>& needles, std::vector<HeapHit>& hits) {
    HANDLE heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    if (!heap || !HeapLock(heap)) return 0;
    size_t found = 0;
    PROCESS_HEAP_ENTRY entry = {};
    while (HeapWalk(heap, &entry)) {
        if (entry.wFlags & (PROCESS_HEAP_REGION | PROCESS_HEAP_UNCOMMITTED_RANGE)) continue;
        if (!entry.lpData || entry.cbData == 0) continue;
        const BYTE* data = static_cast<const BYTE*>(entry.lpData);
        for (const Needle& needle : needles) {
            size_t offset = 0;
            if (!Contains(data, entry.cbData, needle, &offset)) continue;
            ++found;
            if (hits.size() < hits.capacity()) {
                HeapHit hit;
                hit.needle = needle.name;
                hit.busy = (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
                hit.blockSize = entry.cbData;
                hit.offset = offset;
                hits.push_back(hit);
            }
        }
    }
    HeapUnlock(heap);
    return found;
}

std::string DescribeHits(const std::vector<HeapHit>& hits) {
    std::string text;
    for (const HeapHit& hit : hits) {
        text += std::string(hit.needle) + " in a " + (hit.busy ? "busy" : "free") + " block of " +
                std::to_string(hit.blockSize) + " bytes at offset " + std::to_string(hit.offset) + "\n";
    }
    return text;
}

}  // namespace qvtest
