// CSV of one column.  The reader scans the whole text once with a small state
// machine (quoted cells may hold commas, quotes and newlines) and keeps only
// the selected cell of each record; every value remembers its first line so
// that later failures (an append refused by the module) can name it.
#include <cstring>
#include <string>
#include <vector>

#include "family.h"

namespace veltools {
int column_push_line(velt_column_t *col, const void *value, uint64_t line);
} // namespace veltools

using namespace veltools;

namespace {

bool is_blank(char c) { return c == ' ' || c == '\t'; }

// The cell text as an error message shows it: at most 40 bytes.
std::string shown(const std::string &text) {
    return text.size() <= 40 ? text : text.substr(0, 37) + "...";
}

int parse_cell(const Family &fam, velt_type_t type, const std::string &text, bool quoted,
               uint64_t line, uint64_t index, velt_column_t *col, velt_error_t *err) {
    char tname[16];
    velt_type_name(type, tname, sizeof tname);
    if (fam.size == 0) {
        // Characters are taken verbatim; only the unquoted empty cell is null.
        if (!quoted && text.empty())
            return column_push_line(col, nullptr, line);
        std::vector<char> value(type.elem_size);
        if (!fam.parse(text.data(), text.size(), type.elem_size, value.data())) {
            set_error(err, VELT_E_PARSE, line, index,
                      "line %llu: cell of %zu bytes does not fit %s",
                      static_cast<unsigned long long>(line), text.size(), tname);
            return VELT_E_PARSE;
        }
        return column_push_line(col, value.data(), line);
    }
    size_t b = 0, e = text.size();
    while (b < e && is_blank(text[b]))
        b++;
    while (e > b && is_blank(text[e - 1]))
        e--;
    if (b == e && !quoted)
        return column_push_line(col, nullptr, line);
    uint8_t value[8];
    if (!fam.parse(text.data() + b, e - b, 0, value)) {
        set_error(err, VELT_E_PARSE, line, index, "line %llu: \"%s\" is not a valid %s",
                  static_cast<unsigned long long>(line), shown(text).c_str(), tname);
        return VELT_E_PARSE;
    }
    return column_push_line(col, value, line);
}

} // namespace

extern "C" int velt_csv_read_buffer(const char *p, size_t len, velt_type_t type,
                                    const velt_csv_options_t *opt, velt_column_t *col,
                                    velt_error_t *err) {
    velt_column_init(col, type);
    const Family *fam = family_of(type);
    if (fam == nullptr) {
        set_error(err, VELT_E_ARG, 0, 0, "unknown element type %u", type.elem_type);
        return VELT_E_ARG;
    }
    const velt_csv_options_t defaults{0, 0};
    if (opt == nullptr)
        opt = &defaults;

    size_t i = 0;
    uint64_t line = 1;
    uint64_t record = 0;
    std::string text;
    std::string cell;
    while (i < len) {
        const uint64_t rec_line = line;
        uint32_t n_cells = 0;
        bool have = false;
        bool cell_quoted = false;
        for (bool end = false; !end;) {
            text.clear();
            bool quoted = false;
            if (p[i] == '"') {
                quoted = true;
                for (i++;; i++) {
                    if (i >= len) {
                        set_error(err, VELT_E_PARSE, rec_line, col->n,
                                  "line %llu: quoted cell without its closing quote",
                                  static_cast<unsigned long long>(rec_line));
                        return VELT_E_PARSE;
                    }
                    if (p[i] == '"') {
                        if (i + 1 < len && p[i + 1] == '"') {
                            text += '"';
                            i++;
                            continue;
                        }
                        i++;
                        break;
                    }
                    if (p[i] == '\n')
                        line++;
                    text += p[i];
                }
                while (i < len && is_blank(p[i]))
                    i++;
                if (i < len && p[i] == '\r' && i + 1 < len && p[i + 1] == '\n')
                    i++;
                if (i < len && p[i] != ',' && p[i] != '\n') {
                    set_error(err, VELT_E_PARSE, line, col->n,
                              "line %llu: text after the closing quote of a cell",
                              static_cast<unsigned long long>(line));
                    return VELT_E_PARSE;
                }
            } else {
                while (i < len && p[i] != ',' && p[i] != '\n')
                    text += p[i++];
                if (!text.empty() && text.back() == '\r' && (i >= len || p[i] == '\n'))
                    text.pop_back();
            }
            if (n_cells == opt->column) {
                cell.swap(text);
                cell_quoted = quoted;
                have = true;
            }
            n_cells++;
            // i is at ',', '\n' or the end of the text.
            if (i >= len) {
                end = true;
            } else if (p[i] == ',') {
                i++;
                // A comma as the last byte still opens an (empty) cell.
                if (i >= len) {
                    if (n_cells++ == opt->column) {
                        cell.clear();
                        cell_quoted = false;
                        have = true;
                    }
                    end = true;
                }
            } else {
                i++;
                line++;
                end = true;
            }
        }
        record++;
        if (opt->header && record == 1)
            continue;
        if (!have) {
            set_error(err, VELT_E_PARSE, rec_line, col->n,
                      "line %llu: record has %u cell(s), column %u is missing",
                      static_cast<unsigned long long>(rec_line), n_cells, opt->column + 1);
            return VELT_E_PARSE;
        }
        int rc = parse_cell(*fam, type, cell, cell_quoted, rec_line, col->n, col, err);
        if (rc != VELT_OK) {
            if (rc == VELT_E_NOMEM)
                set_error(err, rc, rec_line, col->n, "out of memory");
            return rc;
        }
    }
    return VELT_OK;
}

