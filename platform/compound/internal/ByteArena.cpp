// Holding 100 MB of freshly written streams costs one page fault per 4 KB touched, and in a virtual
// machine a fault is dear: most of a large create + commit went there. Slabs the size and alignment of a
// huge page cut that by 512. Small stores stay on ordinary pages: huge pages are asked for only once a
// few slabs are in use, so a program holding a few kilobytes does not pay 2 MB of memory for them. The
// tree's records (60,000 of them for a large store) faulted the same way on the ordinary heap.
#include "platform/compound/internal/ByteArena.h"

#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>
#include <vector>

#include "platform/internal/SystemCalls.h"

#if defined(__SANITIZE_ADDRESS__)
#define TAVIK_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TAVIK_ASAN 1
#endif
#endif
#if defined(TAVIK_ASAN)
#include <sanitizer/asan_interface.h>
#define TAVIK_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define TAVIK_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define TAVIK_POISON(p, n) ((void)(p), (void)(n))
#define TAVIK_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace tavik::platform {
namespace {

using tavik::platform::Sys;

constexpr std::size_t kSlab = 2u << 20;
constexpr std::size_t kAlign = 16;
constexpr std::size_t kHeader = 64;
constexpr int kHugeAfter = 1;              // slabs on ordinary pages before huge pages are asked for
constexpr std::size_t kRetainSlabs = 128;  // 256 MB of emptied slabs kept for reuse at most

struct Slab {
    std::size_t live = 0;  // buffers not yet freed
};

class Arena {
public:
    Arena() { m_retired.reserve(kRetainSlabs); }  // so that a free never allocates

    void* Allocate(std::size_t bytes) {
        bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
        std::lock_guard<std::mutex> hold(m_mutex);
        if (!m_current || m_used + bytes > kSlab) {
            if (!NewSlab()) return nullptr;
        }
        auto* p = reinterpret_cast<unsigned char*>(m_current) + m_used;
        m_used += bytes;
        ++m_current->live;
        TAVIK_UNPOISON(p, bytes);
        return p;
    }

    void Free(void* p, std::size_t bytes) {
        bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
        auto* slab = reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(p) & ~(kSlab - 1));
        std::lock_guard<std::mutex> hold(m_mutex);
        TAVIK_POISON(p, bytes);
        if (--slab->live > 0) return;
        if (slab == m_current) {
            m_used = kHeader;  // empty again: its pages are already faulted in, so reuse them
            return;
        }
        --m_slabs;
        Retire(slab);
    }

private:
    // An emptied slab is kept for the next commit's streams rather than unmapped: fresh pages cost a fault
    // and a zero fill each, which made a store's second commit as slow as its first. The kernel may take
    // the retired pages back whenever memory is short (MADV_FREE); until then reuse costs nothing.
    void Retire(Slab* slab) {
        if (m_retired.size() >= kRetainSlabs) {
            Sys().munmap(slab, kSlab);
            return;
        }
        Sys().madvise(slab, kSlab, MADV_FREE);
        m_retired.push_back(slab);
    }

