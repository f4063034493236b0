// Bit-run primitives against a bit-by-bit model: every bit inside the run
// must come from the source, every bit outside it must keep its value.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <vector>

#include "storage/bitmap.h"
#include "velseq.h"

namespace {

using Words = std::vector<vel_bitmap_word_t>;

bool get_bit(const Words &w, int i) {
    return ((w[static_cast<size_t>(i) / 64] >> (i % 64)) & 1) != 0;
}

Words random_words(std::mt19937_64 &rng, size_t n) {
    Words w(n);
    for (auto &x : w)
        x = rng();
    return w;
}

// The model: copy through a temporary, as if the run were moved bit by bit.
Words model_copy(Words dst, int dstindx, const Words *src, int srcindx, int length) {
    std::vector<bool> run(static_cast<size_t>(length));
    for (int i = 0; i < length; i++)
        run[static_cast<size_t>(i)] = src != nullptr && get_bit(*src, srcindx + i);
    for (int i = 0; i < length; i++) {
        auto &word = dst[static_cast<size_t>(dstindx + i) / 64];
        vel_bitmap_word_t m = vel_bitmap_word_t{1} << ((dstindx + i) % 64);
        word = run[static_cast<size_t>(i)] ? (word | m) : (word & ~m);
    }
    return dst;
}

constexpr size_t kWords = 10; // 640 bits: runs up to 200 at offsets up to 370

// Runs between two arrays, cleared runs (no source), and moves inside one
// array in both directions at every distance, including distances below 64
// and not multiples of 64.
TEST(BitmapCopy, RunsMatchModel) {
    enum Mode { kOtherArray, kClear, kSameArray };
    for (Mode mode : {kOtherArray, kClear, kSameArray}) {
        std::mt19937_64 rng(0x5eed0001 + mode);
        for (int round = 0; round < 3000; round++) {
            int length = static_cast<int>(rng() % 201);
            int a = static_cast<int>(rng() % 300);
            int b =
                round % 4 == 0 ? a + static_cast<int>(rng() % 70) : static_cast<int>(rng() % 300);
            int dstindx = round % 2 ? a : b;
            int srcindx = round % 2 ? b : a;
            Words src = random_words(rng, kWords);
            Words dst = mode == kSameArray ? src : random_words(rng, kWords);
            const Words *from = mode == kOtherArray ? &src : mode == kSameArray ? &dst : nullptr;
            Words expect = model_copy(dst, dstindx, from, srcindx, length);
            vel_seq_copy_bitmap(dst.data(), dstindx, from == nullptr ? nullptr : from->data(),
                                srcindx, length);
            ASSERT_EQ(dst, expect) << "mode " << mode << " round " << round << " dst " << dstindx
                                   << " src " << srcindx << " len " << length;
        }
    }
}

TEST(BitmapCopy, ZeroLengthTouchesNothing) {
    // Null arrays would fault on any access.
    vel_seq_copy_bitmap(nullptr, 5, nullptr, 7, 0);
    Words w{~0ull, 0};
    vel_seq_copy_bitmap(w.data(), 3, nullptr, 0, 0);
    EXPECT_EQ(w, (Words{~0ull, 0}));
}

// A run ending exactly at a word boundary must not touch the next word: the
// arrays are sized exactly, so the sanitizer build catches a stray access.
TEST(BitmapCopy, WholeWordRunsStayInsideTheirWords) {
    std::mt19937_64 rng(0x5eed0004);
    for (int words = 1; words <= 3; words++) {
        auto src = std::make_unique<vel_bitmap_word_t[]>(static_cast<size_t>(words));
        auto dst = std::make_unique<vel_bitmap_word_t[]>(static_cast<size_t>(words));
        for (int i = 0; i < words; i++) {
            src[static_cast<size_t>(i)] = rng();
            dst[static_cast<size_t>(i)] = rng();
        }
        vel_seq_copy_bitmap(dst.get(), 0, src.get(), 0, 64 * words);
        for (int i = 0; i < words; i++)
            EXPECT_EQ(dst[static_cast<size_t>(i)], src[static_cast<size_t>(i)]);
        EXPECT_EQ(vel_seq_bitmap_contains_nulls(src.get(), 64 * words), 1);
    }
}

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

TEST(BitmapWords, UnalignedAccessAgreesWithModel) {
    std::mt19937_64 rng(0x5eed0006);
    for (int round = 0; round < 2000; round++) {
        Words w = random_words(rng, 4);
        int start = static_cast<int>(rng() % 128);
        vel_bitmap_word_t got = velseq::get_full_word(w.data(), start);
        for (int i = 0; i < 64; i++)
            ASSERT_EQ((got >> i) & 1, get_bit(w, start + i) ? 1u : 0u) << "start " << start;
        int length = 1 + static_cast<int>(rng() % 64);
        vel_bitmap_word_t part = velseq::get_word(w.data(), start, length);
        for (int i = 0; i < length; i++)
            ASSERT_EQ((part >> i) & 1, get_bit(w, start + i) ? 1u : 0u) << "start " << start;

        vel_bitmap_word_t value = rng();
        Words expect = w;
        for (int i = 0; i < 64; i++) {
            auto &word = expect[static_cast<size_t>(start + i) / 64];
            vel_bitmap_word_t m = vel_bitmap_word_t{1} << ((start + i) % 64);
            word = ((value >> i) & 1) ? (word | m) : (word & ~m);
        }
        velseq::set_full_word(w.data(), start, value);
        ASSERT_EQ(w, expect) << "start " << start;
    }
}

} // namespace
