// The shared library exports exactly the public interface: every one of the
// 167 functions and the bindings flag, and nothing else (internal workers
// and template instances stay hidden).
#include <gtest/gtest.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#ifndef VELSEQ_SHARED_LIB
#error "VELSEQ_SHARED_LIB must name the built libvelseq.so"
#endif

namespace {

// name -> nm type letter of every defined dynamic symbol.
std::map<std::string, char> dynamic_symbols(const std::string &lib) {
    std::map<std::string, char> out;
    std::string cmd = "nm -D --defined-only '" + lib + "'";
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr)
        return out;
    char line[512];
    while (std::fgets(line, sizeof line, p) != nullptr) {
        char addr[64], type[8], name[400]; // every defined symbol has an address
        if (std::sscanf(line, "%63s %7s %399s", addr, type, name) == 3)
            out[name] = type[0];
    }
    EXPECT_EQ(pclose(p), 0) << cmd;
    return out;
}

std::set<std::string> expected_functions() {
    const std::vector<std::string> ops = {"append",  "first",    "last",       "insert", "delete",
                                          "subseq",  "sequence", "search",     "store",  "map",
                                          "project", "join",     "from_cursor"};
    const std::vector<std::string> suffixes = {"int1",  "int2",   "int4",     "int8",
                                               "uint1", "uint2",  "uint4",    "uint8",
                                               "float", "double", "datetime", "char"};
    std::set<std::string> names;
    for (const auto &op : ops)
        for (const auto &s : suffixes)
            names.insert("vel_w_seq_" + op + "_" + s);
    for (const char *n : {"vel_w_seq_count", "vel_w_seq_truncate", "vel_w_seq_sequence",
                          "vel_seq_delete", "vel_seq_copy_bitmap", "vel_seq_bitmap_contains_nulls",
                          "vel_seq_reset_iterator", "vel_seq_reset_unary_iterator",
                          "vel_seq_reset_binary_iterator", "vel_seq_rle_count", "vel_seq_is_rle"})
        names.insert(n);
    return names;
}

// Symbols the toolchain adds to every shared object, not from our code.
bool toolchain_symbol(const std::string &name, char type) {
    if (type == 'A') // absolute: _edata, _end, __bss_start, version nodes
        return true;
    // AddressSanitizer's one-definition-rule marker of each exported global.
    if (name.rfind("__odr_asan", 0) == 0)
        return true;
    return name == "_init" || name == "_fini";
}

TEST(ExportedInterface, ExactlyThePublicNames) {
    const std::set<std::string> functions = expected_functions();
    ASSERT_EQ(functions.size(), 167u);

    const auto symbols = dynamic_symbols(VELSEQ_SHARED_LIB);
    ASSERT_FALSE(symbols.empty()) << "nm listed nothing for " << VELSEQ_SHARED_LIB;

    for (const auto &f : functions) // '-': missing
        EXPECT_EQ(symbols.count(f) ? symbols.at(f) : '-', 'T')
            << f << " is not an exported function";

    auto flag = symbols.find("vel_seq_check_bindings");
    ASSERT_NE(flag, symbols.end()) << "missing export: vel_seq_check_bindings";
    EXPECT_TRUE(flag->second == 'D' || flag->second == 'B') << "flag type " << flag->second;

    for (const auto &[name, type] : symbols) {
        if (functions.count(name) || name == "vel_seq_check_bindings" ||
            toolchain_symbol(name, type))
            continue;
        ADD_FAILURE() << "unexpected export: " << name << " (" << type << ")";
    }
}

} // namespace
