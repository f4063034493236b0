#include "storage/bitmap.h"

namespace velseq {

namespace {
// Low `bits` bits set, 1 <= bits <= 63.
inline vel_bitmap_word_t low_mask(int bits) { return kAllOnes >> (64 - bits); }

// Stores the merge of the low `length` bits of `src_word` into the
// destination run at `dst_pos`, keeping every other destination bit.
inline void merge_partial(vel_bitmap_word_t *dst, int dst_pos, vel_bitmap_word_t src_word,
                          int length) {
    vel_bitmap_word_t dst_word = get_word(dst, dst_pos, length);
    set_word(dst, dst_pos, ((src_word ^ dst_word) & low_mask(length)) ^ dst_word, length);
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
    int full_words = length >> 6;
    int bits_in_last_word = length & 63;

    if (src == nullptr) { // clear the run
        for (int i = 0; i < full_words; i++)
            set_full_word(dst, dstindx + 64 * i, 0);
        if (bits_in_last_word != 0) {
            int p = dstindx + 64 * full_words;
            vel_bitmap_word_t word =
                get_word(dst, p, bits_in_last_word) & ~low_mask(bits_in_last_word);
            set_word(dst, p, word, bits_in_last_word);
        }
        return;
    }

    // Overlap is recognised by pointer identity only.  Forward unless the
    // run moves upwards inside one array.
    if (dst != src || srcindx > dstindx) {
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
