// Null bitmaps: bit i of a bitmap is bit i % 64 of word i / 64; a set bit
// marks a null element.  Positions and lengths are int (32-bit) and all
// position arithmetic stays in 32 bits.  Runs move a 64-bit word at a time
// whatever the alignment; a word beyond the run is touched only when the run
// reaches into it, so a run ending in a leaf's last mask word never reads
// past the page.
#pragma once

#include "velseq.h"

namespace velseq {

// The 64 bits start..start+63, bit `start` in bit 0.
vel_bitmap_word_t get_full_word(const vel_bitmap_word_t *bitarr, int start);
// Stores `word` at start..start+63.
void set_full_word(vel_bitmap_word_t *bitarr, int start, vel_bitmap_word_t word);
// Bits start..start+length-1 in the low bits; the bits above `length` are
// the bitmap's following bits as far as the words read reach.
vel_bitmap_word_t get_word(const vel_bitmap_word_t *bitarr, int start, int length);
// Replaces whole word tails from `start`, regardless of `length`: callers
// hand it a word that already carries the destination's bits beyond the run.
void set_word(vel_bitmap_word_t *bitarr, int start, vel_bitmap_word_t word, int length);

// Clears both words of an iterator tile's null bitmap.
inline void vel_seq_reset_null_bitmap(vel_seq_iterator_h iter) {
    iter->tile.null_bitmap[0] = 0;
    iter->tile.null_bitmap[1] = 0;
}

} // namespace velseq
