#include <kiv/HashSet.h>

#include <cstdint>

namespace kiv {

namespace {

__extension__ typedef unsigned __int128 Wide;

// Odd primes below 256: trial division by these settles every candidate below
// 257² and rejects most larger composites before the Miller–Rabin rounds.
constexpr unsigned kSmallPrimes[] = {3,   5,   7,   11,  13,  17,  19,  23,  29,  31,  37,  41,  43,  47,
                                     53,  59,  61,  67,  71,  73,  79,  83,  89,  97,  101, 103, 107, 109,
                                     113, 127, 131, 137, 139, 149, 151, 157, 163, 167, 173, 179, 181, 191,
                                     193, 197, 199, 211, 223, 227, 229, 233, 239, 241, 251};

constexpr std::uint64_t kLargestPrime = 18446744073709551557ull;  // 2⁶⁴ − 59

std::uint64_t mulMod(std::uint64_t a, std::uint64_t b, std::uint64_t m) noexcept {
    return static_cast<std::uint64_t>(static_cast<Wide>(a) * b % m);
}

std::uint64_t powMod(std::uint64_t a, std::uint64_t e, std::uint64_t m) noexcept {
    std::uint64_t r = 1;
    a %= m;
    for (; e; e >>= 1) {
        if (e & 1) r = mulMod(r, a, m);
        a = mulMod(a, a, m);
    }
    return r;
}

// Strong probable-prime test of odd n > a to base a: with n − 1 = d·2^s, d odd,
// n passes when a^d ≡ 1 or a^(d·2^r) ≡ −1 (mod n) for some r < s.
bool strongProbablePrime(std::uint64_t n, std::uint64_t a) noexcept {
    std::uint64_t d = n - 1;
    unsigned s = 0;
    while ((d & 1) == 0) {
        d >>= 1;
        ++s;
    }
    std::uint64_t x = powMod(a, d, n);
    if (x == 1 || x == n - 1) return true;
    for (unsigned r = 1; r < s; ++r) {
        x = mulMod(x, x, n);
        if (x == n - 1) return true;
    }
    return false;
}

// Primality of an odd n ≥ 3.
bool isOddPrime(std::uint64_t n) noexcept {
    for (unsigned p : kSmallPrimes) {
        if (n == p) return true;
        if (n % p == 0) return false;
    }
    if (n < 257ull * 257ull) return true;
    // The first twelve prime bases decide every n < 3.3·10²⁴ (Sorenson–Webster).
    static constexpr unsigned kBases[] = {2, 3, 5, 7, 11, 13, 17, 19, 23, 29, 31, 37};
    for (unsigned a : kBases) {
        if (!strongProbablePrime(n, a)) return false;
    }
    return true;
}

}  // namespace

unsigned long nextPrime(unsigned long n) noexcept {
    if (n <= 2) return 2;
    if (n > kLargestPrime) return 0;
    for (std::uint64_t c = n | 1;; c += 2) {  // c never passes kLargestPrime
        if (isOddPrime(c)) return c;
    }
}

}  // namespace kiv
