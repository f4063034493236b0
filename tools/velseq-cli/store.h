// Tables kept in database images (--db).
#ifndef VELSEQ_CLI_STORE_H
#define VELSEQ_CLI_STORE_H

#include <memory>
#include <string>

#include "table.h"

namespace vcli {

// Writes the database holding `t` to an image at `path` (replaced whole).
void save_table(velseq::database &db, const Table &t, const std::string &path);
// Opens the image at `path` and describes the table it holds in `t`.
std::unique_ptr<velseq::database> open_table(const std::string &path, Table &t);

} // namespace vcli

#endif
