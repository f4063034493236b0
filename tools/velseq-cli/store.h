// Tables kept in database images (--db).
#ifndef VELSEQ_CLI_STORE_H
#define VELSEQ_CLI_STORE_H

#include <memory>
#include <string>

#include "table.h"

namespace vcli {

// Writes the database holding `t` to an image at `path` (replaced whole).
void save_table(velseq::database &db, const Table &t, const std::string &path);
// Opens the image at `path` (with the commit log `log` replayed on it) and
// describes the table it holds in `t`.  The files are opened read-only,
// unless `recover`, which may move a damaged log's rest aside; what the open
// cut or set aside is said on standard error.
std::unique_ptr<velseq::database> open_table(const std::string &path, Table &t,
                                             const std::string &log = "", bool recover = false);

} // namespace vcli

#endif
