#include "testing/Patterns.h"

#include <algorithm>
#include <random>

namespace kivTamber {
namespace testing {

BlockPattern::BlockPattern(unsigned int size) : n(size), a(static_cast<std::size_t>(size) * size, 0) {
    for (unsigned int i = 0; i < n; ++i) a[static_cast<std::size_t>(i) * n + i] = 1;
}

unsigned long BlockPattern::numUpperEntries() const {
    unsigned long count = 0;
    for (unsigned int j = 0; j < n; ++j)
        for (unsigned int i = 0; i <= j; ++i) count += (*this)(i, j) ? 1 : 0;
    return count;
}

namespace {

// Couples the pairs i < j below `limit` with the probability that gives avgOffDiagonal per list.
void addRandomPairs(BlockPattern& p, unsigned int limit, double avgOffDiagonal, std::mt19937_64& rng) {
    if (limit < 2) return;
    const double prob = std::min(1.0, 2.0 * avgOffDiagonal / (limit - 1));
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (unsigned int j = 1; j < limit; ++j)
        for (unsigned int i = 0; i < j; ++i)
            if (u(rng) < prob) p.couple(i, j);
}

}  // namespace

BlockPattern randomPattern(unsigned int n, double avgOffDiagonal, unsigned long seed) {
    BlockPattern p(n);
    std::mt19937_64 rng(seed);
    addRandomPairs(p, n, avgOffDiagonal, rng);
    return p;
}

BlockPattern randomSaddlePattern(unsigned int n, unsigned int firstConstraint, double avgOffDiagonal,
                                 unsigned long seed) {
    BlockPattern p(n);
    std::mt19937_64 rng(seed);
    addRandomPairs(p, firstConstraint, avgOffDiagonal, rng);
    if (firstConstraint == 0) return p;
    for (unsigned int c = firstConstraint; c < n; ++c) {
        const unsigned int want =
            std::min<unsigned int>(1 + static_cast<unsigned int>(rng() % 3), firstConstraint);
        unsigned int have = 0;
        while (have < want) {
            const unsigned int body = static_cast<unsigned int>(rng() % firstConstraint);
            if (p(body, c)) continue;
            p.couple(body, c);
            ++have;
        }
    }
    return p;
}

void toSkeleton(const BlockPattern& p, SkeletonMatrix& S, bool withBlockWords) {
    unsigned long entries = 0;
    for (unsigned int j = 0; j < p.n; ++j) {
        for (unsigned int i = 0; i < j; ++i) entries += p(i, j) ? 1 : 0;
        ++entries;  // diagonal
    }
    S.resize(p.n, entries, withBlockWords);
    unsigned int k = 0;
    for (unsigned int j = 0; j < p.n; ++j) {
        S.colPointers[j] = k;
        for (unsigned int i = 0; i < j; ++i) {
            if (!p(i, j)) continue;
            S.rowIndices[k] = i;
            S.fillFlags[k++] = 0;
        }
        S.rowIndices[k] = j;
        S.fillFlags[k++] = 0;
        if (withBlockWords) S.blockWords[j] = j;
    }
    S.colPointers[p.n] = k;
}

BlockPattern fromSkeleton(const SkeletonMatrix& S) {
    BlockPattern p(static_cast<unsigned int>(S.n));
    for (unsigned long j = 0; j < S.n; ++j)
        for (unsigned int k = S.colPointers[j]; k < S.colPointers[j + 1]; ++k)
            p.couple(S.rowIndices[k], static_cast<unsigned int>(j));
    return p;
}

std::string checkSkeletonForm(const SkeletonMatrix& S) {
    if (S.n == 0) return {};
    if (!S.colPointers) return "no colPointers for " + std::to_string(S.n) + " blocks";
    if (S.colPointers[0] != 0) return "colPointers[0] = " + std::to_string(S.colPointers[0]) + ", not 0";
    for (unsigned long j = 0; j < S.n; ++j) {
        const unsigned int begin = S.colPointers[j];
        const unsigned int end = S.colPointers[j + 1];
        const std::string block = "block " + std::to_string(j) + ": ";
        if (end <= begin)
            return block + "empty list (colPointers " + std::to_string(begin) + ", " + std::to_string(end) +
                   ")";
        for (unsigned int k = begin + 1; k < end; ++k)
            if (S.rowIndices[k - 1] >= S.rowIndices[k])
                return block + "entries " + std::to_string(k - 1) + " and " + std::to_string(k) +
                       " hold rows " + std::to_string(S.rowIndices[k - 1]) + ", " +
                       std::to_string(S.rowIndices[k]) + " (not ascending)";
        if (S.rowIndices[end - 1] != j)
            return block + "last entry " + std::to_string(end - 1) + " holds row " +
                   std::to_string(S.rowIndices[end - 1]) + ", not the diagonal";
    }
    return {};
}

BlockPattern permutePattern(const BlockPattern& p, const unsigned int* forward) {
    BlockPattern q(p.n);
    for (unsigned int k = 0; k < p.n; ++k)
        for (unsigned int l = 0; l < p.n; ++l)
            q.a[static_cast<std::size_t>(k) * p.n + l] = p(forward[k], forward[l]) ? 1 : 0;
    return q;
}

BlockPattern symbolicFactor(const BlockPattern& p) {
    BlockPattern f = p;
    std::vector<unsigned int> later;
    for (unsigned int k = 0; k < f.n; ++k) {
        later.clear();
        for (unsigned int i = k + 1; i < f.n; ++i)
            if (f(i, k)) later.push_back(i);
        for (std::size_t x = 0; x < later.size(); ++x)
            for (std::size_t y = x + 1; y < later.size(); ++y) f.couple(later[x], later[y]);  // L(i,j) ≠ 0
    }
    return f;
}

std::vector<unsigned int> eliminationParent(const BlockPattern& filled) {
    std::vector<unsigned int> parent(filled.n);
    for (unsigned int j = 0; j < filled.n; ++j) {
        parent[j] = j;
        for (unsigned int i = j + 1; i < filled.n; ++i) {
            if (filled(i, j)) {
                parent[j] = i;
                break;
            }
        }
    }
    return parent;
}

}  // namespace testing
}  // namespace kivTamber
