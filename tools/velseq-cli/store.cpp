#include "store.h"

namespace vcli {

void save_table(velseq::database &, const Table &, const std::string &path) {
    throw Fail(kExitUsage, "cannot write " + path + ": database images are not available yet");
}

std::unique_ptr<velseq::database> open_table(const std::string &path, Table &) {
    throw Fail(kExitUsage, "cannot open " + path + ": database images are not available yet");
}

} // namespace vcli
