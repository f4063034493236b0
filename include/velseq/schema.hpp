// velseq/schema.hpp -- classes and their fields (schema, field<T>,
// scalar_field<T>), and the database and connections that define and use
// them.
#ifndef VELSEQ_SCHEMA_HPP
#define VELSEQ_SCHEMA_HPP

#include <memory>
#include <string>
#include <vector>

#include "velseq/types.hpp"

namespace velseq {

namespace detail {

// Class definition shared by a schema and the field handles it gave out.
struct class_state {
    std::string name;
    std::vector<std::string> names;
    std::vector<velh_field_def_t> defs;
    std::vector<velh_field_info_t> info; // filled by database::define
    uint16_t code = 0;
    velh_db_t *db = nullptr;
};

} // namespace detail

// ---- schema ----------------------------------------------------------------

namespace detail {
struct image_access; // velseq/image.hpp: databases kept in files
} // namespace detail

template <class T> class sequence;
template <class T> class appender;
class object;
class transaction;

namespace detail {
// What both kinds of field handle hold: their class and their place in it.
class field_handle {
  public:
    const velh_field_info_t &info() const {
        if (!cls_ || cls_->info.empty())
            throw error(VEL_E_HOST_NO_CLASS, "field used before its class was defined");
        return cls_->info[fld_no_];
    }
    uint16_t class_code() const noexcept { return cls_ ? cls_->code : 0; }

  protected:
    field_handle() = default;
    field_handle(std::shared_ptr<const class_state> c, uint16_t no)
        : cls_(std::move(c)), fld_no_(no) {}

  private:
    std::shared_ptr<const class_state> cls_;
    uint16_t fld_no_ = 0;
};
} // namespace detail

// Handle of a sequence field of element type T (char(N): T = chars<N>).
template <class T> class field : public detail::field_handle {
  public:
    field() = default;
    order declared_order() const noexcept { return order_; }

  private:
    friend class schema;
    field(std::shared_ptr<const detail::class_state> c, uint16_t no, order o)
        : field_handle(std::move(c), no), order_(o) {}
    order order_ = order::none;
};
template <size_t N> using char_field = field<chars<N>>;

// Handle of a scalar field (an integer, float, double, datetime or chars<N>).
template <class T> class scalar_field : public detail::field_handle {
  public:
    scalar_field() = default;

  private:
    friend class schema;
    scalar_field(std::shared_ptr<const detail::class_state> c, uint16_t no)
        : field_handle(std::move(c), no) {}
};

// A class under construction, then (after database::define) a defined class.
class schema {
  public:
    explicit schema(std::string name) : st_(std::make_shared<detail::class_state>()) {
        st_->name = std::move(name);
    }
    // A sequence field; `o` is the order its values keep (checked on every write).
    template <class T> field<T> seq(std::string name, order o = order::none) {
        add(std::move(name), detail::elem<T>::seq_type, detail::elem<T>::width,
            static_cast<uint8_t>(o));
        return field<T>(st_, static_cast<uint16_t>(st_->defs.size() - 1), o);
    }
    template <class T> scalar_field<T> value(std::string name) {
        add(std::move(name), detail::elem<T>::scalar_type, detail::elem<T>::width, 0);
        return scalar_field<T>(st_, static_cast<uint16_t>(st_->defs.size() - 1));
    }
    uint16_t code() const {
        if (st_->code == 0)
            throw error(VEL_E_HOST_NO_CLASS, "class " + st_->name + " is not defined yet");
        return st_->code;
    }
    const std::string &name() const noexcept { return st_->name; }

  private:
    friend class database;
    friend struct detail::image_access;
    void add(std::string name, uint8_t type, uint16_t width, uint8_t ord) {
        if (st_->code != 0)
            throw error(VEL_E_HOST_BAD_ARG, "class " + st_->name + " is already defined");
        st_->names.push_back(std::move(name));
        st_->defs.push_back({nullptr, type, width, ord});
    }
    std::shared_ptr<detail::class_state> st_;
};

// ---- database, connection ----------------------------------------------------

struct config : velh_config_t {
    config() noexcept { velh_config_init(this); }
};

class database {
  public:
    explicit database(const config &cfg = config()) {
        detail::check(velh_db_open(&cfg, &db_), "opening the database");
    }
    ~database() {
        if (db_ != nullptr)
            velh_db_close(db_);
    }
    database(const database &) = delete;
    database &operator=(const database &) = delete;

    // Defines the class of `s` (compact: the compact object layout).
    void define(schema &s, bool compact = false) {
        detail::class_state &st = *s.st_;
        if (st.code != 0)
            throw error(VEL_E_HOST_BAD_ARG, "class " + st.name + " is already defined");
        detail::check_name(st.name, "class name");
        velh_class_info_t other{};
        if (velh_class_by_name(db_, st.name.c_str(), &other) == VEL_S_OK)
            throw error(VEL_E_HOST_BAD_ARG, "class " + detail::shortened(st.name, 64) +
                                                " is already defined in this database (attach "
                                                "to it instead: velseq/image.hpp)");
        std::vector<velh_field_def_t> defs = st.defs;
        for (size_t i = 0; i < defs.size(); i++) {
            detail::check_name(st.names[i], "field " + std::to_string(i) + " of class " +
                                                detail::shortened(st.name) + ": name");
            defs[i].name = st.names[i].c_str();
        }
        uint16_t code = 0;
        const VEL_RET rc =
            velh_class_define(db_, st.name.c_str(), defs.data(), static_cast<uint16_t>(defs.size()),
                              compact ? VEL_CLASS_COMPACT : 0, VELH_PM_INMEM, &code);
        // Only a failed log write leaves a sentence; another code may find an old one.
        const std::string what = "defining class " + detail::shortened(st.name, 64);
        if (rc == VEL_E_HOST_IO)
            detail::check_logged(rc, what);
        detail::check(rc, what.c_str());
        std::vector<velh_field_info_t> info(defs.size());
        for (size_t i = 0; i < defs.size(); i++)
            detail::check(velh_field_info(db_, code, static_cast<uint16_t>(i), &info[i]),
                          "reading a field definition");
        st.info = std::move(info);
        st.db = db_;
        st.code = code;
    }
    velh_db_t *get() const noexcept { return db_; }

  private:
    friend struct detail::image_access;
    velh_db_t *db_ = nullptr;
};

class connection {
  public:
    explicit connection(database &db) {
        detail::check(velh_connect(db.get(), &con_), "connecting");
    }
    ~connection() { velh_disconnect(con_); }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    vel_db_connection_h get() const noexcept { return con_; }

  private:
    vel_db_connection_h con_ = nullptr;
};

} // namespace velseq

#endif // VELSEQ_SCHEMA_HPP
