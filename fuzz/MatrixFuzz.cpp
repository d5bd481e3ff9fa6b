// Fuzz target of the Matrix Market reader: any bytes are either a matrix that satisfies every invariant of
// SymmetricMatrix or a refusal with a located message ("m:LINE: ..." or "m:LINE:COLUMN: ...") that holds
// only printable ASCII.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "MatrixMarket.h"

namespace {

void check(bool condition) {
    if (!condition) std::abort();
}

void checkMessage(const std::string& message) {
    check(message.compare(0, 2, "m:") == 0);
    check(message.size() < 2000);
    for (char c : message) check(c >= 0x20 && c < 0x7f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kivTamber::io;
    const std::string text(reinterpret_cast<const char*>(data), size);
    SymmetricMatrix A;
    std::string message;
    if (!parseMatrixMarket("m", text, A, message)) {
        checkMessage(message);
        return 0;
    }
    check(A.n >= 1 && A.colPointers.size() == A.n + 1ul && A.colPointers[0] == 0);
    check(A.colPointers[A.n] == A.rowIndices.size() && A.values.size() == A.rowIndices.size());
    for (unsigned int c = 0; c < A.n; ++c)
        for (unsigned long k = A.colPointers[c]; k < A.colPointers[c + 1ul]; ++k) {
            check(A.rowIndices[k] >= c && A.rowIndices[k] < A.n);
            check(k == A.colPointers[c] || A.rowIndices[k - 1] < A.rowIndices[k]);
            check(A.values[k] - A.values[k] == 0.0);  // finite
        }
    return 0;
}
