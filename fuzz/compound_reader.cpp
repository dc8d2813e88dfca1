// Opens arbitrary bytes as a compound file, walks every storage and reads every stream. Any result code
// is fine; a crash, a hang, a leak or a sanitizer report is a finding.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/OleStorage.h"

namespace {

void Walk(IStorage* stg, int depth) {
    if (depth > 64) return;
    IEnumSTATSTG* en = nullptr;
    if (FAILED(stg->EnumElements(0, nullptr, 0, &en))) return;
    STATSTG st;
    ULONG got = 0;
    std::vector<unsigned char> buf(4096);
    while (en->Next(1, &st, &got) == S_OK && got == 1) {
        if (st.type == STGTY_STORAGE) {
            IStorage* sub = nullptr;
            if (SUCCEEDED(stg->OpenStorage(st.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, nullptr, 0,
                                           &sub))) {
                Walk(sub, depth + 1);
                sub->Release();
            }
        } else {
            IStream* s = nullptr;
            if (SUCCEEDED(stg->OpenStream(st.pwcsName, nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &s))) {
                ULONG n = 0;
                while (SUCCEEDED(s->Read(buf.data(), static_cast<ULONG>(buf.size()), &n)) && n > 0) {
                }
                LARGE_INTEGER back;
                back.QuadPart = 1;
                s->Seek(back, STREAM_SEEK_SET, nullptr);
                s->Read(buf.data(), 100, &n);
                s->Release();
            }
        }
        CoTaskMemFree(st.pwcsName);
    }
    en->Release();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    IStorage* root = nullptr;
    if (SUCCEEDED(StgOpenStorageOnMemory(data, size, &root))) {
        Walk(root, 0);
        STATSTG st;
        if (SUCCEEDED(root->Stat(&st, STATFLAG_DEFAULT))) CoTaskMemFree(st.pwcsName);
        root->Release();
    }
    return 0;
}
