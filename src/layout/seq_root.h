// The root fetch of a sequence field, for the layers outside the module that
// walk a field's tree (tools, the fuzz harness, tests).  The module defines
// it; velseq_static reaches it, the shared library keeps it hidden.
#pragma once

#include "velhost.h"

// Opens read access and returns the current root (null: empty sequence).
// The read access is not ended here.
VEL_RET vel_seq_get_root(vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
                         vel_seq_page_t **root);
