#include "util/CStringToken.h"

#include <cstring>

CStringToken::CStringToken(const char* text, const char* delimiters) { CreateTokenList(text, delimiters); }

const char* CStringToken::stptok(const char* text, char* token, size_t size, const char* delimiters) {
    if (text == nullptr || *text == '\0' || size == 0) return nullptr;
    size_t n = 0;
    while (*text != '\0' && std::strchr(delimiters, *text) == nullptr && n + 1 < size) token[n++] = *text++;
    token[n] = '\0';
    if (*text != '\0' && std::strchr(delimiters, *text) != nullptr) {
        while (*text != '\0' && std::strchr(delimiters, *text) != nullptr) ++text;
    }
    return text;
}

void CStringToken::CreateTokenList(const char* text, const char* delimiters) {
    if (text == nullptr || delimiters == nullptr) return;
    // The buffer holds the whole text, so a token is never cut short.
    std::vector<char> token(std::strlen(text) + 1);
    const char* rest = text;
    while (rest != nullptr && *rest != '\0') {
        rest = stptok(rest, token.data(), token.size(), delimiters);
        if (token[0] != '\0') m_tokens.emplace_back(token.data());
    }
}

std::string CStringToken::Elements(unsigned start, const char* sep) const {
    std::string out;
    for (size_t i = start; i < m_tokens.size(); ++i) {
        out += m_tokens[i];
        if (i + 1 < m_tokens.size() && sep != nullptr) out += sep;
    }
    return out;
}

std::string CStringToken::operator[](unsigned i) const {
    return i < m_tokens.size() ? m_tokens[i] : std::string();
}

CStringToken::operator const std::string*() const {
    return m_cursor < m_tokens.size() ? &m_tokens[m_cursor] : nullptr;
}

CStringToken& CStringToken::operator++() {
    if (m_cursor < m_tokens.size()) ++m_cursor;
    return *this;
}

CStringToken CStringToken::operator++(int) {
    CStringToken old(*this);
    ++*this;
    return old;
}

CStringToken& CStringToken::operator--() {
    if (m_cursor > 0) --m_cursor;
    return *this;
}

CStringToken CStringToken::operator--(int) {
    CStringToken old(*this);
    --*this;
    return old;
}
