#include "transport/CMIMEMessage.h"

#include <cstdlib>

#include "platform/Kernel.h"
#include "transport/CAppOctetStream.h"
#include "transport/CTextPlain.h"

CMIMEMessage::CMIMETypeManager CMIMEMessage::m_MIMETypeManager;

CMIMEMessage::CMIMETypeManager::~CMIMETypeManager() {
    for (CMIMEContentAgent* agent : m_MIMETypeList) delete agent;
}

void CMIMEMessage::CMIMETypeManager::RegisterMIMEType(CMIMEContentAgent* agent) {
    if (agent == nullptr) return;
    CSingleLock lock(&m_csAccess, TRUE);
    m_MIMETypeList.push_back(agent);
}

CMIMEContentAgent* CMIMEMessage::CMIMETypeManager::GetHandler(int contentType) {
    CSingleLock lock(&m_csAccess, TRUE);
    for (CMIMEContentAgent* agent : m_MIMETypeList)
        if (agent->QueryType(contentType)) return agent;
    return nullptr;
}

CMIMEMessage::CMIMEMessage()
    : m_sNoMIMEText("This is a multi-part message in MIME format."), m_sMIMEContentType("multipart/mixed") {
    srand(GetTickCount());
    m_sPartBoundary.Format("TAVIK_MAIL_PaRt_BoUnDaRy_%u", static_cast<unsigned>(rand()) % 4000000000u);
    // Two messages made at once on two threads may both find no agent and both register: harmless, the
    // first registered answers.
    if (m_MIMETypeManager.GetHandler(TEXT_PLAIN) == nullptr)
        m_MIMETypeManager.RegisterMIMEType(new CTextPlain(TEXT_PLAIN, GetCharsPerLine()));
    if (m_MIMETypeManager.GetHandler(APPLICATION_OCTETSTREAM) == nullptr)
        m_MIMETypeManager.RegisterMIMEType(new CAppOctetStream(APPLICATION_OCTETSTREAM));
}

int CMIMEMessage::AddMIMEPart(const char* content, int contentType, const char* parameters, int encoding,
                              int isPath) {
    CMIMEPart part;
    part.m_nEncoding = encoding;
    part.m_nContentType = contentType;
    part.m_sParameters = parameters;
    part.m_bPath = isPath;
    part.m_sContent = content;
    part.m_sContent.Trim();
    if (contentType == TEXT_PLAIN)
        m_MIMEPartList.push_front(std::move(part));
    else
        m_MIMEPartList.push_back(std::move(part));
    return 1;
}

void CMIMEMessage::prepare_header() {
    CMailMessage::prepare_header();
    add_header_line("MIME-Version: 1.0");
    CString line;
    line.Format("Content-Type: %s; boundary=%s", m_sMIMEContentType.GetString(), m_sPartBoundary.GetString());
    add_header_line(line);
}

void CMIMEMessage::prepare_body() {
    if (!m_sBody.IsEmpty()) {
        // AddMIMEPart (body, text, "", 7Bit, no path), the text moved rather than copied.
        CMIMEPart part;
        part.m_nEncoding = _7BIT;
        part.m_nContentType = TEXT_PLAIN;
        part.m_sContent = std::move(m_sBody);
        part.m_sContent.Trim();
        m_MIMEPartList.push_front(std::move(part));
    }
    m_sBody = m_sNoMIMEText + "\r\n\r\n";
    append_mime_parts();
    insert_message_end(m_sBody);
    CMailMessage::prepare_body();
}

void CMIMEMessage::append_mime_parts() {
    for (const CMIMEPart& part : m_MIMEPartList) {
        CMIMEContentAgent* agent = m_MIMETypeManager.GetHandler(part.m_nContentType);
        if (agent == nullptr) continue;
        insert_boundary(m_sBody);
        agent->AppendPart(part.m_sContent, part.m_sParameters, part.m_nEncoding, part.m_bPath, m_sBody);
    }
}

namespace {
void EndLine(CString& text) {
    const std::string& s = text.str();
    if (s.size() < 2 || s.compare(s.size() - 2, 2, "\r\n") != 0) text += "\r\n";
}
}  // namespace

void CMIMEMessage::insert_boundary(CString& text) {
    EndLine(text);
    text.AppendFormat("--%s\r\n", m_sPartBoundary.GetString());
}

void CMIMEMessage::insert_message_end(CString& text) {
    EndLine(text);
    text.AppendFormat("--%s--\r\n", m_sPartBoundary.GetString());
}