extern "C" int velt_csv_read(FILE *in, velt_type_t type, const velt_csv_options_t *opt,
                             velt_column_t *col, velt_error_t *err) {
    std::string text;
    char buf[65536];
    size_t got;
    while ((got = std::fread(buf, 1, sizeof buf, in)) > 0)
        text.append(buf, got);
    if (std::ferror(in)) {
        velt_column_init(col, type);
        set_error(err, VELT_E_IO, 0, 0, "read error");
        return VELT_E_IO;
    }
    return velt_csv_read_buffer(text.data(), text.size(), type, opt, col, err);
}

extern "C" int velt_parse_value(velt_type_t type, const char *text, size_t len, void *value) {
    const Family *fam = family_of(type);
    if (fam == nullptr)
        return VELT_E_ARG;
    if (fam->size != 0) {
        while (len > 0 && is_blank(*text)) {
            text++;
            len--;
        }
        while (len > 0 && is_blank(text[len - 1]))
            len--;
        if (len == 0)
            return VELT_E_PARSE;
    }
    return fam->parse(text, len, type.elem_size, value) ? VELT_OK : VELT_E_PARSE;
}

namespace veltools {

// Appends one CSV cell; characters are quoted when a reader would otherwise
// split them, take them for a null, or lose a quote.
void csv_cell(const Family &fam, velt_type_t type, const void *value, std::string &out) {
    if (value == nullptr)
        return;
    std::string s;
    fam.format(value, type.elem_size, s);
    if (fam.size != 0) {
        out += s;
        return;
    }
    if (!s.empty() && s.find_first_of(",\"\r\n") == std::string::npos) {
        out += s;
        return;
    }
    out += '"';
    for (char c : s) {
        if (c == '"')
            out += '"';
        out += c;
    }
    out += '"';
}

int write_header(FILE *out, const char *header) {
    if (header == nullptr)
        return VELT_OK;
    std::string h;
    const Family &chars = *family_of({VEL_DD_CHAR, 1});
    size_t n = std::strlen(header);
    csv_cell(chars, {VEL_DD_CHAR, static_cast<uint16_t>(n > 4096 ? 4096 : n)}, header, h);
    h += '\n';
    return std::fwrite(h.data(), 1, h.size(), out) == h.size() ? VELT_OK : VELT_E_IO;
}

} // namespace veltools

extern "C" int velt_format_value(velt_type_t type, const void *value, char *buf, size_t size) {
    const Family *fam = family_of(type);
    if (fam == nullptr)
        return -1;
    std::string s;
    csv_cell(*fam, type, value, s);
    if (s.size() + 1 > size)
        return -1;
    std::memcpy(buf, s.c_str(), s.size() + 1);
    return static_cast<int>(s.size());
}

extern "C" int velt_csv_write(FILE *out, const velt_column_t *col, const char *header) {
    const Family *fam = family_of(col->type);
    if (fam == nullptr)
        return VELT_E_ARG;
    int rc = write_header(out, header);
    if (rc != VELT_OK)
        return rc;
    std::string buf;
    const size_t w = col->type.elem_size;
    for (uint64_t i = 0; i < col->n; i++) {
        csv_cell(*fam, col->type, velt_column_is_null(col, i) ? nullptr : col->values + i * w, buf);
        buf += '\n';
        if (buf.size() >= 65536 || i + 1 == col->n) {
            if (std::fwrite(buf.data(), 1, buf.size(), out) != buf.size())
                return VELT_E_IO;
            buf.clear();
        }
    }
    return std::fflush(out) == 0 ? VELT_OK : VELT_E_IO;
}
