// Fuzz target of the whole of tamber-solve, run in-process: the input is "FLAGS\nMATRIX" optionally
// followed by "@@\nBLOCKS" and "@@\nRHS" sections; the bits of the first byte pick the options (--blocks,
// --rhs, --float, --threads 2, the ordering, --refine 2, --block-size 1..4, --out /dev/null). Whatever the
// input, the tool must return one of its exit codes without a sanitizer report.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzSupport.h"

int tamberSolveMain(int argc, char** argv);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using kivTamber::fuzz::MemoryFile;
    static MemoryFile matrix("matrix"), blocks("blocks"), rhs("rhs");
    if (size < 2) return 0;
    const unsigned int flags = data[0];
    const unsigned int more = data[1];
    std::string text(reinterpret_cast<const char*>(data) + 2, size - 2);
    std::string sections[3];
    for (int k = 0; k < 3; ++k) {
        const std::string::size_type cut = k < 2 ? text.find("@@\n") : std::string::npos;
        sections[k] = text.substr(0, cut);
        if (cut == std::string::npos) break;
        text.erase(0, cut + 3);
    }
    matrix.set(sections[0].data(), sections[0].size());
    blocks.set(sections[1].data(), sections[1].size());
    rhs.set(sections[2].data(), sections[2].size());

    std::vector<std::string> args = {"tamber-solve", matrix.path()};
    if (flags & 1) args.insert(args.end(), {"--blocks", blocks.path()});
    if (flags & 2) args.insert(args.end(), {"--rhs", rhs.path()});
    if (flags & 4) args.push_back("--float");
    if (flags & 8) args.insert(args.end(), {"--threads", "2"});
    const char* orderings[] = {"default", "symamd", "natural", "default"};
    args.insert(args.end(), {"--ordering", orderings[(flags >> 4) & 3]});
    if (flags & 64) args.insert(args.end(), {"--refine", "2"});
    if (flags & 128) args.insert(args.end(), {"--out", "/dev/null"});
    args.insert(args.end(), {"--block-size", std::to_string(1 + (more & 3))});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    const int code = tamberSolveMain(static_cast<int>(args.size()), argv.data());
    if (code < 0 || code > 4) std::abort();
    return 0;
}
