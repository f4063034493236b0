// The C face of the Arrow and Parquet functions: codes and a per-thread
// sentence instead of exceptions.
#include <filesystem>

#include "dispatch.h"
#include "velseq/arrow.h"

namespace {

static_assert(VELT_E_UNAVAILABLE == 930, "velseq::code_name knows it by number");

thread_local std::string t_message;

template <class F> VEL_RET guarded(F &&f) {
    try {
        t_message.clear();
        f();
        return VEL_S_OK;
    } catch (const velseq::error &e) {
        t_message = e.what();
        return static_cast<VEL_RET>(e.code());
    } catch (const std::bad_alloc &) {
        t_message = "out of memory";
        return VEL_E_NOMEM;
    } catch (const std::filesystem::filesystem_error &e) {
        t_message = e.what();
        return VEL_E_HOST_IO;
    } catch (const std::exception &e) {
        t_message = e.what();
        return VEL_E_ILLEGAL_PARAM;
    }
}

} // namespace

extern "C" {

const char *velt_error_message(void) { return t_message.c_str(); }

void velt_export_init(velt_export_t *opts) {
    *opts = velt_export_t{};
    opts->batch_rows = 65536;
}

void velt_import_init(velt_import_t *opts) { *opts = velt_import_t{}; }

VEL_RET velt_export_arrow(velh_db_t *db, const velt_export_t *opts, struct ArrowArrayStream *out) {
    return guarded([&] {
        if (opts == nullptr)
            throw velseq::error(VEL_E_ILLEGAL_PARAM, "no options");
        velseq::table::export_arrow(db, *opts, out);
    });
}

VEL_RET velt_import_arrow(velh_db_t *db, const velt_import_t *opts, struct ArrowArrayStream *in,
                          uint64_t *rows) {
    return guarded([&] {
        if (opts == nullptr)
            throw velseq::error(VEL_E_ILLEGAL_PARAM, "no options");
        const uint64_t n = velseq::table::import_arrow(db, *opts, in);
        if (rows != nullptr)
            *rows = n;
    });
}

VEL_RET velt_to_parquet(velh_db_t *db, const velt_export_t *opts, const char *dir,
                        unsigned partition) {
    return guarded([&] {
        if (opts == nullptr || dir == nullptr)
            throw velseq::error(VEL_E_ILLEGAL_PARAM, "no options or folder");
        velseq::table::to_parquet(db, *opts, dir, partition);
    });
}

VEL_RET velt_from_parquet(velh_db_t *db, const velt_import_t *opts, const char *dir,
                          uint64_t *rows) {
    return guarded([&] {
        if (opts == nullptr || dir == nullptr)
            throw velseq::error(VEL_E_ILLEGAL_PARAM, "no options or folder");
        const uint64_t n = velseq::table::from_parquet(db, *opts, dir);
        if (rows != nullptr)
            *rows = n;
    });
}

} // extern "C"
