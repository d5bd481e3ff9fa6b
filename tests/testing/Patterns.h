// Block patterns for the tests: seeded random patterns (general and saddle-point), conversion to and from the
// skeleton form, a check of that form, permutation of a pattern, and a dense symbolic elimination with the
// elimination tree read off the filled pattern. Plain O(n^2) to O(n^3) loops, meant for n up to a few
// hundred.
#ifndef KIVTAMBER_TESTING_PATTERNS_H
#define KIVTAMBER_TESTING_PATTERNS_H

#include <string>
#include <vector>

#include "SkeletonMatrix.h"

namespace kivTamber {
namespace testing {

// Symmetric block pattern of n blocks as a dense boolean matrix, row-major: (i, j) at i·n + j is 1 when
// blocks i and j couple. Diagonal entries are set by every helper below (each block couples to itself).
class BlockPattern {
public:
    BlockPattern() = default;
    // n blocks, only the diagonal set.
    explicit BlockPattern(unsigned int size);

    bool operator()(unsigned int i, unsigned int j) const {
        return a[static_cast<std::size_t>(i) * n + j] != 0;
    }
    // Sets (i, j) and (j, i).
    void couple(unsigned int i, unsigned int j) {
        a[static_cast<std::size_t>(i) * n + j] = 1;
        a[static_cast<std::size_t>(j) * n + i] = 1;
    }
    // Entries (i, j) with i <= j: the number of entries of the skeleton form, diagonal included.
    unsigned long numUpperEntries() const;

    bool operator==(const BlockPattern& o) const { return n == o.n && a == o.a; }
    bool operator!=(const BlockPattern& o) const { return !(*this == o); }

    unsigned int n = 0;
    std::vector<unsigned char> a;  // n·n flags
};

// Random pattern of n blocks from `seed`: each pair i < j couples independently with probability
// min(1, 2·avgOffDiagonal / (n − 1)), so a block list holds avgOffDiagonal off-diagonal entries on average
// (the diagonal not counted). Same seed, same pattern.
BlockPattern randomPattern(unsigned int n, double avgOffDiagonal, unsigned long seed);

// Random saddle-point pattern from `seed`: blocks below firstConstraint are bodies, coupled among themselves
// as in randomPattern (average over the body lists); every block from firstConstraint on is a constraint
// coupled to 1 to 3 distinct bodies (fewer when there are fewer bodies; none when firstConstraint = 0) and to
// no other constraint. Precondition: firstConstraint <= n.
BlockPattern randomSaddlePattern(unsigned int n, unsigned int firstConstraint, double avgOffDiagonal,
                                 unsigned long seed);

// Writes p into S in skeleton form: list j holds the blocks i <= j with p(i, j), ascending, diagonal last
// (the diagonal is written even where p lacks it). fillFlags are 0; with withBlockWords, blockWords[j] = j.
// S is sized through SkeletonMatrix::resize (its arrays are kept when large enough).
void toSkeleton(const BlockPattern& p, SkeletonMatrix& S, bool withBlockWords = false);

// Pattern of a skeleton: (i, j) and (j, i) set for every entry i of list j. Fill flags are ignored.
BlockPattern fromSkeleton(const SkeletonMatrix& S);

// Empty string when S is in skeleton form (colPointers[0] = 0 and non-decreasing, every list strictly
// ascending with rows <= j and ending in j); otherwise a message naming the first offending block or entry.
std::string checkSkeletonForm(const SkeletonMatrix& S);

// The pattern in permuted order: result(k, l) = p(forward[k], forward[l]); forward has p.n entries,
// forward[k] being the block placed k-th.
BlockPattern permutePattern(const BlockPattern& p, const unsigned int* forward);

// Dense symbolic elimination: the pattern of L + Lᵀ for A = L·D·Lᵀ eliminated in the given order (block k
// makes its remaining neighbours a clique). Result is symmetric and contains p. O(n^3) worst case.
BlockPattern symbolicFactor(const BlockPattern& p);

// Elimination tree read off a filled pattern (from symbolicFactor): parent[j] = the smallest i > j with
// filled(i, j), or j itself for a root. n entries.
std::vector<unsigned int> eliminationParent(const BlockPattern& filled);

}  // namespace testing
}  // namespace kivTamber

#endif  // KIVTAMBER_TESTING_PATTERNS_H
