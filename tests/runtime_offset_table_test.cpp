// The runtime's table of state-flag offsets: the same answers as an ordered map through inserts,
// overwrites, single and range erasures in any order, the memory it holds per entry, and no
// change but the refused entry when an allocation throws.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <new>
#include <random>
#include <vector>

#include "runtime/offset_table.h"
#include "tests/sm_heap.h"

namespace {

using mgx::OffsetTable;
using Reference = std::map<uintptr_t, int64_t>;

void expect_same(const OffsetTable &t, const Reference &ref, uintptr_t lo, uintptr_t hi) {
    ASSERT_EQ(t.size(), ref.size());
    for (uintptr_t k = lo; k < hi; ++k) {
        auto it = ref.find(k);
        const int64_t *got = t.find(k);
        ASSERT_EQ(got != nullptr, it != ref.end()) << k;
        if (got) {
            ASSERT_EQ(*got, it->second) << k;
        }
    }
}

// Keys over a range several runs wide, in random, rising and falling order, with blocks of them
// dropped as freed blocks drop theirs.
TEST(OffsetTable, AnswersAsAnOrderedMapDoes) {
    std::mt19937 rng(7);
    for (int order = 0; order < 3; ++order) {
        OffsetTable t;
        Reference ref;
        constexpr uintptr_t span = 6000;
        for (int i = 0; i < 20000; ++i) {
            uintptr_t k = order == 0 ? rng() % span : order == 1 ? uintptr_t(i) % span : span - 1 - uintptr_t(i) % span;
            int64_t v = int64_t(rng()) - (1ll << 31);
            switch (rng() % 10) {
            case 0:
                t.erase(k);
                ref.erase(k);
                break;
            case 1: {
                uintptr_t n = rng() % 700;
                t.erase_range(k, k + n);
                ref.erase(ref.lower_bound(k), ref.lower_bound(k + n));
                break;
            }
            default: t.insert_or_assign(k, v); ref.insert_or_assign(k, v);
            }
            if (i % 2500 == 0) expect_same(t, ref, 0, span + 1);
        }
        expect_same(t, ref, 0, span + 1);
        t.erase_range(0, span);
        EXPECT_TRUE(t.empty());
    }
}

// Entries added in address order, as a tracking decode adds them, fill their runs: about 16 bytes
// an entry, where a tree node per entry took 64.
TEST(OffsetTable, EntriesInOrderTakeAboutSixteenBytesEach) {
    constexpr size_t n = 100000;
    heap::start();
    {
        OffsetTable t;
        for (size_t k = 0; k < n; ++k) t.insert_or_assign(0x10000 + 40 * k, 24);
        EXPECT_LE(heap::peak(), n * 18);
        t.erase_range(0x10000, 0x10000 + 40 * n / 2);
        EXPECT_EQ(t.size(), n / 2);
        EXPECT_EQ(*t.find(0x10000 + 40 * (n - 1)), 24);
    }
}

// Every allocation of a run of inserts (new runs and splits) failing in turn: the throw leaves
// the entries that were there, and the refused one absent.
TEST(OffsetTable, AFailedAllocationLeavesTheEntriesThatWereThere) {
    std::vector<bool> refused(2000);
    for (uint64_t nth = 1;; ++nth) {
        Reference ref;
        OffsetTable t;
        for (uintptr_t k = 0; k < 2000; k += 2) t.insert_or_assign(k, int64_t(k)), ref.emplace(k, int64_t(k));
        std::fill(refused.begin(), refused.end(), false);
        heap::fail_at(nth); // the reference map is brought up to date afterwards: it allocates too
        for (uintptr_t k = 1; k < 2000; k += 2) {
            try {
                t.insert_or_assign(k, -int64_t(k));
            } catch (const std::bad_alloc &) {
                refused[k] = true;
            }
        }
        const bool fired = heap::fired();
        heap::fail_at(0);
        EXPECT_EQ(std::count(refused.begin(), refused.end(), true), fired ? 1 : 0) << nth;
        for (uintptr_t k = 1; k < 2000; k += 2)
            if (!refused[k]) ref.insert_or_assign(k, -int64_t(k));
        expect_same(t, ref, 0, 2001);
        if (!fired) break; // every allocation of the run has failed once
    }
}

} // namespace
