// The null test of a bit run: only the run's own bits count, whatever lies
// beyond its end in the last word.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "velseq.h"

namespace {

using Words = std::vector<vel_bitmap_word_t>;

TEST(BitmapContainsNulls, OnlyTheLeadingBitsCount) {
    std::mt19937_64 rng(0x5eed0005);
    for (int round = 0; round < 2000; round++) {
        int length = static_cast<int>(rng() % 201);
        Words w(4, 0);
        int set_at = static_cast<int>(rng() % 256);
        w[static_cast<size_t>(set_at) / 64] |= vel_bitmap_word_t{1} << (set_at % 64);
        EXPECT_EQ(vel_seq_bitmap_contains_nulls(w.data(), length), set_at < length ? 1 : 0)
            << "bit " << set_at << " length " << length;
    }
    EXPECT_EQ(vel_seq_bitmap_contains_nulls(nullptr, 0), 0);
}

} // namespace
