// Looks for what a secret left behind in the C runtime's heap: every block
// of the heap that malloc and operator new draw from, in use or free, in the
// module's code and the test's alike.
//
// What it cannot see, and so cannot vouch for: stacks; the heaps of the
// platform's own components where they allocate apart from the C runtime;
// the first bytes of a free block (the heap keeps its free-list links there),
// which is why needles are taken from the end of a secret; and a freed block
// that a later allocation has already overwritten. A clean scan therefore
// says "no copy found", not "no copy was ever left".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace qvtest {

// Memory outside every heap (its own pages), for the secrets a test hands to
// the code under test and for the needles, so that the scan does not find
// the test's own copies. Wiped and released when destroyed.
class SecretArena {
public:
    SecretArena();
    ~SecretArena();
    SecretArena(const SecretArena&) = delete;
    SecretArena& operator=(const SecretArena&) = delete;

    // `bytes` zeroed bytes of the arena (null when it is full).
    void* Take(size_t bytes);
    wchar_t* TakeWide(size_t chars) { return static_cast<wchar_t*>(Take(chars * sizeof(wchar_t))); }
    bool Ok() const { return m_base != nullptr; }

private:
    BYTE* m_base = nullptr;
    size_t m_used = 0;
};

struct Needle {
    const char* name;   // what it is, for the failure message
    const BYTE* bytes;  // in a SecretArena
    size_t size;
};

struct HeapHit {
    const char* needle = nullptr;
    bool busy = false;      // the block is in use (else free)
    size_t blockSize = 0;
    size_t offset = 0;      // of the needle in the block
};

// Every occurrence of a needle in the C runtime's heap. Allocates nothing
// while it walks (the heap is locked meanwhile); `hits` should have its
// capacity reserved, occurrences beyond it are only counted.
size_t ScanCrtHeap(const std::vector<Needle>& needles, std::vector<HeapHit>& hits);

// The hits as text, for a failure message.
std::string DescribeHits(const std::vector<HeapHit>& hits);

}  // namespace qvtest
