// check_guide GUIDE.md guide.cpp: fails unless the ```cpp blocks of the guide
// are, in order and verbatim, the blocks "// [name]" .. "// [end]" of the
// source (which indents them by four spaces inside main).
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

static std::string slurp(const char *path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

static std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> out;
    std::stringstream ss(text);
    for (std::string l; std::getline(ss, l);)
        out.push_back(l);
    return out;
}

int main(int argc, char **argv) {
    if (argc != 3) {
        std::cerr << "usage: check_guide GUIDE.md guide.cpp\n";
        return 2;
    }
    std::vector<std::vector<std::string>> quoted, source;
    std::vector<std::string> *cur = nullptr;
    for (const std::string &l : lines_of(slurp(argv[1]))) {
        if (cur == nullptr && l == "```cpp")
            cur = &quoted.emplace_back();
        else if (cur != nullptr && l == "```")
            cur = nullptr;
        else if (cur != nullptr)
            cur->push_back(l);
    }
    for (const std::string &l : lines_of(slurp(argv[2]))) {
        if (cur == nullptr && l.rfind("    // [", 0) == 0 && l != "    // [end]")
            cur = &source.emplace_back();
        else if (cur != nullptr && l == "    // [end]")
            cur = nullptr;
        else if (cur != nullptr)
            cur->push_back(l.size() >= 4 ? l.substr(4) : l);
    }
    if (quoted.empty() || quoted != source) {
        std::cerr << "docs/GUIDE.md quotes " << quoted.size() << " blocks; guide.cpp has "
                  << source.size() << " and they differ\n";
        for (size_t b = 0; b < quoted.size() && b < source.size(); b++)
            for (size_t i = 0; i < quoted[b].size() || i < source[b].size(); i++) {
                const std::string q = i < quoted[b].size() ? quoted[b][i] : "<none>";
                const std::string s = i < source[b].size() ? source[b][i] : "<none>";
                if (q != s) {
                    std::cerr << "block " << b + 1 << " line " << i + 1 << ":\n  guide:  " << q
                              << "\n  source: " << s << "\n";
                    return 1;
                }
            }
        return 1;
    }
    std::cout << quoted.size() << " quoted blocks match guide.cpp\n";
    return 0;
}
