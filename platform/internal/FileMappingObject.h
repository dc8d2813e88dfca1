// The kernel object behind a file-mapping HANDLE, and the glue to the handle table and to CFile's
// handles. Platform-internal.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/WinTypes.h"

namespace tavik::platform {

struct FileMappingObject {
    ~FileMappingObject();
    int fd = -1;             // our own descriptor of the backing file or anonymous memory
    std::uint64_t size = 0;  // the mapping's maximum size
    DWORD protect = 0;       // PAGE_ value
};

// A new handle that keeps the object alive until CloseHandle.
HANDLE NewFileMappingHandle(std::shared_ptr<FileMappingObject> object);
// Null when the handle is not an open file mapping.
std::shared_ptr<FileMappingObject> FileMappingOfHandle(HANDLE handle);
// The descriptor behind a CFile handle, -1 when it is not an open file.
int FileDescriptorOfHandle(HANDLE file);

}  // namespace tavik::platform
