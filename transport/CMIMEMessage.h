// A multipart/mixed MIME message: the body becomes the first text part, then the parts added with
// AddMIMEPart, each produced by the content agent registered for its content type (0 text, 1 file).
// Parts whose type has no agent are left out without a trace; a file that cannot be read leaves an empty
// part (its boundary line only).
//
// The agents live in one type manager shared by every message and every thread (guarded by its lock).
// The first message registers a CTextPlain of its line width and a CAppOctetStream; the manager answers
// every later query with the agent registered first for a type, so later messages register no more of
// them (the list would only grow).
#pragma once

#include <list>

#include "platform/CCriticalSection.h"
#include "transport/CMIMEContentAgent.h"
#include "transport/CMailMessage.h"

class CMIMEMessage : public CMailMessage {
public:
    enum eMIMETypeCode { TEXT_PLAIN = 0, APPLICATION_OCTETSTREAM = 1 };
    enum eMIMEEncodingCode { _7BIT = 0, _8BIT = 1, BINARY = 2, QUOTED_PRINTABLE = 3, BASE64 = 4 };

    class CMIMEPart {
    public:
        int m_nEncoding = 0;
        int m_nContentType = 0;
        CString m_sParameters;
        int m_bPath = 0;
        CString m_sContent;
    };

    class CMIMETypeManager {
    public:
        CMIMETypeManager() = default;
        ~CMIMETypeManager();  // deletes the agents
        CMIMETypeManager(const CMIMETypeManager&) = delete;
        CMIMETypeManager& operator=(const CMIMETypeManager&) = delete;

        // Takes ownership; a null agent is ignored.
        void RegisterMIMEType(CMIMEContentAgent* agent);
        // The first agent registered for the type, or null.
        CMIMEContentAgent* GetHandler(int contentType);

    private:
        CCriticalSection m_csAccess;
        std::list<CMIMEContentAgent*> m_MIMETypeList;
    };

    // Seeds the C runtime's generator with the tick count and draws the boundary from it.
    CMIMEMessage();
    ~CMIMEMessage() override = default;

    // content is trimmed of white space at both ends; a text part (type 0) goes before every other part,
    // any other type after them. Returns 1.
    int AddMIMEPart(const char* content, int contentType = APPLICATION_OCTETSTREAM,
                    const char* parameters = "", int encoding = BASE64, int isPath = 1);

    static CMIMETypeManager m_MIMETypeManager;

    CString m_sNoMIMEText;       // the preamble
    CString m_sPartBoundary;     // "TAVIK_MAIL_PaRt_BoUnDaRy_<n>"
    CString m_sMIMEContentType;  // "multipart/mixed"

protected:
    void prepare_header() override;
    void prepare_body() override;
    virtual void append_mime_parts();

    void insert_boundary(CString& text);
    void insert_message_end(CString& text);

    std::list<CMIMEPart> m_MIMEPartList;
};
