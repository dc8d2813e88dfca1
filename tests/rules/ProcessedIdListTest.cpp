// The processed-identifier list against a plain std::list doing the same operations: order, duplicates,
// removal of the first occurrence, and the table growing, shifting and compacting under it.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <string>
#include <vector>

#include "rules/internal/ProcessedIdList.h"

namespace {

using tavik::lib::ProcessedIdList;

void ExpectSame(const ProcessedIdList& ids, const std::list<DWORD>& model, int step) {
    ASSERT_EQ(ids.Size(), model.size()) << "step " << step;
    ASSERT_EQ(ids.ToList(), model) << "step " << step;
}

TEST(ProcessedIdList, BehavesAsAnOrderedListUnderRandomOperations) {
    for (DWORD range : {8u, 300u, 0xFFFFFFFFu}) {  // many duplicates, some, almost none
        std::mt19937 random(range);
        std::uniform_int_distribution<DWORD> value(0, range);
        ProcessedIdList ids;
        std::list<DWORD> model;
        for (int step = 0; step < 8000; ++step) {
            const DWORD id = value(random);
            switch (random() % 5) {
                case 0:
                case 1:
                    ids.Append(id);
                    model.push_back(id);
                    break;
                case 2: {
                    const bool present = std::find(model.begin(), model.end(), id) != model.end();
                    ASSERT_EQ(ids.AppendUnique(id), !present);
                    if (!present) model.push_back(id);
                    break;
                }
                default: {
                    auto it = std::find(model.begin(), model.end(), id);
                    ASSERT_EQ(ids.RemoveFirst(id), it != model.end());
                    if (it != model.end()) model.erase(it);
                }
            }
            ASSERT_EQ(ids.Contains(id), std::find(model.begin(), model.end(), id) != model.end());
            if (step % 997 == 0) ExpectSame(ids, model, step);
        }
        ExpectSame(ids, model, -1);
    }
}

std::string LittleEndian(const std::vector<DWORD>& values) {
    std::string bytes;
    for (DWORD v : values)
        for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(v >> shift);
    return bytes;
}

// A load appends a whole stream at once; it must leave the list exactly as appending one by one would,
// whatever the list held before (repeats, zero, removed entries).
TEST(ProcessedIdList, BulkAppendMatchesAppendingOneByOne) {
    std::mt19937 random(7);
    for (DWORD range : {5u, 1000u, 0xFFFFFFFFu}) {
        for (bool unique : {false, true}) {
            std::uniform_int_distribution<DWORD> value(0, range);
            ProcessedIdList bulk, single;
            for (int i = 0; i < 300; ++i) {
                const DWORD id = value(random);
                bulk.Append(id);
                single.Append(id);
                if (i % 3 == 0) {
                    bulk.RemoveFirst(id / 2);
                    single.RemoveFirst(id / 2);
                }
            }
            std::vector<DWORD> incoming(3000);
            for (DWORD& id : incoming) id = value(random);
            incoming.push_back(0);
            incoming.push_back(0);
            const std::string bytes = LittleEndian(incoming);
            bulk.AppendLittleEndian(bytes.data(), incoming.size(), unique);
            for (DWORD id : incoming) unique ? (void)single.AppendUnique(id) : single.Append(id);
            ExpectSame(bulk, single.ToList(), static_cast<int>(range));
            // The repeats are counted too: removing every occurrence empties both alike.
            for (DWORD id : incoming) ASSERT_EQ(bulk.RemoveFirst(id), single.RemoveFirst(id));
            ExpectSame(bulk, single.ToList(), -static_cast<int>(range));
            for (DWORD id : incoming) ASSERT_EQ(bulk.Contains(id), single.Contains(id));
        }
    }
}

TEST(ProcessedIdList, DrainsToEmptyAndServesAgain) {
    ProcessedIdList ids;
    for (DWORD i = 0; i < 5000; ++i) ids.Append(i * 7919u);
    for (DWORD i = 0; i < 5000; ++i) ASSERT_TRUE(ids.RemoveFirst(i * 7919u));
    EXPECT_TRUE(ids.Empty());
    EXPECT_FALSE(ids.Contains(0));
    ids.Append(0);
    ids.Append(0xFFFFFFFFu);
    EXPECT_EQ(ids.ToBytes(), std::string("\0\0\0\0\xff\xff\xff\xff", 8));
    ProcessedIdList copy = ids;
    copy.RemoveFirst(0);
    EXPECT_TRUE(ids.Contains(0));
    EXPECT_FALSE(copy.Contains(0));
}

// Every table size on the way up, with probes running past the last slot back to the first and
// removals shifting entries back across that wrap.
TEST(ProcessedIdList, FindsEveryValueAtEverySizeItGrowsThrough) {
    ProcessedIdList ids;
    std::vector<DWORD> present;
    for (DWORD i = 1; i <= 20000; ++i) {
        ids.Append(i * 2654435761u);
        present.push_back(i * 2654435761u);
        if (i % 3 == 0) {
            ASSERT_TRUE(ids.RemoveFirst(present[i / 2]));
            present[i / 2] = 0;  // never stored
        }
        if ((i & (i - 1)) != 0 && i % 997 != 0) continue;
        for (DWORD id : present) ASSERT_EQ(ids.Contains(id), id != 0) << i;
        ASSERT_FALSE(ids.Contains(i * 2654435761u + 1)) << i;
    }
}

}  // namespace
