// Delete and truncate.
#pragma once

#include "velhost.h"

namespace velseq {

// Removes positions from..till (relative to pg's subtree) from the subtree
// of `pg`, which the caller has made private and which lies at `level` (the
// root is 0).  VEL_S_UNDERFLOW: the page
// became empty and has been freed.  Pages are never merged: a page keeps
// whatever number of items is left, down to one.
VEL_RET vel_seq_delete_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *pg,
                            vel_seq_no_t from, vel_seq_no_t till, vel_seq_order_t order,
                            vel_size_t elem_size, int level);

} // namespace velseq
