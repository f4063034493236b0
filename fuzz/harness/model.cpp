#include "harness/model.h"

namespace velrel {

void SeqModel::insert(size_t pos, const void *v, size_t n, const vel_bitmap_word_t *nb,
                      size_t nb_offs) {
    const auto *b = static_cast<const uint8_t *>(v);
    vals.insert(vals.begin() + pos * w, b, b + n * w);
    std::vector<uint8_t> fl(n);
    for (size_t i = 0; i < n; ++i)
        fl[i] = bit_of(nb, nb_offs + i);
    nulls.insert(nulls.begin() + pos, fl.begin(), fl.end());
}

void SeqModel::erase(size_t from, size_t till) {
    vals.erase(vals.begin() + from * w, vals.begin() + (till + 1) * w);
    nulls.erase(nulls.begin() + from, nulls.begin() + till + 1);
}

bool ordered_null_test_hits(const vel_bitmap_word_t *nb, uint64_t n) {
    if (!nb)
        return false;
    for (uint64_t i = 0; i < n / 64; ++i)
        if (nb[i])
            return true;
    return n % 64 != 0 && (nb[n / 64] & (n % 64)) != 0;
}

bool buffer_out_of_order(const Family &f, vel_seq_order_t order, const uint8_t *v, uint64_t n) {
    for (uint64_t i = 1; i < n; ++i) {
        const uint8_t *prev = v + (i - 1) * f.width, *cur = v + i * f.width;
        if (order == VEL_SEQ_ASC_ORDER && f.lt(cur, prev, f.width))
            return true;
        if (order == VEL_SEQ_DESC_ORDER && f.lt(prev, cur, f.width))
            return true;
    }
    return false;
}

VEL_RET model_append(const Family &f, vel_seq_order_t order, SeqModel &m, const uint8_t *v,
                     uint64_t n, const vel_bitmap_word_t *nb) {
    if (order != VEL_SEQ_NO_ORDER && ordered_null_test_hits(nb, n))
        return VEL_E_SEQ_NULL_VALUE;
    if (buffer_out_of_order(f, order, v, n))
        return VEL_E_SEQ_OUT_OF_ORDER;
    if (n == 0)
        return VEL_S_OK;
    if (m.size() != 0 && order != VEL_SEQ_NO_ORDER) {
        const uint8_t *last = m.at(m.size() - 1);
        bool ok = order == VEL_SEQ_ASC_ORDER ? f.le(last, v, f.width) : f.le(v, last, f.width);
        if (!ok)
            return VEL_E_SEQ_OUT_OF_ORDER;
    }
    m.insert(m.size(), v, n, nb, 0);
    return VEL_S_OK;
}

} // namespace velrel
