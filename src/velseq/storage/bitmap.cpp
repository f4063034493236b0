#include "storage/bitmap.h"

namespace velseq {

namespace {
// Low `bits` bits set, 1 <= bits <= 64.
inline vel_bitmap_word_t low_mask(int bits) { return kAllOnes >> (64 - bits); }

// Stores the merge of the low `length` bits of `src_word` into the
// destination run at `dst_pos`, keeping every other destination bit.
inline void merge_partial(vel_bitmap_word_t *dst, int dst_pos, vel_bitmap_word_t src_word,
                          int length) {
    vel_bitmap_word_t dst_word = get_word(dst, dst_pos, length);
    set_word(dst, dst_pos, ((src_word ^ dst_word) & low_mask(length)) ^ dst_word, length);
}

// True when the words holding the two runs do not overlap in memory.
bool words_apart(const vel_bitmap_word_t *dst, int dstindx, const vel_bitmap_word_t *src,
                 int srcindx, int length) {
    const auto d0 = reinterpret_cast<uintptr_t>(dst + word_index(dstindx));
    const auto d1 = reinterpret_cast<uintptr_t>(dst + word_index(dstindx + length - 1));
    const auto s0 = reinterpret_cast<uintptr_t>(src + word_index(srcindx));
    const auto s1 = reinterpret_cast<uintptr_t>(src + word_index(srcindx + length - 1));
    return d1 < s0 || s1 < d0;
}

// The destination walks word by word and each of its words is written
// once: only the run's first and last words keep bits of their own.  A null
// `src` clears the run.  The same outcome as chunks of 64 from the run's
// start for runs in words apart and for a run that moves down inside one
// array: every source bit is read before a write could reach it.
void copy_forward(vel_bitmap_word_t *dst, int dstindx, const vel_bitmap_word_t *src, int srcindx,
                  int length) {
    while (length > 0) {
        const int off = word_offset(dstindx);
        const int take = length < 64 - off ? length : 64 - off;
        const vel_bitmap_word_t bits = src == nullptr ? 0 : get_word(src, srcindx, take) << off;
        const vel_bitmap_word_t keep = ~(low_mask(take) << off);
        vel_bitmap_word_t &d = dst[word_index(dstindx)];
        d = (d & keep) | (bits & ~keep);
        dstindx += take;
        srcindx += take;
        length -= take;
    }
}
} // namespace

} // namespace velseq

using namespace velseq;

extern "C" VEL_SEQ_API vel_bool vel_seq_bitmap_contains_nulls(const vel_bitmap_word_t *bitmap,
                                                              int length) {
    int full_words = length >> 6;
    int bits_in_last_word = length & 63;
    for (int i = 0; i < full_words; i++)
        if (bitmap[i] != 0)
            return 1;
    if (bits_in_last_word != 0 && (bitmap[full_words] & low_mask(bits_in_last_word)) != 0)
        return 1;
    return 0;
}

extern "C" VEL_SEQ_API void vel_seq_copy_bitmap(vel_bitmap_word_t *dst, int dstindx,
                                                const vel_bitmap_word_t *src, int srcindx,
                                                int length) {
    if (length == 0)
        return;
    if (length == 1) { // the one-element run of single appends and gathers
        copy_one_bit(dst, dstindx, src, srcindx);
        return;
    }
    if (src == nullptr || (dst == src && srcindx > dstindx) ||
        words_apart(dst, dstindx, src, srcindx, length)) {
        copy_forward(dst, dstindx, src, srcindx, length);
        return;
    }
    int full_words = length >> 6;
    int bits_in_last_word = length & 63;

    // Overlap is recognised by pointer identity only.  Forward unless the
    // run moves upwards inside one array; two pointers into one array whose
    // runs share words go chunk by chunk from the run's start, whatever the
    // chunks then read of what the copy already wrote.
    if (dst != src) {
        for (int i = 0; i < full_words; i++)
            set_full_word(dst, dstindx + 64 * i, get_full_word(src, srcindx + 64 * i));
        if (bits_in_last_word != 0) {
            int p = dstindx + 64 * full_words;
            int q = srcindx + 64 * full_words;
            merge_partial(dst, p, get_word(src, q, bits_in_last_word), bits_in_last_word);
        }
        return;
    }

    // Backward: full chunks from the high end down, then the partial chunk,
    // which is the run's low end and lies below every chunk written.
    if (srcindx == dstindx)
        return;
    for (int i = 0; i < full_words; i++) {
        int k = length - 64 * (i + 1);
        set_full_word(dst, dstindx + k, get_full_word(src, srcindx + k));
    }
    if (bits_in_last_word != 0)
        merge_partial(dst, dstindx, get_word(src, srcindx, bits_in_last_word), bits_in_last_word);
}
