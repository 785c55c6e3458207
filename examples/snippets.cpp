// Checks that every line of every C++ block of the README stands in
// tour.cpp, in the same order: the snippets a reader copies are the ones CI
// compiles and runs.
//
//   snippets README.md tour.cpp

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

int main(int argc, char *argv[])
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: snippets README SOURCE\n");
        return 2;
    }
    std::ifstream readme(argv[1]), sourceFile(argv[2]);
    std::vector<std::string> source;
    for (std::string line; std::getline(sourceFile, line);)
        source.push_back(line);
    if (!readme || source.empty()) {
        std::fprintf(stderr, "snippets: cannot read %s or %s\n", argv[1], argv[2]);
        return 1;
    }
    size_t at = 0;
    int blocks = 0;
    bool inBlock = false;
    for (std::string line; std::getline(readme, line);) {
        if (line.rfind("```cpp", 0) == 0) {
            inBlock = true;
            ++blocks;
            continue;
        }
        if (line.rfind("```", 0) == 0) {
            inBlock = false;
            continue;
        }
        if (!inBlock || line.empty() || line.rfind("#include", 0) == 0)
            continue;
        while (at < source.size() && source[at] != line)
            ++at;
        if (at == source.size()) {
            std::fprintf(stderr, "snippets: a line of README block %d is not in %s (in order):\n  %s\n", blocks,
                         argv[2], line.c_str());
            return 1;
        }
        ++at;
    }
    std::printf("snippets: the %d C++ blocks of the README are in %s\n", blocks, argv[2]);
    return blocks >= 5 ? 0 : 1;
}
