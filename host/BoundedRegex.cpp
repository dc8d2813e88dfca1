#include "host/BoundedRegex.h"

#include <memory>

#include "host/HeaderText.h"

namespace tavik::host {

namespace {

using Instruction = BoundedRegex::Instruction;
using Class = BoundedRegex::Class;

enum Assertion : uint32_t { kLineStart, kLineEnd, kWordBoundary, kNotWordBoundary };

constexpr int kMaxCount = 1000;
constexpr int kMaxNesting = 100;

struct Node {
    enum Kind { kEmpty, kChar, kAny, kClass, kAssert, kConcat, kAlternate, kRepeat } kind = kEmpty;
    uint32_t value = 0;    // the character, class index or assertion
    int min = 0, max = 0;  // kRepeat; max -1: no limit
    std::vector<std::unique_ptr<Node>> children;
};

bool IsWordChar(char32_t c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
           (c >= 0xC0 && c != 0xD7 && c != 0xF7 && c != U'\uFFFD');
}

void AddShorthand(Class& cls, char letter) {
    switch (letter) {
        case 'd':
            cls.ranges.push_back({'0', '9'});
            break;
        case 'w':
            cls.ranges.insert(cls.ranges.end(), {{'0', '9'},
                                                 {'A', 'Z'},
                                                 {'a', 'z'},
                                                 {'_', '_'},
                                                 {0xC0, 0xD6},
                                                 {0xD8, 0xF6},
                                                 {0xF8, 0xFFFC},
                                                 {0xFFFE, 0x10FFFF}});
            break;
        case 's':
            cls.ranges.insert(cls.ranges.end(), {{'\t', '\r'}, {' ', ' '}, {0xA0, 0xA0}});
            break;
    }
}

bool InRanges(const Class& cls, char32_t c) {
    for (const BoundedRegex::Range& r : cls.ranges)
        if (c >= r.low && c <= r.high) return true;
    return false;
}

// Letter case ignored: a character is in the class when it or its other case is.
bool ClassHolds(const Class& cls, char32_t c) {
    const bool in = InRanges(cls, c) || InRanges(cls, FoldCase(c)) || InRanges(cls, UpperCase(c));
    return in != cls.negated;
}

class Parser {
public:
    Parser(std::u32string_view pattern, std::vector<Class>& classes) : m_p(pattern), m_classes(classes) {}

    std::unique_ptr<Node> Parse() {
        auto node = Alternation(0);
        if (!m_error.empty()) return nullptr;
        if (m_at < m_p.size()) return Fail("a ')' without its '('");
        return node;
    }
    const std::string& Error() const { return m_error; }

private:
    std::nullptr_t Fail(const std::string& why) {
        if (m_error.empty()) m_error = why;
        return nullptr;
    }
    bool More() const { return m_at < m_p.size() && m_error.empty(); }
    char32_t Peek() const { return m_p[m_at]; }

    std::unique_ptr<Node> Alternation(int depth) {
        if (depth > kMaxNesting) return Fail("groups nested too deeply");
        auto alt = std::make_unique<Node>();
        alt->kind = Node::kAlternate;
        alt->children.push_back(Sequence(depth));
        while (More() && Peek() == '|') {
            ++m_at;
            alt->children.push_back(Sequence(depth));
        }
        if (!m_error.empty()) return nullptr;
        if (alt->children.size() == 1) return std::move(alt->children.front());
        return alt;
    }

    std::unique_ptr<Node> Sequence(int depth) {
        auto seq = std::make_unique<Node>();
        seq->kind = Node::kConcat;
        while (More() && Peek() != '|' && Peek() != ')') {
            auto atom = Atom(depth);
            if (!atom) return nullptr;
            atom = Quantified(std::move(atom));
            if (!atom) return nullptr;
            seq->children.push_back(std::move(atom));
        }
        return seq;
    }

    static std::unique_ptr<Node> Leaf(Node::Kind kind, uint32_t value = 0) {
        auto n = std::make_unique<Node>();
        n->kind = kind;
        n->value = value;
        return n;
    }

