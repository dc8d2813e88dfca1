// The framework's growable arrays. Indexes are ints; an index outside the array is a programming error
// (checked by assert in debug builds, as the framework's ASSERT_VALID does).
#pragma once

#include <algorithm>
#include <cassert>
#include <vector>

#include "platform/CObject.h"
#include "platform/CString.h"

template <class TYPE, class ARG_TYPE = const TYPE&>
class CArray : public CObject {
public:
    CArray() = default;
    CArray(const CArray&) = default;
    CArray& operator=(const CArray&) = default;

    int GetSize() const { return static_cast<int>(m_data.size()); }
    int GetCount() const { return GetSize(); }
    bool IsEmpty() const { return m_data.empty(); }
    int GetUpperBound() const { return GetSize() - 1; }
    // The grow step is a hint for the allocator only.
    void SetSize(int newSize, int growBy = -1) { m_data.resize(static_cast<size_t>(std::max(newSize, 0))); }
    void FreeExtra() { m_data.shrink_to_fit(); }
    void RemoveAll() { m_data.clear(); }

    const TYPE& GetAt(int i) const { return m_data[check(i)]; }
    void SetAt(int i, ARG_TYPE v) { m_data[check(i)] = v; }
    TYPE& ElementAt(int i) { return m_data[check(i)]; }
    const TYPE& ElementAt(int i) const { return m_data[check(i)]; }
    TYPE* GetData() { return m_data.data(); }
    const TYPE* GetData() const { return m_data.data(); }
    TYPE& operator[](int i) { return m_data[check(i)]; }
    const TYPE& operator[](int i) const { return m_data[check(i)]; }

    void SetAtGrow(int i, ARG_TYPE v) {
        if (i >= GetSize()) SetSize(i + 1);
        m_data[check(i)] = v;
    }
    int Add(ARG_TYPE v) {
        m_data.push_back(v);
        return GetUpperBound();
    }
    int Append(const CArray& other) {
        int old = GetSize();
        m_data.insert(m_data.end(), other.m_data.begin(), other.m_data.end());
        return old;
    }
    void Copy(const CArray& other) { m_data = other.m_data; }
    void InsertAt(int i, ARG_TYPE v, int count = 1) {
        if (i > GetSize()) SetSize(i);
        m_data.insert(m_data.begin() + i, static_cast<size_t>(count), v);
    }
    void RemoveAt(int i, int count = 1) {
        assert(i >= 0 && count >= 0 && i + count <= GetSize());
        m_data.erase(m_data.begin() + i, m_data.begin() + i + count);
    }

    std::vector<TYPE>& vector() { return m_data; }
    const std::vector<TYPE>& vector() const { return m_data; }

private:
    size_t check(int i) const {
        assert(i >= 0 && i < GetSize());
        return static_cast<size_t>(i);
    }
    std::vector<TYPE> m_data;
};

class CStringArray : public CArray<CString, const CString&> {};
class CByteArray : public CArray<BYTE, BYTE> {};
class CWordArray : public CArray<WORD, WORD> {};
class CDWordArray : public CArray<DWORD, DWORD> {};
class CUIntArray : public CArray<UINT, UINT> {};
class CPtrArray : public CArray<void*, void*> {};
