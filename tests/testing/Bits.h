// Bit-for-bit comparison of value arrays for the tests, with the first difference for failure messages.
#ifndef KIVTAMBER_TESTING_BITS_H
#define KIVTAMBER_TESTING_BITS_H

#include <cstring>
#include <string>
#include <vector>

namespace kivTamber {
namespace testing {

// Equal sizes and equal bits (a NaN equals a NaN of the same bits only).
template <typename T>
bool sameBits(const std::vector<T>& a, const std::vector<T>& b) {
    return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0);
}

// The first index where a and b differ in bits, with both values.
template <typename T>
std::string firstDifference(const std::vector<T>& a, const std::vector<T>& b) {
    if (a.size() != b.size()) return "sizes " + std::to_string(a.size()) + " " + std::to_string(b.size());
    for (std::size_t k = 0; k < a.size(); ++k)
        if (std::memcmp(&a[k], &b[k], sizeof(T)) != 0)
            return "at " + std::to_string(k) + ": " + std::to_string(a[k]) + " vs " + std::to_string(b[k]);
    return "none";
}

}  // namespace testing
}  // namespace kivTamber

#endif  // KIVTAMBER_TESTING_BITS_H