    bool IsQuantifier() {
        if (!More()) return false;
        const char32_t c = Peek();
        if (c == '*' || c == '+' || c == '?') return true;
        int min, max;
        size_t length;
        return c == '{' && ReadCount(min, max, length);
    }

    // "{n}", "{n,}" or "{n,m}" at the current position; false (nothing consumed) for anything else.
    bool ReadCount(int& min, int& max, size_t& length) {
        size_t i = m_at + 1;
        const auto number = [&](int& out) {
            const size_t start = i;
            long value = 0;
            while (i < m_p.size() && m_p[i] >= '0' && m_p[i] <= '9' && i - start < 7)
                value = value * 10 + (m_p[i++] - '0');
            out = static_cast<int>(value);
            return i > start;
        };
        if (!number(min)) return false;
        max = min;
        if (i < m_p.size() && m_p[i] == ',') {
            ++i;
            if (!number(max)) max = -1;
        }
        if (i >= m_p.size() || m_p[i] != '}') return false;
        length = i + 1 - m_at;
        return true;
    }

    std::unique_ptr<Node> Quantified(std::unique_ptr<Node> atom) {
        if (!IsQuantifier()) return atom;
        if (atom->kind == Node::kAssert) return Fail("an anchor cannot be repeated");
        int min = 0, max = -1;
        const char32_t c = Peek();
        if (c == '+') min = 1;
        if (c == '?') max = 1;
        if (c == '{') {
            size_t length = 0;
            ReadCount(min, max, length);
            m_at += length - 1;
            if (min > kMaxCount || max > kMaxCount) return Fail("a count above 1000");
            if (max >= 0 && max < min) return Fail("a count {n,m} with m below n");
        }
        ++m_at;
        if (More() && Peek() == '?') ++m_at;  // lazy: the same yes or no
        if (IsQuantifier()) return Fail("a quantifier follows another");
        auto rep = std::make_unique<Node>();
        rep->kind = Node::kRepeat;
        rep->min = min;
        rep->max = max;
        rep->children.push_back(std::move(atom));
        return rep;
    }

    std::unique_ptr<Node> Atom(int depth) {
        const char32_t c = m_p[m_at++];
        switch (c) {
            case '(': {
                if (m_at < m_p.size() && m_p[m_at] == '?') {
                    const std::u32string_view rest = m_p.substr(m_at);
                    if (rest.substr(0, 2) == U"?:") {
                        m_at += 2;
                    } else if (rest.substr(0, 3) == U"?i)") {
                        m_at += 3;
                        return Leaf(Node::kEmpty);
                    } else if (rest.substr(0, 2) == U"?=" || rest.substr(0, 2) == U"?!" ||
                               rest.substr(0, 2) == U"?<") {
                        return Fail("look-around (?=, (?!, (?<) is not supported");
                    } else {
                        return Fail("an unknown group (? ...)");
                    }
                }
                auto inner = Alternation(depth + 1);
                if (!inner) return nullptr;
                if (m_at >= m_p.size() || m_p[m_at] != ')') return Fail("a '(' without its ')'");
                ++m_at;
                return inner;
            }
            case ')':
                return Fail("a ')' without its '('");
            case '*':
            case '+':
            case '?':
                return Fail("a quantifier with nothing to repeat");
            case '.':
                return Leaf(Node::kAny);
            case '^':
                return Leaf(Node::kAssert, kLineStart);
            case '$':
                return Leaf(Node::kAssert, kLineEnd);
            case '[':
                return Bracket();
            case '\\':
                return Escape(false, nullptr);
            case '{': {
                int min, max;
                size_t length;
                --m_at;
                const bool count = ReadCount(min, max, length);
                ++m_at;
                if (count) return Fail("a quantifier with nothing to repeat");
                return Leaf(Node::kChar, '{');
            }
            default:
                return Leaf(Node::kChar, FoldCase(c));
        }
    }

