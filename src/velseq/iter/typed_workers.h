// The per-type internal workers of the iterator operations: the value
// search step and the next slots of map and join, one function per element
// type (plus the char members).  Only the family's own operations and the
// tests call them.
#pragma once

#include "velhost.h"

#define X(S, T, CODE)                                                                              \
    VEL_RET vel_seq_search_page_##S(vel_db_connection_h con, vel_page_manager_t *pm,               \
                                    vel_seq_iterator_h iterator, vel_seq_page_t *page, T low,      \
                                    vel_seq_boundary_kind_t low_boundary, int level,               \
                                    vel_seq_order_t order);                                        \
    VEL_RET vel_w_seq_map_next_##S(vel_seq_iterator_h iterator);                                   \
    VEL_RET vel_seq_join_##S##_next(vel_seq_iterator_h iterator);
#include "elem/elem_types.def"
#undef X

VEL_RET vel_seq_search_page_char(vel_db_connection_h con, vel_page_manager_t *pm,
                                 vel_seq_iterator_h iterator, vel_seq_page_t *page, const char *low,
                                 vel_seq_boundary_kind_t low_boundary, int level,
                                 vel_seq_order_t order, size_t size);
VEL_RET vel_w_seq_map_next_char(vel_seq_iterator_h iterator);
VEL_RET vel_seq_join_char_next(vel_seq_iterator_h iterator);
