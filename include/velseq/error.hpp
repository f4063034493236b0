// velseq/error.hpp -- the one exception of the C++ API, velseq::error, and
// the checks that raise it.
#ifndef VELSEQ_ERROR_HPP
#define VELSEQ_ERROR_HPP

#include <stdexcept>
#include <string>
#include <string_view>

#include "velembed.h"

namespace velseq {

// ---- errors ----------------------------------------------------------------

// Name of any code of velseq.h ("VEL_E_SEQ_OUT_OF_ORDER") or of the table
// layer (VELT_E_UNAVAILABLE, velseq/arrow.h); "VEL_?" if unknown.
inline const char *code_name(int code) noexcept {
    if (code == 930)
        return "VELT_E_UNAVAILABLE";
    const char *n = vel_code_name(code);
    return n ? n : "VEL_?";
}

// One sentence saying what the code means.
inline const char *code_message(int code) noexcept {
    if (code == 930)
        return "an optional library could not be loaded";
    const char *s = vel_code_text(code);
    return s ? s : "unknown code";
}

// The one exception of this API: code, its name, and a sentence with context.
class error : public std::runtime_error {
  public:
    error(int code, const std::string &context)
        : std::runtime_error(std::string(code_name(code)) + " (" + std::to_string(code) +
                             "): " + code_message(code) + (context.empty() ? "" : ": ") + context),
          code_(code) {}
    int code() const noexcept { return code_; }
    const char *name() const noexcept { return code_name(code_); }

  private:
    int code_;
};

namespace detail {
inline void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK)
        throw error(rc, what);
}

// A call that writes the commit log leaves the host's sentence on failure
// ("cannot write LOG: No space left on device"); it is appended, not lost.
inline void check_logged(VEL_RET rc, const std::string &what) {
    if (rc == VEL_S_OK)
        return;
    const char *m = velh_error_message();
    throw error(rc, m != nullptr && *m != '\0' ? what + ": " + m : what);
}

// The first bytes of a name, cut at a character boundary, for messages.
inline std::string shortened(std::string_view s, size_t n = 24) {
    if (s.size() <= n)
        return std::string(s);
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80)
        n--;
    return std::string(s.substr(0, n)) + "...";
}

// The host refuses a longer class or field name with a bare
// VEL_E_ILLEGAL_PARAM; this says which name.
inline void check_name(std::string_view name, const std::string &what) {
    if (name.size() > VELH_MAX_NAME)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + " '" + shortened(name) + "' has " + std::to_string(name.size()) +
                        " bytes; a name holds at most " + std::to_string(VELH_MAX_NAME));
}
} // namespace detail

} // namespace velseq

#endif // VELSEQ_ERROR_HPP
