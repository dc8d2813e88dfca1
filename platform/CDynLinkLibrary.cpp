#include "platform/CDynLinkLibrary.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace {

std::mutex g_chainLock;
std::vector<CDynLinkLibrary*> g_chain;  // in order of registration

const AFX_MODULE_RESOURCES* ResourcesOf(HMODULE module) {
    return static_cast<const AFX_MODULE_RESOURCES*>(module);
}

}  // namespace

BOOL AfxInitExtensionModule(AFX_EXTENSION_MODULE& state, HMODULE module) {
    if (!module) return FALSE;
    state.hModule = module;
    state.hResource = module;
    state.bInitialized = TRUE;
    return TRUE;
}

void AfxTermExtensionModule(AFX_EXTENSION_MODULE& state, BOOL) {
    if (!state.bInitialized) return;
    std::vector<CDynLinkLibrary*> doomed;
    {
        std::lock_guard<std::mutex> lock(g_chainLock);
        for (CDynLinkLibrary* library : g_chain)
            if (library->m_hModule == state.hModule) doomed.push_back(library);
    }
    for (CDynLinkLibrary* library : doomed) delete library;
    state.bInitialized = FALSE;
}

CDynLinkLibrary::CDynLinkLibrary(AFX_EXTENSION_MODULE& state, BOOL system)
    : m_hModule(state.hModule), m_hResource(state.hResource), m_bSystem(system) {
    if (const AFX_MODULE_RESOURCES* resources = ResourcesOf(m_hResource))
        AfxRegisterStringTable(resources->strings, resources->stringCount);
    std::lock_guard<std::mutex> lock(g_chainLock);
    g_chain.push_back(this);
}

CDynLinkLibrary::~CDynLinkLibrary() {
    {
        std::lock_guard<std::mutex> lock(g_chainLock);
        g_chain.erase(std::remove(g_chain.begin(), g_chain.end(), this), g_chain.end());
    }
    if (const AFX_MODULE_RESOURCES* resources = ResourcesOf(m_hResource))
        AfxUnregisterStringTable(resources->strings);
}

const AFX_DIALOG_RESOURCE* AfxFindDialogResource(UINT id) {
    std::lock_guard<std::mutex> lock(g_chainLock);
    for (auto library = g_chain.rbegin(); library != g_chain.rend(); ++library) {
        const AFX_MODULE_RESOURCES* resources = ResourcesOf((*library)->m_hResource);
        if (!resources) continue;
        for (size_t i = 0; i < resources->dialogCount; ++i)
            if (resources->dialogs[i]->id == id) return resources->dialogs[i];
    }
    return nullptr;
}
