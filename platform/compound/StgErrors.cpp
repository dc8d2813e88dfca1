// Names and sentences for the storage results, for tools that show them to people.
#include "platform/OleStorage.h"

namespace {

struct Row {
    HRESULT code;
    const char* name;
    const char* text;
};

constexpr Row kRows[] = {
    {E_NOTIMPL, "E_NOTIMPL", "the operation is not implemented"},
    {E_NOINTERFACE, "E_NOINTERFACE", "the object does not offer that interface"},
    {E_POINTER, "E_POINTER", "a pointer argument is not valid"},
    {E_FAIL, "E_FAIL", "the operation failed"},
    {E_OUTOFMEMORY, "E_OUTOFMEMORY", "there is not enough memory"},
    {E_INVALIDARG, "E_INVALIDARG", "an argument is not valid"},
    {E_UNEXPECTED, "E_UNEXPECTED", "an unexpected failure occurred"},
    {STG_E_INVALIDFUNCTION, "STG_E_INVALIDFUNCTION", "the operation is not supported here"},
    {STG_E_FILENOTFOUND, "STG_E_FILENOTFOUND", "the file or element does not exist"},
    {STG_E_PATHNOTFOUND, "STG_E_PATHNOTFOUND", "the directory does not exist"},
    {STG_E_TOOMANYOPENFILES, "STG_E_TOOMANYOPENFILES", "too many files are open"},
    {STG_E_ACCESSDENIED, "STG_E_ACCESSDENIED",
     "access is denied (by the file's permissions, or the element is open)"},
    {STG_E_INVALIDHANDLE, "STG_E_INVALIDHANDLE", "the object is not valid"},
    {STG_E_INSUFFICIENTMEMORY, "STG_E_INSUFFICIENTMEMORY", "there is not enough memory"},
    {STG_E_INVALIDPOINTER, "STG_E_INVALIDPOINTER", "a pointer argument is not valid"},
    {STG_E_NOMOREFILES, "STG_E_NOMOREFILES", "there are no more entries"},
    {STG_E_DISKISWRITEPROTECTED, "STG_E_DISKISWRITEPROTECTED", "the disk is write-protected"},
    {STG_E_SEEKERROR, "STG_E_SEEKERROR", "a seek failed"},
    {STG_E_WRITEFAULT, "STG_E_WRITEFAULT", "the disk failed while writing"},
    {STG_E_READFAULT, "STG_E_READFAULT", "the disk failed while reading"},
    {STG_E_SHAREVIOLATION, "STG_E_SHAREVIOLATION",
     "the file is open elsewhere, by a program that does not share it"},
    {STG_E_LOCKVIOLATION, "STG_E_LOCKVIOLATION", "the file is locked by another program"},
    {STG_E_FILEALREADYEXISTS, "STG_E_FILEALREADYEXISTS",
     "the file already exists, or is not a compound file"},
    {STG_E_INVALIDPARAMETER, "STG_E_INVALIDPARAMETER", "an argument is not valid"},
    {STG_E_MEDIUMFULL, "STG_E_MEDIUMFULL", "there is not enough room on the disk"},
    {STG_E_PROPSETMISMATCHED, "STG_E_PROPSETMISMATCHED", "a property of the wrong kind was written"},
    {STG_E_ABNORMALAPIEXIT, "STG_E_ABNORMALAPIEXIT", "a call ended abnormally"},
    {STG_E_INVALIDHEADER, "STG_E_INVALIDHEADER", "the file is not a valid compound file"},
    {STG_E_INVALIDNAME, "STG_E_INVALIDNAME", "the name is not valid"},
    {STG_E_UNKNOWN, "STG_E_UNKNOWN", "an unexpected failure occurred"},
    {STG_E_UNIMPLEMENTEDFUNCTION, "STG_E_UNIMPLEMENTEDFUNCTION", "the function is not implemented"},
    {STG_E_INVALIDFLAG, "STG_E_INVALIDFLAG", "the combination of mode flags is not valid"},
    {STG_E_INUSE, "STG_E_INUSE", "the object is busy"},
    {STG_E_NOTCURRENT, "STG_E_NOTCURRENT", "the storage was changed by another handle since it was opened"},
    {STG_E_REVERTED, "STG_E_REVERTED", "the object no longer exists (its storage was reverted or released)"},
    {STG_E_CANTSAVE, "STG_E_CANTSAVE", "the file cannot be saved"},
    {STG_E_OLDFORMAT, "STG_E_OLDFORMAT", "the file was written by an incompatible version of the format"},
    {STG_E_OLDDLL, "STG_E_OLDDLL", "the file was written by a newer version of the format"},
    {STG_E_SHAREREQUIRED, "STG_E_SHAREREQUIRED", "file sharing support is required"},
    {STG_E_NOTFILEBASEDSTORAGE, "STG_E_NOTFILEBASEDSTORAGE", "the storage is not held in a file"},
    {STG_E_EXTANTMARSHALLINGS, "STG_E_EXTANTMARSHALLINGS", "the object is still in use elsewhere"},
    {STG_E_DOCFILECORRUPT, "STG_E_DOCFILECORRUPT", "the file is damaged"},
    {STG_E_BADBASEADDRESS, "STG_E_BADBASEADDRESS", "the storage library was loaded at the wrong address"},
    {STG_E_DOCFILETOOLARGE, "STG_E_DOCFILETOOLARGE", "the file is too large"},
    {STG_E_NOTSIMPLEFORMAT, "STG_E_NOTSIMPLEFORMAT", "the file is not in the simple format"},
    {STG_E_INCOMPLETE, "STG_E_INCOMPLETE", "the file is incomplete"},
    {STG_E_TERMINATED, "STG_E_TERMINATED", "the file's transfer was stopped"},
};

const Row* Find(HRESULT hr) {
    for (const Row& row : kRows)
        if (row.code == hr) return &row;
    return nullptr;
}

}  // namespace

const char* StgErrorName(HRESULT hr) {
    const Row* row = Find(hr);
    return row ? row->name : nullptr;
}

const char* StgErrorText(HRESULT hr) {
    const Row* row = Find(hr);
    return row ? row->text : nullptr;
}
