// Where in-memory stream bytes live between a write and the commit that moves them to the file, and
// where the records of the in-memory tree live.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

namespace tavik::platform {

// Buffers up to kArenaMax bytes are carved from 2 MB slabs that the kernel may back with one huge page
// each; larger ones come from operator new. A slab is emptied once every buffer in it is freed, which a
// commit does for all the bytes it writes, and kept for the next commit's streams.
void* ArenaAllocate(std::size_t bytes);
void ArenaFree(void* p, std::size_t bytes);
constexpr std::size_t kArenaMax = 64 * 1024;

// Stream bytes in memory. Not a std::vector: with an allocator of its own, vector copies and fills
// byte by byte, which was a quarter of a large create + commit.
class ByteBuffer {
public:
    ByteBuffer() = default;
    ByteBuffer(const ByteBuffer& other) { Append(other.m_data, other.m_size); }
    ByteBuffer(ByteBuffer&& other) noexcept { swap(other); }
    ByteBuffer& operator=(ByteBuffer other) noexcept {
        swap(other);
        return *this;
    }
    ~ByteBuffer() { ArenaFree(m_data, m_capacity); }

    unsigned char* data() { return m_data; }
    const unsigned char* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    // New bytes read as zero.
    void resize(std::size_t n);
    void Append(const void* bytes, std::size_t n);
    void swap(ByteBuffer& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
        std::swap(m_capacity, other.m_capacity);
    }

private:
    void Reserve(std::size_t n);

    unsigned char* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

// The tree's small records (nodes, stream records, map entries) come from free lists per size on
// slabs like the above. Freed records are reused by later ones of the same size, and the memory stays
// with the pool: a process keeps what its largest tree needed.
void* PoolAllocate(std::size_t bytes);
void PoolFree(void* p, std::size_t bytes);
constexpr std::size_t kPoolMax = 512;

template <class T>
struct PoolAllocator {
    using value_type = T;
    PoolAllocator() = default;
    template <class U>
    PoolAllocator(const PoolAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(PoolAllocate(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) { PoolFree(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const PoolAllocator<U>&) const {
        return true;
    }
};

// Big scratch tables (a directory of 60,000 entries): from 2 MB up they get a mapping of their own with
// huge pages asked for; smaller ones come from operator new.
void* LargeAllocate(std::size_t bytes);
void LargeFree(void* p, std::size_t bytes);

template <class T>
struct LargeAllocator {
    using value_type = T;
    LargeAllocator() = default;
    template <class U>
    LargeAllocator(const LargeAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(LargeAllocate(n * sizeof(T))); }
    void deallocate(T* p, std::size_t n) { LargeFree(p, n * sizeof(T)); }
    template <class U>
    bool operator==(const LargeAllocator<U>&) const {
        return true;
    }
};

}  // namespace tavik::platform
