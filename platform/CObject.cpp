#include "platform/CObject.h"

#include <cstring>
#include <mutex>
#include <vector>

namespace {
std::mutex& registryMutex() {
    static std::mutex m;
    return m;
}
std::vector<CRuntimeClass*>& registry() {
    static std::vector<CRuntimeClass*> classes;
    return classes;
}
}  // namespace

tavik::platform::RuntimeClassRegistrar::RuntimeClassRegistrar(CRuntimeClass* cls) {
    std::lock_guard<std::mutex> lock(registryMutex());
    registry().push_back(cls);
}

CRuntimeClass CObject::classCObject = {"CObject", (int)sizeof(CObject), 0xFFFF, nullptr, nullptr};

CRuntimeClass* CObject::GetRuntimeClass() const { return &classCObject; }

bool CObject::IsKindOf(const CRuntimeClass* cls) const { return GetRuntimeClass()->IsDerivedFrom(cls); }

CObject* CRuntimeClass::CreateObject() const { return m_pfnCreateObject ? m_pfnCreateObject() : nullptr; }

bool CRuntimeClass::IsDerivedFrom(const CRuntimeClass* base) const {
    for (const CRuntimeClass* c = this; c != nullptr; c = c->GetBaseClass()) {
        if (c == base) return true;
    }
    return false;
}

CRuntimeClass* CRuntimeClass::FromName(const char* name) {
    if (name == nullptr) return nullptr;
    if (std::strcmp(name, "CObject") == 0) return &CObject::classCObject;
    std::lock_guard<std::mutex> lock(registryMutex());
    for (CRuntimeClass* c : registry()) {
        if (std::strcmp(c->m_lpszClassName, name) == 0) return c;
    }
    return nullptr;
}

CObject* CRuntimeClass::CreateObject(const char* name) {
    CRuntimeClass* cls = FromName(name);
    return cls ? cls->CreateObject() : nullptr;
}