    // After a backslash. Inside brackets a shorthand goes into cls and a character into *single.
    std::unique_ptr<Node> Escape(bool inBracket, char32_t* single, Class* cls = nullptr) {
        if (m_at >= m_p.size()) return Fail("a pattern that ends with a backslash");
        const char32_t c = m_p[m_at++];
        char32_t literal = 0;
        switch (c) {
            case 'd':
            case 'w':
            case 's':
            case 'D':
            case 'W':
            case 'S': {
                const char lower = static_cast<char>(c | 0x20);
                const bool capital = c != static_cast<char32_t>(lower);
                if (inBracket) {
                    if (capital) return Fail("\\D, \\W and \\S cannot stand inside [ ]");
                    AddShorthand(*cls, lower);
                    return Leaf(Node::kEmpty);
                }
                Class shorthand;
                AddShorthand(shorthand, lower);
                shorthand.negated = capital;
                m_classes.push_back(std::move(shorthand));
                return Leaf(Node::kClass, static_cast<uint32_t>(m_classes.size() - 1));
            }
            case 'b':
            case 'B':
                if (inBracket) return Fail("\\b and \\B cannot stand inside [ ]");
                return Leaf(Node::kAssert, c == 'b' ? kWordBoundary : kNotWordBoundary);
            case 't':
                literal = '\t';
                break;
            case 'n':
                literal = '\n';
                break;
            case 'r':
                literal = '\r';
                break;
            case 'f':
                literal = '\f';
                break;
            case 'v':
                literal = '\v';
                break;
            case 'x': {
                const bool braced = m_at < m_p.size() && m_p[m_at] == '{';
                if (braced) ++m_at;
                uint32_t value = 0;
                size_t digits = 0;
                while (m_at < m_p.size() && digits < (braced ? 6u : 2u) && HexDigit(m_p[m_at]) >= 0) {
                    value = value * 16 + static_cast<uint32_t>(HexDigit(m_p[m_at++]));
                    ++digits;
                }
                if (digits == 0 || (braced && (m_at >= m_p.size() || m_p[m_at++] != '}')) || value > 0x10FFFF)
                    return Fail("a \\x escape without its hexadecimal digits");
                literal = value;
                break;
            }
            default:
                if (c >= '0' && c <= '9') return Fail("back-references (\\1 ...) are not supported");
                if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))
                    return Fail(std::string("an unknown escape \\") + static_cast<char>(c));
                literal = c;
        }
        if (inBracket) {
            *single = literal;
            return Leaf(Node::kEmpty);
        }
        return Leaf(Node::kChar, FoldCase(literal));
    }

    static int HexDigit(char32_t c) {
        if (c >= '0' && c <= '9') return static_cast<int>(c - '0');
        if (c >= 'a' && c <= 'f') return static_cast<int>(c - 'a' + 10);
        if (c >= 'A' && c <= 'F') return static_cast<int>(c - 'A' + 10);
        return -1;
    }

    std::unique_ptr<Node> Bracket() {
        Class cls;
        if (m_at < m_p.size() && m_p[m_at] == '^') {
            cls.negated = true;
            ++m_at;
        }
        bool first = true;
        for (;;) {
            if (m_at >= m_p.size()) return Fail("a '[' without its ']'");
            char32_t c = m_p[m_at++];
            if (c == ']' && !first) break;
            first = false;
            bool isChar = true;
            if (c == '\\') {
                char32_t single = 0xFFFFFFFF;
                if (!Escape(true, &single, &cls)) return nullptr;
                isChar = single != 0xFFFFFFFF;
                c = single;
            } else if (c == '[' && m_at < m_p.size() && m_p[m_at] == ':') {
                return Fail("[:class:] names are not supported; use \\d, \\w or \\s");
            }
            if (!isChar) continue;
            // A range "a-z", unless the '-' is last.
            if (m_at + 1 < m_p.size() && m_p[m_at] == '-' && m_p[m_at + 1] != ']') {
                m_at++;
                char32_t high = m_p[m_at++];
                if (high == '\\') {
                    char32_t single = 0xFFFFFFFF;
                    Class ignored;
                    if (!Escape(true, &single, &ignored)) return nullptr;
                    if (single == 0xFFFFFFFF) return Fail("a range that ends in \\d, \\w or \\s");
                    high = single;
                }
                if (high < c) return Fail("a range [b-a] that runs backwards");
                cls.ranges.push_back({c, high});
            } else {
                cls.ranges.push_back({c, c});
            }
        }
        m_classes.push_back(std::move(cls));
        return Leaf(Node::kClass, static_cast<uint32_t>(m_classes.size() - 1));
    }

