#include "harness/model.h"

namespace velrel {

void SeqModel::insert(size_t pos, const void *v, size_t n, const vel_bitmap_word_t *nb,
                      size_t nb_offs) {
    if (n == 0) // an empty insert is accepted at any position, even past the end
        return;
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

VEL_RET insert_verdict(const Family &f, vel_seq_order_t order, const SeqModel &m, uint64_t pos,
                       const uint8_t *v, uint64_t n, const vel_bitmap_word_t *nb) {
    if (order != VEL_SEQ_NO_ORDER && nb) {
        for (uint64_t i = 0; i < n / 64; ++i)
            if (nb[i])
                return VEL_E_SEQ_NULL_VALUE;
        if (n % 64 != 0 && (nb[n / 64] & (n % 64)) != 0)
            return VEL_E_SEQ_NULL_VALUE;
    }
    const size_t w = f.width;
    for (uint64_t i = 1; i < n; ++i) {
        const uint8_t *prev = v + (i - 1) * w, *cur = v + i * w;
        if ((order == VEL_SEQ_ASC_ORDER && f.lt(cur, prev, w)) ||
            (order == VEL_SEQ_DESC_ORDER && f.lt(prev, cur, w)))
            return VEL_E_SEQ_OUT_OF_ORDER;
    }
    if (n == 0)
        return VEL_S_OK;
    if (pos > m.size())
        return VEL_E_ILLEGAL_PARAM;
    if (order == VEL_SEQ_NO_ORDER || m.size() == 0)
        return VEL_S_OK;
    const uint8_t *a = pos > 0 ? m.at(pos - 1) : v, *b = pos > 0 ? v : m.at(0);
    const bool ok = order == VEL_SEQ_ASC_ORDER ? f.le(a, b, w) : f.le(b, a, w);
    return ok ? VEL_S_OK : VEL_E_SEQ_OUT_OF_ORDER;
}

VEL_RET model_append(const Family &f, vel_seq_order_t order, SeqModel &m, const uint8_t *v,
                     uint64_t n, const vel_bitmap_word_t *nb) {
    const VEL_RET rc = insert_verdict(f, order, m, m.size(), v, n, nb);
    if (rc == VEL_S_OK)
        m.insert(m.size(), v, n, nb, 0);
    return rc;
}

} // namespace velrel
