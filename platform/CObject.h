// The framework's root object with run-time class information.
#pragma once

#include "platform/WinTypes.h"

class CObject;

struct CRuntimeClass {
    const char* m_lpszClassName;
    int m_nObjectSize;
    UINT m_wSchema;
    CObject* (*m_pfnCreateObject)();
    CRuntimeClass* (*m_pfnGetBaseClass)();

    // Null when the class cannot be created by name (not declared dynamic-create).
    CObject* CreateObject() const;
    bool IsDerivedFrom(const CRuntimeClass* base) const;
    CRuntimeClass* GetBaseClass() const { return m_pfnGetBaseClass ? m_pfnGetBaseClass() : nullptr; }
    // Finds a class declared with IMPLEMENT_DYNAMIC/DYNCREATE/SERIAL by its name; null when unknown.
    static CRuntimeClass* FromName(const char* name);
    static CObject* CreateObject(const char* name);
};

namespace tavik::platform {
// Registers a class so that FromName can find it; used by the IMPLEMENT_ macros.
struct RuntimeClassRegistrar {
    explicit RuntimeClassRegistrar(CRuntimeClass* cls);
};
}  // namespace tavik::platform

class CObject {
public:
    virtual ~CObject() = default;
    virtual CRuntimeClass* GetRuntimeClass() const;
    bool IsKindOf(const CRuntimeClass* cls) const;
    static CRuntimeClass classCObject;
    static CRuntimeClass* _GetBaseClass() { return nullptr; }

protected:
    CObject() = default;
    CObject(const CObject&) = default;
    CObject& operator=(const CObject&) = default;
};

#define RUNTIME_CLASS(class_name) (&class_name::class##class_name)

#define DECLARE_DYNAMIC(class_name)         \
public:                                     \
    static CRuntimeClass class##class_name; \
    static CRuntimeClass* _GetBaseClass();  \
    CRuntimeClass* GetRuntimeClass() const override;

#define DECLARE_DYNCREATE(class_name) \
    DECLARE_DYNAMIC(class_name)       \
    static CObject* CreateObject();

#define DECLARE_SERIAL(class_name) DECLARE_DYNCREATE(class_name)

#define TAVIK_IMPLEMENT_RUNTIMECLASS(class_name, base_name, schema, pfnNew)                              \
    CRuntimeClass class_name::class##class_name = {#class_name, (int)sizeof(class_name), schema, pfnNew, \
                                                   &class_name::_GetBaseClass};                          \
    CRuntimeClass* class_name::_GetBaseClass() { return RUNTIME_CLASS(base_name); }                      \
    CRuntimeClass* class_name::GetRuntimeClass() const { return RUNTIME_CLASS(class_name); }             \
    static ::tavik::platform::RuntimeClassRegistrar tavik_registrar_##class_name(RUNTIME_CLASS(class_name));

#define IMPLEMENT_DYNAMIC(class_name, base_name) \
    TAVIK_IMPLEMENT_RUNTIMECLASS(class_name, base_name, 0xFFFF, nullptr)

#define IMPLEMENT_DYNCREATE(class_name, base_name)                 \
    CObject* class_name::CreateObject() { return new class_name; } \
    TAVIK_IMPLEMENT_RUNTIMECLASS(class_name, base_name, 0xFFFF, class_name::CreateObject)

#define IMPLEMENT_SERIAL(class_name, base_name, schema)            \
    CObject* class_name::CreateObject() { return new class_name; } \
    TAVIK_IMPLEMENT_RUNTIMECLASS(class_name, base_name, schema, class_name::CreateObject)
