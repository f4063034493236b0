// libFuzzer target for the image loader: the input is an image file, read
// with its checksums ignored so that every structural check sees arbitrary
// bytes.  A refused image must leave nothing behind (LeakSanitizer); an
// accepted one must hold trees the independent checker passes, and must
// save and load again.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "durable.h"

namespace {

void check_all(velh_db_t *db) {
    vel_db_connection_h con;
    if (velh_connect(db, &con) != VEL_S_OK || velh_begin(con, VELH_READ_ONLY) != VEL_S_OK)
        std::abort();
    for (uint16_t code = 1;; ++code) {
        velh_field_info_t fi;
        if (velh_field_info(db, code, 0, &fi) == VEL_E_HOST_NO_CLASS)
            break;
        vel_cursor_t cur;
        if (vel_w_list_cursor(&con->trans, code, &cur) != VEL_S_OK)
            continue;
        for (VEL_RET r = vel_cursor_first(&con->trans, &cur); r == VEL_S_OK;
             r = vel_cursor_next(&con->trans, &cur)) {
            vel_objhandle_t obj;
            if (vel_w_obj_from_cursor(&con->trans, &cur, code, &obj) != VEL_S_OK)
                std::abort();
            for (uint16_t k = 0; velh_field_info(db, code, k, &fi) == VEL_S_OK; ++k) {
                if (fi.type < VEL_DD_SEQUENCE_UINT1)
                    continue;
                velh_tree_report_t rep;
                if (velh_check_tree(&obj, k, VEL_SEQ_NO_ORDER, 0, &rep) != VEL_S_OK || !rep.ok) {
                    std::fprintf(stderr, "loaded a bad tree: %s\n", rep.message);
                    std::abort();
                }
            }
        }
    }
    velh_disconnect(con);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    velhost::g_fuzz_skip_checksums = true;
    static int fd = memfd_create("velh-fuzz-image", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    static const std::string again = "/tmp/velh-fuzz-image." + std::to_string(getpid());
    if (fd < 0 || ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != ssize_t(size))
        std::abort();
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db = nullptr;
    if (velh_db_open_file(&cfg, path.c_str(), &db, nullptr) != VEL_S_OK) {
        if (db != nullptr || *velh_error_message() == '\0')
            std::abort();
        return 0;
    }
    check_all(db);
    velhost::g_fuzz_skip_checksums = false;
    if (velh_db_save(db, again.c_str()) != VEL_S_OK)
        std::abort();
    velh_db_t *db2 = nullptr;
    if (velh_db_open_file(&cfg, again.c_str(), &db2, nullptr) != VEL_S_OK)
        std::abort();
    velh_db_close(db2);
    velh_db_close(db);
    return 0;
}
