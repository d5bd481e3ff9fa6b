// The plain driver of the fuzz targets, for compilers without libFuzzer: runs the target once on every file
// named on the command line, and on every regular file (sorted by name) of every folder named. Prints the
// number of inputs run; exits with 1 when an argument cannot be read.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    std::vector<std::string> files;
    for (int k = 1; k < argc; ++k) {
        std::error_code error;
        if (std::filesystem::is_directory(argv[k], error)) {
            std::vector<std::string> inside;
            for (const auto& entry : std::filesystem::directory_iterator(argv[k]))
                if (entry.is_regular_file()) inside.push_back(entry.path().string());
            std::sort(inside.begin(), inside.end());
            files.insert(files.end(), inside.begin(), inside.end());
        } else {
            files.push_back(argv[k]);
        }
    }
    unsigned long runs = 0;
    for (const std::string& path : files) {
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "replay: cannot read %s\n", path.c_str());
            return 1;
        }
        const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        ++runs;
    }
    std::printf("replay: %lu inputs run\n", runs);
    return 0;
}
