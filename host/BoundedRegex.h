// The regular expressions of rules ("matches"), searched in time that a hostile message cannot stretch.
//
// A backtracking engine (std::regex among them) can take exponential time on a pattern such as (a+)+b
// against a long run of a's, and a rule's pattern meets text that anyone on the Internet writes. So the
// pattern compiles to a Thompson automaton that is simulated over the text one character at a time, every
// live state at once: the work is at most (program size) x (text length), with no stack that grows with
// the text. On top of that the pattern is capped in length and in compiled size, and each search has a
// step budget; a search that runs out of it says so instead of answering.
//
// Syntax (the common ERE/Perl core): literals; "." (any character but a line end); [...] and [^...] with
// ranges and the escapes below; ^ and $ at the ends of the text and of each line; ( ), (?: ), (?i) (case
// is ignored anyway); |; * + ? {n} {n,} {n,m} (n, m up to 1000), each optionally followed by "?" (lazy,
// which a yes/no search does not need to tell from greedy); \d \D \w \W \s \S \b \B, \t \n \r \f \v,
// \xHH, \x{H...}, and a backslash before any other non-alphanumeric character. Back-references and
// look-around are refused with a reason: they have no linear-time search. Letter case is ignored always.
// A "{" that does not open a valid count is a literal, as in Perl.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tavik::host {

class BoundedRegex {
public:
    static constexpr size_t kMaxPatternLength = 1000;  // characters
    static constexpr size_t kMaxProgramSize = 20000;   // instructions, counts expanded
    static constexpr uint64_t kDefaultBudget = 40'000'000;

    enum class Result { kFound, kNotFound, kOutOfTime };

    // Compiles a UTF-8 pattern, replacing what was compiled before. False, with a sentence saying what is
    // wrong in *error (may be null), for a syntax error, an unsupported construct or a pattern over the
    // caps; the object then matches nothing.
    bool Compile(std::string_view pattern, std::string* error = nullptr);
    bool IsCompiled() const { return !m_program.empty(); }

    // Whether the pattern occurs anywhere in text (code points). Each state visited costs one step;
    // past budget steps the answer is kOutOfTime. *used, when given, receives the steps taken, so that
    // several searches can share one budget.
    Result Search(std::u32string_view text, uint64_t budget = kDefaultBudget, uint64_t* used = nullptr) const;

    // Program size, for tests of the caps.
    size_t ProgramSize() const { return m_program.size(); }

    struct Range {
        char32_t low, high;
    };
    struct Class {
        std::vector<Range> ranges;
        bool negated = false;
    };
    struct Instruction {
        enum Op : uint8_t { kChar, kAny, kClass, kSplit, kJump, kAssert, kMatch } op;
        uint32_t x = 0, y = 0;  // kChar: the folded character; kClass: its index; kSplit: both targets;
                                // kJump: the target; kAssert: which assertion
    };

private:
    std::vector<Instruction> m_program;
    std::vector<Class> m_classes;
};

}  // namespace tavik::host