    bool NewSlab() {
        Slab* slab = nullptr;
        if (!m_retired.empty()) {
            slab = m_retired.back();
            m_retired.pop_back();
        } else {
            // Twice the size, then trimmed to an aligned slab, so that the owner of any buffer is found
            // by masking its address.
            void* raw =
                Sys().mmap(nullptr, 2 * kSlab, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (raw == MAP_FAILED) return false;
            auto start = reinterpret_cast<std::uintptr_t>(raw);
            auto aligned = (start + kSlab - 1) & ~(kSlab - 1);
            if (aligned > start) Sys().munmap(raw, aligned - start);
            if (aligned + kSlab < start + 2 * kSlab)
                Sys().munmap(reinterpret_cast<void*>(aligned + kSlab), start + 2 * kSlab - aligned - kSlab);
            slab = reinterpret_cast<Slab*>(aligned);
            if (m_slabs >= kHugeAfter) Sys().madvise(slab, kSlab, MADV_HUGEPAGE);
            TAVIK_POISON(reinterpret_cast<unsigned char*>(slab) + kHeader, kSlab - kHeader);
        }
        slab->live = 0;
        // The slab being left keeps living until its last buffer goes; an empty one is released now.
        if (m_current && m_current->live == 0) {
            --m_slabs;
            Retire(m_current);
        }
        m_current = slab;
        m_used = kHeader;
        ++m_slabs;
        return true;
    }

    std::mutex m_mutex;
    Slab* m_current = nullptr;
    std::vector<Slab*> m_retired;
    std::size_t m_used = 0;
    int m_slabs = 0;  // slabs holding live buffers, counting the current one
};

// The pool's critical sections are a few instructions long; a spin lock costs half a mutex there,
// which shows with 60,000 records made and freed per large store opened.
class SpinLock {
public:
    void lock() {
        while (m_flag.test_and_set(std::memory_order_acquire))
            while (m_flag.test(std::memory_order_relaxed)) std::this_thread::yield();
    }
    void unlock() { m_flag.clear(std::memory_order_release); }

private:
    std::atomic_flag m_flag;
};

// Records of the tree: one free list per 16-byte size class.
class Pool {
public:
    void* Allocate(std::size_t bytes) {
        bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
        std::lock_guard<SpinLock> hold(m_lock);
        Slot*& head = m_free[bytes / kAlign];
        unsigned char* p;
        if (head) {
            p = reinterpret_cast<unsigned char*>(head);
            TAVIK_UNPOISON(p, sizeof(Slot));
            head = head->next;
            // Free slots are scattered after a large tree is dropped; fetch the next one ahead.
            if (head) __builtin_prefetch(head, 1);
        } else {
            if (m_left < bytes) {
                void* raw = Sys().mmap(nullptr, 2 * kSlab, PROT_READ | PROT_WRITE,
                                       MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
                if (raw == MAP_FAILED) return nullptr;
                auto start = reinterpret_cast<std::uintptr_t>(raw);
                auto aligned = (start + kSlab - 1) & ~(kSlab - 1);
                if (aligned > start) Sys().munmap(raw, aligned - start);
                if (aligned + kSlab < start + 2 * kSlab)
                    Sys().munmap(reinterpret_cast<void*>(aligned + kSlab),
                                 start + 2 * kSlab - aligned - kSlab);
                if (++m_slabs > kHugeAfter)
                    Sys().madvise(reinterpret_cast<void*>(aligned), kSlab, MADV_HUGEPAGE);
                m_next = reinterpret_cast<unsigned char*>(aligned);
                m_left = kSlab;
                TAVIK_POISON(m_next, kSlab);
            }
            p = m_next;
            m_next += bytes;
            m_left -= bytes;
        }
        TAVIK_UNPOISON(p, bytes);
        return p;
    }

    void Free(void* p, std::size_t bytes) {
        bytes = (bytes + kAlign - 1) & ~(kAlign - 1);
        std::lock_guard<SpinLock> hold(m_lock);
        TAVIK_POISON(p, bytes);
        TAVIK_UNPOISON(p, sizeof(Slot));
        auto* slot = static_cast<Slot*>(p);
        Slot*& head = m_free[bytes / kAlign];
        slot->next = head;
        head = slot;
        TAVIK_POISON(p, sizeof(Slot));
    }

private:
    struct Slot {
        Slot* next;
    };
    SpinLock m_lock;
    Slot* m_free[kPoolMax / kAlign + 1] = {};
    unsigned char* m_next = nullptr;
    std::size_t m_left = 0;
    int m_slabs = 0;
};

Pool& ThePool() {
    static Pool* pool = new Pool;
    return *pool;
}

Arena& TheArena() {
    // Never destroyed: buffers may be freed by static destructors that run after ours would.
    static Arena* arena = new Arena;
    return *arena;
}

}  // namespace

void* ArenaAllocate(std::size_t bytes) {
    if (bytes == 0 || bytes > kArenaMax) return ::operator new(bytes ? bytes : 1);
    void* p = TheArena().Allocate(bytes);
    if (!p) throw std::bad_alloc();
    return p;
}

void* PoolAllocate(std::size_t bytes) {
    if (bytes == 0 || bytes > kPoolMax) return ::operator new(bytes ? bytes : 1);
    void* p = ThePool().Allocate(bytes);
    if (!p) throw std::bad_alloc();
    return p;
}

void PoolFree(void* p, std::size_t bytes) {
    if (!p) return;
    if (bytes == 0 || bytes > kPoolMax) {
        ::operator delete(p);
        return;
    }
    ThePool().Free(p, bytes);
}

void* LargeAllocate(std::size_t bytes) {
    if (bytes < kSlab) return ::operator new(bytes ? bytes : 1);
    void* p = Sys().mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    Sys().madvise(p, bytes, MADV_HUGEPAGE);
    return p;
}

void LargeFree(void* p, std::size_t bytes) {
    if (!p) return;
    if (bytes < kSlab) {
        ::operator delete(p);
        return;
    }
    Sys().munmap(p, bytes);
}

void ByteBuffer::Reserve(std::size_t n) {
    if (n <= m_capacity) return;
    // Streams are mostly written once in one piece: the first allocation is exact, later ones double.
    std::size_t capacity = m_capacity == 0 ? n : std::max(n, m_capacity * 2);
    auto* bigger = static_cast<unsigned char*>(ArenaAllocate(capacity));
    if (m_size) std::memcpy(bigger, m_data, m_size);
    ArenaFree(m_data, m_capacity);
    m_data = bigger;
    m_capacity = capacity;
}

void ByteBuffer::resize(std::size_t n) {
    Reserve(n);
    if (n > m_size) std::memset(m_data + m_size, 0, n - m_size);
    m_size = n;
}

void ByteBuffer::Append(const void* bytes, std::size_t n) {
    if (n == 0) return;
    Reserve(m_size + n);
    std::memcpy(m_data + m_size, bytes, n);
    m_size += n;
}

void ArenaFree(void* p, std::size_t bytes) {
    if (!p) return;
    if (bytes == 0 || bytes > kArenaMax) {
        ::operator delete(p);
        return;
    }
    TheArena().Free(p, bytes);
}

}  // namespace tavik::platform
