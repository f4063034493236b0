// Null bitmaps: bit i of a bitmap is bit i % 64 of word i / 64; a set bit
// marks a null element.  Positions and lengths are int (32-bit) and all
// position arithmetic stays in 32 bits.  Runs move a 64-bit word at a time
// whatever the alignment; a word beyond the run is touched only when the run
// reaches into it, so a run ending in a leaf's last mask word never reads
// past the page.
#pragma once

#include "velseq.h"

namespace velseq {

inline constexpr vel_bitmap_word_t kAllOnes = ~vel_bitmap_word_t{0};

inline int word_index(int start) { return start >> 6; }
inline int word_offset(int start) { return start & 63; }

// The 64 bits start..start+63, bit `start` in bit 0.
inline vel_bitmap_word_t get_full_word(const vel_bitmap_word_t *bitarr, int start) {
    int idx = word_index(start);
    int off = word_offset(start);
    if (off == 0)
        return bitarr[idx];
    return (bitarr[idx] >> off) | (bitarr[idx + 1] << (64 - off));
}

// Bits start..start+length-1 in the low bits; the bits above `length` are
// the bitmap's following bits as far as the words read reach.
inline vel_bitmap_word_t get_word(const vel_bitmap_word_t *bitarr, int start, int length) {
    int idx = word_index(start);
    int off = word_offset(start);
    vel_bitmap_word_t word = bitarr[idx] >> off;
    if (64 - off < length)
        word |= bitarr[idx + 1] << (64 - off);
    return word;
}

// Replaces whole word tails from `start`, regardless of `length`: callers
// hand it a word that already carries the destination's bits beyond the run.
inline void set_word(vel_bitmap_word_t *bitarr, int start, vel_bitmap_word_t word, int length) {
    int idx = word_index(start);
    int off = word_offset(start);
    if (off == 0) {
        bitarr[idx] = word;
        return;
    }
    bitarr[idx] = (bitarr[idx] & (kAllOnes >> (64 - off))) | (word << off);
    if (64 - off < length)
        bitarr[idx + 1] = (bitarr[idx + 1] & (kAllOnes << off)) | (word >> (64 - off));
}

// Stores `word` at start..start+63.
inline void set_full_word(vel_bitmap_word_t *bitarr, int start, vel_bitmap_word_t word) {
    set_word(bitarr, start, word, 64);
}

// vel_seq_copy_bitmap of a one-bit run: bit `dstindx` of `dst` becomes bit
// `srcindx` of `src` (cleared when `src` is null), every other bit stays.
inline void copy_one_bit(vel_bitmap_word_t *dst, int dstindx, const vel_bitmap_word_t *src,
                         int srcindx) {
    const vel_bitmap_word_t bit = vel_bitmap_word_t{1} << word_offset(dstindx);
    if (src != nullptr && ((src[word_index(srcindx)] >> word_offset(srcindx)) & 1) != 0)
        dst[word_index(dstindx)] |= bit;
    else
        dst[word_index(dstindx)] &= ~bit;
}

// Clears both words of an iterator tile's null bitmap.
inline void vel_seq_reset_null_bitmap(vel_seq_iterator_h iter) {
    iter->tile.null_bitmap[0] = 0;
    iter->tile.null_bitmap[1] = 0;
}

} // namespace velseq
