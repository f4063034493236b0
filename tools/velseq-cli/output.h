// Answers out: an aligned table, CSV or JSON.
#ifndef VELSEQ_CLI_OUTPUT_H
#define VELSEQ_CLI_OUTPUT_H

#include <cstdio>
#include <string>
#include <vector>

namespace vcli {

enum class Format { Table, Csv, Json };

// One cell of an answer: its text, whether it is null (empty), and whether
// JSON writes it as a string.
struct OutCell {
    std::string text;
    bool null = false;
    bool quoted = false;
};

// Rows of one answer.  CSV and JSON are written as rows come; an aligned
// table is kept until end() to measure its columns.
class Output {
  public:
    Output(FILE *out, Format f, std::vector<std::string> header);
    void row(const std::vector<OutCell> &cells);
    void end();
    uint64_t rows() const { return rows_; }

  private:
    FILE *out_;
    Format f_;
    std::vector<std::string> header_;
    std::vector<std::vector<OutCell>> kept_;
    uint64_t rows_ = 0;
};

} // namespace vcli

#endif