    std::u32string_view m_p;
    size_t m_at = 0;
    std::vector<Class>& m_classes;
    std::string m_error;
};

class Emitter {
public:
    explicit Emitter(std::vector<Instruction>& program) : m_program(program) {}

    // False when the program would grow past the cap.
    bool Emit(const Node& node) {
        // Counts of empty groups emit nothing yet cost a visit each: bound the visits too.
        if (m_program.size() > BoundedRegex::kMaxProgramSize || ++m_visits > kMaxVisits) return false;
        switch (node.kind) {
            case Node::kEmpty:
                return true;
            case Node::kChar:
                return Add({Instruction::kChar, node.value});
            case Node::kAny:
                return Add({Instruction::kAny});
            case Node::kClass:
                return Add({Instruction::kClass, node.value});
            case Node::kAssert:
                return Add({Instruction::kAssert, node.value});
            case Node::kConcat:
                for (const auto& child : node.children)
                    if (!Emit(*child)) return false;
                return true;
            case Node::kAlternate: {
                // split L1, next; L1: a; jump end; next: split L2, next2; ... last alternative plain.
                std::vector<size_t> jumps;
                for (size_t i = 0; i < node.children.size(); ++i) {
                    const bool last = i + 1 == node.children.size();
                    size_t split = 0;
                    if (!last) {
                        split = m_program.size();
                        if (!Add({Instruction::kSplit, Here() + 1, 0})) return false;
                    }
                    if (!Emit(*node.children[i])) return false;
                    if (!last) {
                        jumps.push_back(m_program.size());
                        if (!Add({Instruction::kJump})) return false;
                        m_program[split].y = Here();
                    }
                }
                for (size_t j : jumps) m_program[j].x = Here();
                return true;
            }
            case Node::kRepeat:
                return Repeat(node);
        }
        return false;
    }

private:
    uint32_t Here() const { return static_cast<uint32_t>(m_program.size()); }
    bool Add(Instruction instruction) {
        m_program.push_back(instruction);
        return m_program.size() <= BoundedRegex::kMaxProgramSize;
    }

    bool Repeat(const Node& node) {
        const Node& child = *node.children.front();
        for (int i = 0; i < node.min; ++i)
            if (!Emit(child)) return false;
        if (node.max < 0) {
            // loop: split body, out; body; jump loop
            const uint32_t loop = Here();
            if (!Add({Instruction::kSplit, loop + 1, 0})) return false;
            if (!Emit(child)) return false;
            if (!Add({Instruction::kJump, loop})) return false;
            m_program[loop].y = Here();
            return true;
        }
        // Optional copies, each skipping to the end: a? a? ... nested so that a later copy needs the
        // earlier one (which keeps the automaton small: no choice between equal paths).
        std::vector<size_t> splits;
        for (int i = node.min; i < node.max; ++i) {
            splits.push_back(m_program.size());
            if (!Add({Instruction::kSplit, Here() + 1, 0})) return false;
            if (!Emit(child)) return false;
        }
        for (size_t s : splits) m_program[s].y = Here();
        return true;
    }

    static constexpr size_t kMaxVisits = 1'000'000;
    std::vector<Instruction>& m_program;
    size_t m_visits = 0;
};

// A set of program positions with constant-time insert, test and clear.
class StateSet {
public:
    explicit StateSet(size_t size) : m_dense(size), m_sparse(size) {}
    bool Contains(uint32_t pc) const { return m_sparse[pc] < m_size && m_dense[m_sparse[pc]] == pc; }
    void Insert(uint32_t pc) {
        m_sparse[pc] = m_size;
        m_dense[m_size++] = pc;
    }
    void Clear() { m_size = 0; }
    uint32_t Size() const { return m_size; }
    uint32_t At(uint32_t i) const { return m_dense[i]; }

private:
    std::vector<uint32_t> m_dense, m_sparse;
    uint32_t m_size = 0;
};

}  // namespace

