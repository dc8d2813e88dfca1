// Base of the MIME codecs; it has no state and no operations of its own.
#pragma once

class CMIMECode {
public:
    CMIMECode() = default;
    virtual ~CMIMECode() = default;
};
