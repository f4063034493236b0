#include "output.h"

#include <algorithm>

namespace vcli {

namespace {

std::string csv_cell(const std::string &s) {
    if (s.find_first_of(",\"\r\n") == std::string::npos)
        return s;
    std::string q = "\"";
    for (char c : s) {
        if (c == '"')
            q += '"';
        q += c;
    }
    return q + "\"";
}

std::string json_string(const std::string &s) {
    std::string q = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            q += '\\';
            q += static_cast<char>(c);
        } else if (c < 0x20) {
            char b[8];
            std::snprintf(b, sizeof b, "\\u%04x", c);
            q += b;
        } else {
            q += static_cast<char>(c);
        }
    }
    return q + "\"";
}

} // namespace

Output::Output(FILE *out, Format f, std::vector<std::string> header)
    : out_(out), f_(f), header_(std::move(header)) {
    if (f_ == Format::Csv) {
        for (size_t i = 0; i < header_.size(); i++)
            std::fprintf(out_, "%s%s", i ? "," : "", csv_cell(header_[i]).c_str());
        std::fputc('\n', out_);
    } else if (f_ == Format::Json) {
        std::fputc('[', out_);
    }
}

void Output::row(const std::vector<OutCell> &cells) {
    if (f_ == Format::Table) {
        kept_.push_back(cells);
    } else if (f_ == Format::Csv) {
        // An empty text is quoted, so that it reads back as a text, not a null.
        for (size_t i = 0; i < cells.size(); i++)
            std::fprintf(out_, "%s%s", i ? "," : "",
                         cells[i].null ? ""
                         : cells[i].quoted && cells[i].text.empty()
                             ? "\"\""
                             : csv_cell(cells[i].text).c_str());
        std::fputc('\n', out_);
    } else {
        std::fputs(rows_ ? ",\n {" : "\n {", out_);
        for (size_t i = 0; i < cells.size(); i++) {
            const OutCell &c = cells[i];
            std::fprintf(out_, "%s%s: %s", i ? ", " : "", json_string(header_[i]).c_str(),
                         c.null     ? "null"
                         : c.quoted ? json_string(c.text).c_str()
                                    : c.text.c_str());
        }
        std::fputc('}', out_);
    }
    rows_++;
}

void Output::end() {
    if (f_ == Format::Json) {
        std::fputs(rows_ ? "\n]\n" : "]\n", out_);
        return;
    }
    if (f_ != Format::Table)
        return;
    // Numbers align right, text left; a null shows as an empty cell.
    std::vector<size_t> w(header_.size());
    for (size_t i = 0; i < header_.size(); i++)
        w[i] = header_[i].size();
    for (const auto &r : kept_)
        for (size_t i = 0; i < r.size() && i < w.size(); i++)
            w[i] = std::max(w[i], r[i].null ? 0 : r[i].text.size());
    // Lines are built whole so that the padding of the last cell is dropped.
    auto put = [this](std::string line) {
        while (!line.empty() && line.back() == ' ')
            line.pop_back();
        std::fprintf(out_, "%s\n", line.c_str());
    };
    auto pad = [](std::string &line, const std::string &t, size_t w, bool left) {
        if (!line.empty())
            line += "  ";
        const std::string fill(w - std::min(w, t.size()), ' ');
        line += left ? t + fill : fill + t;
    };
    std::string line, rule;
    for (size_t i = 0; i < header_.size(); i++) {
        pad(line, header_[i], w[i], true);
        pad(rule, std::string(w[i], '-'), w[i], true);
    }
    put(line);
    put(rule);
    for (const auto &r : kept_) {
        line.clear();
        for (size_t i = 0; i < r.size(); i++)
            pad(line, r[i].null ? "" : r[i].text, w[i], r[i].quoted);
        put(line);
    }
    kept_.clear();
}

} // namespace vcli
