// The reply grammar under every way a reply can arrive: whole, byte by byte, in random pieces, and with
// the end mark cut at every possible place.
#include <gtest/gtest.h>

#include <string>

#include "transport/internal/EndMarkScanner.h"
#include "transport/internal/ReplyParts.h"
#include "transport/internal/ReplyQueue.h"

using tavik::lib::EndMarkScanner;

namespace {

constexpr std::string_view kLine = "\r\n";
constexpr std::string_view kListing = "\r\n.\r\n";

// Feeds text in the given piece sizes (cycled) and returns where the scanner first saw the mark, as a
// reader would: it stops at the first piece that completes it.
size_t FeedInPieces(std::string_view mark, const std::string& text, const std::vector<size_t>& pieces) {
    EndMarkScanner scanner(mark);
    std::string reply;
    size_t at = 0, i = 0;
    while (at < text.size()) {
        size_t n = std::min(pieces[i++ % pieces.size()], text.size() - at);
        reply.append(text, at, n);
        at += n;
        size_t found = scanner.Find(reply);
        if (found != EndMarkScanner::npos) return found;
    }
    return EndMarkScanner::npos;
}

const std::vector<std::string> kReplies = {
    "+OK\r\n.\r\n",  // empty listing: status line end + dot line
    "+OK 2 messages\r\n1 120\r\n2 4400\r\n.\r\n",
    "+OK\r\nSubject: x\r\n\r\n.\r\n",     // TOP n 0: header and the empty line
    "+OK\r\n..\r\n...and more\r\n.\r\n",  // dot-stuffed lines are not the end
    "+OK\r\n.\r\r\n.\n.\r\n\r\n.\r\n",    // near misses before the real mark
    "-ERR no such message\r\n",           // never ends a listing
    "+OK 1 000000016b03885a\r\n",
};

}  // namespace

// Whole, byte by byte, and cut in two places everywhere (so also inside the mark itself).
TEST(EndMarkScanner, FindsTheFirstMarkHoweverTheReplyArrives) {
    for (std::string_view mark : {kLine, kListing}) {
        for (const auto& reply : kReplies) {
            const size_t expected = reply.find(mark);
            SCOPED_TRACE(std::string(mark.size() == 2 ? "line: " : "listing: ") + reply);
            EXPECT_EQ(FeedInPieces(mark, reply, {reply.size()}), expected);
            EXPECT_EQ(FeedInPieces(mark, reply, {1}), expected);
            for (size_t cut = 1; cut < reply.size(); ++cut)
                for (size_t second = 1; cut + second < reply.size(); ++second)
                    ASSERT_EQ(FeedInPieces(mark, reply, {cut, second, reply.size()}), expected)
                        << cut << "+" << second;
        }
    }
}

TEST(EndMarkScanner, ExaminesEachByteAFewTimesAtMost) {
    // A 300 KB listing that arrives byte by byte: a reader that searched the whole reply again after each
    // piece would look at 45 billion bytes.
    std::string reply = "+OK\r\n";
    while (reply.size() < 300000) reply += "a body line that goes on for a while\r\n";
    reply += ".\r\n";
    EndMarkScanner scanner(kListing);
    std::string growing;
    size_t found = EndMarkScanner::npos;
    for (char c : reply) {
        growing += c;
        found = scanner.Find(growing);
        if (found != EndMarkScanner::npos) break;
    }
    EXPECT_EQ(found, reply.size() - 5);
    EXPECT_LE(scanner.Examined(), reply.size() * kListing.size());

    scanner.Reset();
    EXPECT_EQ(scanner.Find("x\r\n.\r\n"), 1u) << "a reset scanner starts over";
}

TEST(ReplyParts, SplitsTheStatusLineOnlyWhenItHasText) {
    struct Case {
        std::string in;
        bool split;
        std::string status, out;
    } cases[] = {
        {"+OK 5 octets\r\nhello\r\n.\r\n", true, "+OK 5 octets", "hello"},
        {"\r\n+OK\r\n", false, "unchanged", "\r\n+OK\r\n"},  // a line end at 0 is not a status line
        {"+OK but no line end", false, "unchanged", "+OK but no line end"},
        {"+OK\r\n.\r\n", true, "+OK",
         ".\r\n"},  // an empty listing keeps its dot line: the mark would start at 0
    };
    for (auto& c : cases) {
        std::string reply = c.in, status = "unchanged";
        EXPECT_EQ(tavik::lib::StripReply(reply, &status), c.split) << c.in;
        EXPECT_EQ(status, c.status) << c.in;
        EXPECT_EQ(reply, c.out) << c.in;
    }
}

