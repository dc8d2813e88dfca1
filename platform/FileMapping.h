// File mappings and their views under the Win32 names, over mmap. A mapping is backed by a file
// handle from CFile (m_hFile) or, with INVALID_HANDLE_VALUE, by anonymous shared memory; a named
// mapping is shared by every CreateFileMapping of that name in this process while one handle lives.
// The mapping handle is closed with CloseHandle (platform/Kernel.h), views with UnmapViewOfFile; a view
// keeps its memory valid after its mapping handle is closed, as on Windows.
#pragma once

#include <cstddef>

#include "platform/WinTypes.h"

using SIZE_T = std::size_t;

constexpr DWORD PAGE_NOACCESS = 0x01;
constexpr DWORD PAGE_READONLY = 0x02;
constexpr DWORD PAGE_READWRITE = 0x04;
constexpr DWORD PAGE_WRITECOPY = 0x08;
constexpr DWORD SEC_COMMIT = 0x08000000;

constexpr DWORD FILE_MAP_COPY = 0x0001;
constexpr DWORD FILE_MAP_WRITE = 0x0002;
constexpr DWORD FILE_MAP_READ = 0x0004;
constexpr DWORD FILE_MAP_ALL_ACCESS = 0x000F001F;

constexpr LONG ERROR_MAPPED_ALIGNMENT = 1132;
constexpr LONG ERROR_FILE_INVALID = 1006;

// Null on failure with the last error set: ERROR_INVALID_PARAMETER for a bad protection or a zero size
// without a file, ERROR_FILE_INVALID for an empty file mapped with size 0, ERROR_INVALID_HANDLE for a
// handle that is not an open file, ERROR_ACCESS_DENIED when the file's open mode does not allow the
// protection. A size beyond the file's length grows the file for PAGE_READWRITE (and fails for
// PAGE_READONLY). Opening an existing name returns a new handle on it with ERROR_ALREADY_EXISTS.
HANDLE CreateFileMapping(HANDLE file, SECURITY_ATTRIBUTES* security, DWORD protect, DWORD maximumSizeHigh,
                         DWORD maximumSizeLow, const char* name);
// An existing named mapping; null with ERROR_FILE_NOT_FOUND when there is none.
HANDLE OpenFileMapping(DWORD desiredAccess, BOOL inheritHandle, const char* name);

// Maps bytes [offset, offset + size) of the mapping; size 0 maps to the mapping's end. The offset must
// be a multiple of the allocation granularity (ERROR_MAPPED_ALIGNMENT otherwise); a range past the
// mapping's end gives ERROR_INVALID_PARAMETER, write access on a read-only mapping ERROR_ACCESS_DENIED.
// Null on failure.
LPVOID MapViewOfFile(HANDLE mapping, DWORD desiredAccess, DWORD offsetHigh, DWORD offsetLow, SIZE_T size);
// FALSE (ERROR_INVALID_ADDRESS) for an address that is not the start of a live view.
BOOL UnmapViewOfFile(LPCVOID baseAddress);
// Writes the pages of [address, address + size) back to the file (size 0: to the end of the view).
BOOL FlushViewOfFile(LPCVOID baseAddress, SIZE_T size);

constexpr LONG ERROR_INVALID_ADDRESS = 487;

// The granularity offsets must honour (the page size here; 64 KB on Windows).
DWORD TavikAllocationGranularity();
