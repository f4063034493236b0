// Bit runs: the null test counts only the run's own bits, whatever lies
// beyond its end in the last word; the copy moves exactly the run.
#include <gtest/gtest.h>

#include <algorithm>
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

// Against a bit-by-bit model, over one array of 8 words (ASan sees a read
// past it): a run in another array or moving down is copied as it was, one
// moving up inside the same pointer as well (backward), a null source
// clears, and a second pointer into the same array copies forward in
// chunks of 64 from the run's start, each reading what earlier ones wrote.
TEST(CopyBitmap, MovesExactlyTheRun) {
    std::mt19937_64 rng(0x5eed0006);
    auto bit = [](const Words &w, int i) { return (w[size_t(i) / 64] >> (i % 64)) & 1; };
    auto put = [](Words &w, int i, vel_bitmap_word_t b) {
        w[size_t(i) / 64] =
            (w[size_t(i) / 64] & ~(vel_bitmap_word_t{1} << (i % 64))) | b << (i % 64);
    };
    for (int round = 0; round < 20000; round++) {
        Words w(8), other(8);
        for (size_t k = 0; k < 8; k++)
            w[k] = rng(), other[k] = rng();
        const int length = static_cast<int>(rng() % 200);
        const int d = static_cast<int>(rng() % static_cast<uint64_t>(513 - length));
        const int s = 64 + static_cast<int>(rng() % static_cast<uint64_t>(449 - length));
        const int kind = static_cast<int>(rng() % 4);
        Words want = w;
        for (int c = 0; c < length; c += 64) { // chunks read before they are written
            vel_bitmap_word_t chunk[64];
            for (int i = c; i < std::min(length, c + 64); i++)
                chunk[i - c] = kind == 0 ? bit(other, s + i) : kind == 2 ? 0 : bit(want, s + i);
            for (int i = c; i < std::min(length, c + 64); i++)
                put(want, d + i, chunk[i - c]);
        }
        if (kind == 1 && s < d) // backward: the run as it was
            for (int i = 0; i < length; i++)
                put(want, d + i, bit(w, s + i));
        const vel_bitmap_word_t *from[] = {other.data(), w.data(), nullptr, w.data() + 1};
        vel_seq_copy_bitmap(w.data(), d, from[kind], kind == 3 ? s - 64 : s, length);
        ASSERT_EQ(w, want) << "kind " << kind << " from " << s << " to " << d << " length "
                           << length;
    }
}

} // namespace