bool BoundedRegex::Compile(std::string_view pattern, std::string* error) {
    m_program.clear();
    m_classes.clear();
    const auto fail = [&](const std::string& why) {
        m_program.clear();
        m_classes.clear();
        if (error) *error = why;
        return false;
    };
    const std::u32string text = Utf8ToCodePoints(pattern);
    if (text.size() > kMaxPatternLength) return fail("the pattern is longer than 1000 characters");
    Parser parser(text, m_classes);
    const std::unique_ptr<Node> root = parser.Parse();
    if (!root) return fail(parser.Error());
    Emitter emitter(m_program);
    if (!emitter.Emit(*root) || m_program.size() >= kMaxProgramSize)
        return fail("the pattern is too large once its counts are written out");
    m_program.push_back({Instruction::kMatch});
    return true;
}

BoundedRegex::Result BoundedRegex::Search(std::u32string_view text, uint64_t budget, uint64_t* used) const {
    uint64_t steps = 0;
    struct Tally {
        uint64_t& steps;
        uint64_t* used;
        ~Tally() {
            if (used) *used = steps;
        }
    } tally{steps, used};
    if (m_program.empty()) return Result::kNotFound;
    const size_t size = m_program.size();
    StateSet current(size), next(size);
    std::vector<uint32_t> stack;
    bool matched = false;

    // Follows the jumps, splits and assertions from pc at text position pos, adding the states that
    // consume a character to set.
    const auto follow = [&](StateSet& set, uint32_t start, size_t pos) {
        const char32_t before = pos > 0 ? text[pos - 1] : U'\n';
        const char32_t after = pos < text.size() ? text[pos] : U'\n';
        stack.push_back(start);
        while (!stack.empty()) {
            const uint32_t pc = stack.back();
            stack.pop_back();
            if (set.Contains(pc)) continue;
            set.Insert(pc);
            ++steps;
            const Instruction& in = m_program[pc];
            switch (in.op) {
                case Instruction::kSplit:
                    stack.push_back(in.y);
                    stack.push_back(in.x);
                    break;
                case Instruction::kJump:
                    stack.push_back(in.x);
                    break;
                case Instruction::kAssert: {
                    bool holds = false;
                    const bool wordBefore = pos > 0 && IsWordChar(before);
                    const bool wordAfter = pos < text.size() && IsWordChar(after);
                    switch (in.x) {
                        case kLineStart:
                            holds = before == '\n';
                            break;
                        case kLineEnd:
                            holds = after == '\n';
                            break;
                        case kWordBoundary:
                            holds = wordBefore != wordAfter;
                            break;
                        case kNotWordBoundary:
                            holds = wordBefore == wordAfter;
                            break;
                    }
                    if (holds) stack.push_back(pc + 1);
                    break;
                }
                case Instruction::kMatch:
                    matched = true;
                    break;
                default:
                    break;
            }
        }
    };

    for (size_t pos = 0;; ++pos) {
        follow(current, 0, pos);
        if (matched) return Result::kFound;
        if (steps > budget) return Result::kOutOfTime;
        if (pos == text.size()) break;
        const char32_t c = text[pos];
        const char32_t folded = FoldCase(c);
        next.Clear();
        for (uint32_t i = 0; i < current.Size(); ++i) {
            const uint32_t pc = current.At(i);
            const Instruction& in = m_program[pc];
            bool step = false;
            switch (in.op) {
                case Instruction::kChar:
                    step = folded == in.x;
                    break;
                case Instruction::kAny:
                    step = c != '\n';
                    break;
                case Instruction::kClass:
                    step = ClassHolds(m_classes[in.x], c);
                    break;
                default:
                    break;
            }
            ++steps;
            if (step) follow(next, pc + 1, pos + 1);
            if (matched) return Result::kFound;
        }
        if (steps > budget) return Result::kOutOfTime;
        std::swap(current, next);
    }
    return Result::kNotFound;
}

}  // namespace tavik::host
