// Random MIME messages of the shapes mail takes, with the traps the decoder's literal steps fall into
// (contents that occur twice, empty parts, boundaries inside one another, escapes that make escapes),
// and random damage to them.
#pragma once

#include <random>
#include <string>
#include <vector>

namespace tavik::test {

class MimeGenerator {
public:
    explicit MimeGenerator(unsigned seed) : m_rng(seed) {}
    std::string Message();
    // The message with a few random edits: bytes changed, inserted, removed, ranges repeated or cut.
    std::string Damage(std::string message);
    // Short random text over the characters the decoder's steps react to.
    std::string Noise(std::size_t maxLength, const std::string& alphabet);
    int Pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(m_rng); }

private:
    std::string Part(int depth);
    std::string Multipart(int depth, const std::string& subtype);
    std::string Leaf();
    std::string Text(std::size_t words);
    std::string Boundary();

    std::mt19937 m_rng;
    std::vector<std::string> m_contents;  // earlier contents, to repeat
};

}  // namespace tavik::test