TEST(ReplyParts, GivesBackSpareRoomOnlyWhenItMatters) {
    std::string big = "+OK 100000 octets\r\n" + std::string(100000, 'm') + "\r\n.\r\n", status;
    big.reserve(big.size() + 100);
    tavik::lib::StripReply(big, &status);
    EXPECT_EQ(big.size(), 100000u);
    EXPECT_LT(big.capacity(), 100000u + 4096) << "a few bytes of room are not worth a copy";

    std::string oversized = "+OK\r\nshort\r\n.\r\n";
    oversized.reserve(1 << 20);
    tavik::lib::StripReply(oversized, &status);
    EXPECT_EQ(oversized, "short");
    EXPECT_LT(oversized.capacity(), 4096u) << "a megabyte of room for five bytes is released";
}

TEST(ReplyParts, CutsAtTheFirstEndMarkAndKeepsDotStuffing) {
    struct Case {
        std::string in, out;
    } cases[] = {
        {"line one\r\n..\r\n..dotted\r\n.\r\n", "line one\r\n..\r\n..dotted"},  // doubled dots stay
        {"From: a\r\nSubject: b\r\n\r\n.\r\n",
         "From: a\r\nSubject: b\r\n"},  // TOP n 0 keeps its last line end
        {".\r\n", ".\r\n"},
        {"\r\n.\r\n", "\r\n.\r\n"},  // mark at 0 is left alone
        {"no mark at all\r\n", "no mark at all\r\n"},
        {"a\r\n.\r\nb\r\n.\r\n", "a"},
    };
    for (auto& c : cases) {
        std::string reply = c.in;
        tavik::lib::StripReply(reply, nullptr);
        EXPECT_EQ(reply, c.out) << c.in;
    }
}

namespace {

// The replies of a pipelined exchange, taken apart with the given kinds (true: a listing), fed in the
// piece sizes given (cycled).
std::vector<std::string> Split(const std::string& stream, const std::vector<bool>& listing,
                               const std::vector<size_t>& pieces) {
    tavik::lib::ReplyQueue queue;
    std::vector<std::string> out;
    size_t at = 0, piece = 0;
    for (bool isListing : listing) {
        for (;;) {
            size_t n = isListing ? queue.ListingLength() : queue.LineLength();
            if (n != tavik::lib::ReplyQueue::npos) {
                out.emplace_back(queue.Front(n));
                queue.Consume(n);
                break;
            }
            if (at == stream.size()) return out;
            size_t take = std::min(pieces[piece++ % pieces.size()], stream.size() - at);
            queue.Append(stream.data() + at, take);
            at += take;
        }
    }
    EXPECT_EQ(queue.Size() + (stream.size() - at), 0u) << "nothing left over";
    return out;
}

}  // namespace

// The same replies whatever the pieces they come in, with each end mark cut at every place.
TEST(ReplyQueue, CutsPipelinedRepliesAtTheirMarksHoweverTheyArrive) {
    const std::vector<std::string> replies = {
        "+OK 1 120\r\n",   "+OK\r\nFrom: a\r\n..dotted\r\n\r\n.\r\n",
        "+OK 1 uid-1\r\n", "+OK 2 40\r\n",
        "+OK\r\n.\r\n",    "+OK 2 uid-2\r\n",
    };
    const std::vector<bool> kinds = {false, true, false, false, true, false};
    std::string stream;
    for (const auto& r : replies) stream += r;
    EXPECT_EQ(Split(stream, kinds, {stream.size()}), replies);
    EXPECT_EQ(Split(stream, kinds, {1}), replies);
    for (size_t cut = 1; cut < stream.size(); ++cut)
        for (size_t second : {1u, 2u, 3u, 4u, 7u})
            ASSERT_EQ(Split(stream, kinds, {cut, second}), replies) << cut << "+" << second;
    EXPECT_EQ(Split(stream.substr(0, stream.size() - 1), kinds, {5}).size(), replies.size() - 1)
        << "a reply without its line end is not whole";
}

TEST(ReplyQueue, KeepsItsBufferSmallWhileManyRepliesPassThrough) {
    tavik::lib::ReplyQueue queue;
    const std::string reply = "+OK\r\n" + std::string(1000, 'h') + "\r\n.\r\n";
    for (int i = 0; i < 3; ++i) {
        queue.Append(reply.data(), reply.size());
        size_t n = queue.ListingLength();
        ASSERT_EQ(n, reply.size());
        queue.Consume(n);
    }
    EXPECT_EQ(queue.Held(), 0u) << "all taken: nothing kept";
    // Two replies at a time, one taken: the buffer is compacted instead of growing with the stream.
    queue.Append(reply.data(), reply.size());
    for (int i = 0; i < 2000; ++i) {
        queue.Append(reply.data(), reply.size());
        queue.Consume(queue.ListingLength());
        ASSERT_LT(queue.Held(), 200000u) << "after " << i << " replies";
    }
    EXPECT_EQ(queue.Size(), reply.size());
    EXPECT_EQ(queue.Front(5), "+OK\r\n");
}
