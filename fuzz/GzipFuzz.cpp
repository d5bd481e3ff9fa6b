// Fuzz target of the file reader (zlib: gzip streams, concatenated members, truncated and corrupt data, or
// plain text), followed by the matrix reader on what it returns. Refusals name the file and are printable.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "FuzzSupport.h"
#include "MatrixMarket.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

void checkMessage(const std::string& message, const std::string& path) {
    check(message.compare(0, path.size() + 1, path + ":") == 0 && message.size() < 2000);
    for (char c : message) check(c >= 0x20 && c < 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kivTamber::io;
    static kivTamber::fuzz::MemoryFile file("gzip-input");
    file.set(data, size);
    std::string text, message;
    if (!readText(file.path(), text, message)) {
        checkMessage(message, file.path());
        return 0;
    }
    SymmetricMatrix A;
    if (!parseMatrixMarket(file.path(), text, A, message)) checkMessage(message, file.path());
    return 0;
}
