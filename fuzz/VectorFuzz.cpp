// Fuzz target of the right-hand-side reader, for several vector lengths: exactly n finite values or a
// refusal with a located, printable message.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "MatrixMarket.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kivTamber::io;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (unsigned int n : {0u, 1u, 3u, 64u}) {
        std::vector<double> values;
        std::string message;
        if (parseVector("v", text, n, values, message)) {
            check(values.size() == n);
            for (double v : values) check(std::isfinite(v));
            continue;
        }
        check(message.compare(0, 2, "v:") == 0 && message.size() < 2000);
        for (char c : message) check(c >= 0x20 && c < 0x7f);
    }
    return 0;
}
