// The public headers compile as C++ and agree with the C view of the layout.
#include <gtest/gtest.h>

#include "velhost.h"

extern "C" int velseq_layout_c11(void);

static_assert(offsetof(vel_seq_iterator_context_t, stack) == 48);
static_assert(sizeof(vel_seq_iterator_context_t) <= sizeof(vel_seq_iterator_t::context));

TEST(Layout, CAndCxxAgreeOnIteratorSize) {
    EXPECT_EQ(velseq_layout_c11(), static_cast<int>(sizeof(vel_seq_iterator_t)));
}
