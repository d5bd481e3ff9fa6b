// Fuzz target of the blocks-file reader, for matrices of several sizes (the file does not carry n): a file
// is either a split with n1 + n2 = n or a refusal with a located, printable message, and a refusal leaves
// the split untouched.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "MatrixMarket.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kivTamber::io;
    const std::string text(reinterpret_cast<const char*>(data), size);
    for (unsigned int n : {0u, 1u, 5u, 4294967294u, 4294967295u}) {
        RowSplit split;
        split.bodyRows = 7;
        split.constraintRows = 9;
        std::string message;
        if (parseRowSplit("b", text, n, split, message)) {
            check(static_cast<unsigned long>(split.bodyRows) + split.constraintRows == n);
            continue;
        }
        check(split.bodyRows == 7 && split.constraintRows == 9);
        check(message.compare(0, 2, "b:") == 0 && message.size() < 2000);
        for (char c : message) check(c >= 0x20 && c < 0x7f);
    }
    return 0;
}
