// Splits a text at any of a set of delimiter characters into a list of standard strings, with a cursor.
// Runs of delimiters, and delimiters at either end, give no empty tokens.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

class CStringToken {
public:
    using TokenList = std::vector<std::string>;

    CStringToken() = default;
    // A null text or delimiter set gives no tokens. The cursor starts at the first token.
    CStringToken(const char* text, const char* delimiters);
    CStringToken(const CStringToken&) = default;
    CStringToken& operator=(const CStringToken&) = default;
    virtual ~CStringToken() = default;

    // Appends the tokens of text; the cursor keeps its index.
    void CreateTokenList(const char* text, const char* delimiters);
    void GetTokenList(TokenList& out) const { out = m_tokens; }
    // Tokens from start to the last, each but the last followed by sep; empty when start is past the list.
    std::string Elements(unsigned start, const char* sep) const;
    // Copy of token i; empty when i is not below Size().
    std::string operator[](unsigned i) const;
    int Size() const { return static_cast<int>(m_tokens.size()); }
    TokenList::const_iterator Begin() const { return m_tokens.begin(); }
    TokenList::const_iterator End() const { return m_tokens.end(); }

    // The token at the cursor; null at the end of the list.
    operator const std::string*() const;
    // The cursor stays at the end, or at the first token, once there. The postfix forms return a copy
    // taken before the move.
    CStringToken& operator++();
    CStringToken operator++(int);
    CStringToken& operator--();
    CStringToken operator--(int);

protected:
    // One step: copies into token (at most size - 1 characters, then a terminator) up to a delimiter or
    // the end, skips the delimiters that follow, and returns where the next token may begin; null when
    // text is empty.
    static const char* stptok(const char* text, char* token, size_t size, const char* delimiters);

private:
    TokenList m_tokens;
    size_t m_cursor = 0;
};
