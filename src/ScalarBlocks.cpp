#include "ScalarBlocks.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <new>

namespace kivTamber {
namespace Analysis {

namespace {

std::string format(const char* fmt, ...) {
    char buffer[400];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

bool fail(std::string* message, std::string text) {
    if (message) *message = std::move(text);
    return false;
}

// The scalar pattern is in the form the header describes.
bool checkPattern(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
                  const unsigned int* rowIndices, std::string* message) {
    if (firstConstraintRow > n)
        return fail(message,
                    format("firstConstraintRow %u exceeds the number of rows %u", firstConstraintRow, n));
    if (n == 0) return true;
    if (!colPointers || (!rowIndices && colPointers[n] > 0))
        return fail(message, format("colPointers and rowIndices must not be null (n = %u)", n));
    if (colPointers[0] != 0)
        return fail(message, format("colPointers[0] is %u; it must be 0", colPointers[0]));
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int begin = colPointers[j], end = colPointers[j + 1];
        if (end < begin)
            return fail(message, format("colPointers decreases at column %u (colPointers[%u] = %u after "
                                        "colPointers[%u] = %u)",
                                        j, j + 1, end, j, begin));
        for (unsigned int e = begin; e < end; ++e) {
            const unsigned int i = rowIndices[e];
            if (i >= n)
                return fail(message, format("column %u: entry %u names row %u, but the matrix has %u rows", j,
                                            e, i, n));
            if (e > begin && i <= rowIndices[e - 1])
                return fail(message,
                            format("column %u: entry %u names row %u after row %u (rows must be strictly "
                                   "ascending: unsorted or duplicate entry)",
                                   j, e, i, rowIndices[e - 1]));
        }
    }
    return true;
}

// Full symmetric adjacency without the diagonal, every list ascending and without repeats: column v of the
// pattern merged with row v (the transpose, built ascending by a pass over the columns in order).
void fullAdjacency(unsigned int n, const unsigned int* cp, const unsigned int* ri,
                   std::vector<unsigned int>& ptr, std::vector<unsigned int>& adj) {
    const unsigned long entries = cp[n];
    std::vector<unsigned int> tp(n + 1, 0), tr(entries);
    for (unsigned long e = 0; e < entries; ++e) ++tp[ri[e] + 1];
    for (unsigned int v = 0; v < n; ++v) tp[v + 1] += tp[v];
    {
        std::vector<unsigned int> cursor(tp.begin(), tp.end() - 1);
        for (unsigned int j = 0; j < n; ++j)
            for (unsigned int e = cp[j]; e < cp[j + 1]; ++e) tr[cursor[ri[e]]++] = j;
    }
    ptr.assign(n + 1, 0);
    adj.resize(2 * entries);
    unsigned long at = 0;
    for (unsigned int v = 0; v < n; ++v) {
        unsigned int a = cp[v], b = tp[v];
        const unsigned int aEnd = cp[v + 1], bEnd = tp[v + 1];
        unsigned int last = n;  // nothing yet
        while (a < aEnd || b < bEnd) {
            unsigned int x;
            if (b >= bEnd || (a < aEnd && ri[a] <= tr[b]))
                x = ri[a++];
            else
                x = tr[b++];
            if (x == v || x == last) continue;
            adj[at++] = x;
            last = x;
        }
        ptr[v + 1] = static_cast<unsigned int>(at);
    }
    adj.resize(at);
}

// True when the lists of rows a and b agree outside the rows lo .. hi.
bool sameOutside(const unsigned int* a, const unsigned int* aEnd, const unsigned int* b,
                 const unsigned int* bEnd, unsigned int lo, unsigned int hi) {
    for (;;) {
        while (a != aEnd && *a >= lo && *a <= hi) ++a;
        while (b != bEnd && *b >= lo && *b <= hi) ++b;
        if (a == aEnd || b == bEnd) return a == aEnd && b == bEnd;
        if (*a != *b) return false;
        ++a;
        ++b;
    }
}

}  // namespace

bool detectBlocks(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
                  const unsigned int* rowIndices, DetectedBlocks& out, std::string* message,
                  unsigned int maxBlockRows) {
    if (!checkPattern(n, firstConstraintRow, colPointers, rowIndices, message)) return false;
    if (maxBlockRows == 0) maxBlockRows = 1;
    DetectedBlocks found;
    try {
        std::vector<unsigned int> ptr, adj;
        if (n > 0) fullAdjacency(n, colPointers, rowIndices, ptr, adj);
        found.offDiagonalPairs = adj.size() / 2;
        const unsigned int* A = adj.data();
        unsigned int start = 0;
        bool tight = true;  // every two rows of the open block are coupled
        const unsigned int looseRows = std::min(maxBlockRows, kMaxLooseBlockRows);
        for (unsigned int r = 0; r < n; ++r) {
            bool join = r > start && r != firstConstraintRow && r - start < maxBlockRows &&
                        sameOutside(A + ptr[start], A + ptr[start + 1], A + ptr[r], A + ptr[r + 1], start, r);
            if (join) {
                const unsigned int* lo = std::lower_bound(A + ptr[r], A + ptr[r + 1], start);
                const bool coupledToAll = std::lower_bound(lo, A + ptr[r + 1], r) - lo == r - start;
                join = (tight && coupledToAll) || r - start + 1 <= looseRows;
                if (join) tight = tight && coupledToAll;
            }
            if (join) continue;
            tight = true;
            if (r > start) found.blockSizes.push_back(r - start);
            if (r == firstConstraintRow)
                found.firstConstraint = static_cast<unsigned int>(found.blockSizes.size());
            start = r;
        }
        if (n > start) found.blockSizes.push_back(n - start);
        if (firstConstraintRow == n)
            found.firstConstraint = static_cast<unsigned int>(found.blockSizes.size());
    } catch (const std::bad_alloc&) {
        return fail(message, format("out of memory detecting the blocks of %u rows", n));
    }
    found.numBlocks = static_cast<unsigned int>(found.blockSizes.size());
    for (unsigned int b = 0; b < found.numBlocks; ++b) {
        const unsigned int s = found.blockSizes[b];
        found.largestBlock = std::max(found.largestBlock, s);
        if (s > 1) {
            ++found.multiRowBlocks;
            found.rowsInMultiRowBlocks += s;
            if (b >= found.firstConstraint) ++found.multiRowConstraintBlocks;
        }
    }
    out = std::move(found);
    return true;
}

void ScalarProblem::clear() {
    n_ = numBlocks_ = firstConstraint_ = 0;
    blockSizes_.clear();
    blockOffsets_.clear();
    colPointers_.clear();
    rowIndices_.clear();
    valuePointers_.clear();
    place_.clear();
    mirror_.clear();
}

bool ScalarProblem::build(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
                          const unsigned int* rowIndices, unsigned int numBlocks,
                          const unsigned int* blockSizes, std::string* message) {
    clear();
    if (!checkPattern(n, firstConstraintRow, colPointers, rowIndices, message)) return false;
    if (numBlocks > 0 && blockSizes == nullptr) return fail(message, "blockSizes must not be null");
    unsigned long total = 0;
    unsigned int firstConstraint = numBlocks;
    for (unsigned int b = 0; b < numBlocks; ++b) {
        if (blockSizes[b] == 0)
            return fail(message, format("block %u has size 0; every block needs at least one row", b));
        if (firstConstraintRow < n && total < firstConstraintRow &&
            total + blockSizes[b] > firstConstraintRow)
            return fail(message,
                        format("block %u (rows %lu .. %lu) holds body and constraint rows (the first "
                               "constraint row is %u)",
                               b, total, total + blockSizes[b] - 1, firstConstraintRow));
        if (total == firstConstraintRow && firstConstraint == numBlocks) firstConstraint = b;
        total += blockSizes[b];
    }
    if (total != n)
        return fail(message, format("the block sizes add up to %lu rows, but the matrix has %u", total, n));
    try {
        n_ = n;
        numBlocks_ = numBlocks;
        firstConstraint_ = firstConstraint;
        blockSizes_.assign(blockSizes, blockSizes + numBlocks);
        blockOffsets_.assign(numBlocks + 1, 0);
        for (unsigned int b = 0; b < numBlocks; ++b) blockOffsets_[b + 1] = blockOffsets_[b] + blockSizes[b];
        std::vector<unsigned int> blockOfRow(n);
        for (unsigned int b = 0; b < numBlocks; ++b)
            for (unsigned int r = blockOffsets_[b]; r < blockOffsets_[b + 1]; ++r) blockOfRow[r] = b;

        // Block pairs (I, J), I <= J, bucketed by J; then per J the distinct I ascending, J itself last.
        const unsigned long entries = n == 0 ? 0 : colPointers[n];
        std::vector<unsigned int> bucketPtr(numBlocks + 1, 0), bucket(entries);
        for (unsigned int c = 0; c < n; ++c)
            for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e)
                ++bucketPtr[std::max(blockOfRow[rowIndices[e]], blockOfRow[c]) + 1];
        for (unsigned int b = 0; b < numBlocks; ++b) bucketPtr[b + 1] += bucketPtr[b];
        {
            std::vector<unsigned int> cursor(bucketPtr.begin(), bucketPtr.end() - 1);
            for (unsigned int c = 0; c < n; ++c)
                for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e) {
                    const unsigned int R = blockOfRow[rowIndices[e]], C = blockOfRow[c];
                    bucket[cursor[std::max(R, C)]++] = std::min(R, C);
                }
        }
        std::vector<unsigned int> stamp(numBlocks, ~0u);
        colPointers_.assign(numBlocks + 1, 0);
        for (unsigned int J = 0; J < numBlocks; ++J) {
            const std::size_t begin = rowIndices_.size();
            stamp[J] = J;
            for (unsigned int q = bucketPtr[J]; q < bucketPtr[J + 1]; ++q) {
                const unsigned int I = bucket[q];
                if (stamp[I] != J) {
                    stamp[I] = J;
                    rowIndices_.push_back(I);
                }
            }
            std::sort(rowIndices_.begin() + static_cast<std::ptrdiff_t>(begin), rowIndices_.end());
            rowIndices_.push_back(J);
            colPointers_[J + 1] = static_cast<unsigned int>(rowIndices_.size());
        }
        valuePointers_.assign(rowIndices_.size() + 1, 0);
        for (unsigned int J = 0; J < numBlocks; ++J)
            for (unsigned int e = colPointers_[J]; e < colPointers_[J + 1]; ++e)
                valuePointers_[e + 1] =
                    valuePointers_[e] +
                    static_cast<unsigned long>(blockSizes_[rowIndices_[e]]) * blockSizes_[J];

        // Where scalar (i, j) lands: what locate finds, with the blocks of the rows read from blockOfRow.
        auto valueOf = [&](unsigned int i, unsigned int j) {
            const unsigned int R = blockOfRow[i], C = blockOfRow[j];
            const unsigned int I = std::min(R, C), J = std::max(R, C);
            const unsigned int* begin = rowIndices_.data() + colPointers_[J];
            const unsigned int* end = rowIndices_.data() + colPointers_[J + 1];
            const unsigned int* at = std::lower_bound(begin, end, I);
            const unsigned long ri = R == I ? i - blockOffsets_[I] : j - blockOffsets_[I];
            const unsigned long cj = R == I ? j - blockOffsets_[J] : i - blockOffsets_[J];
            return valuePointers_[static_cast<unsigned long>(at - rowIndices_.data())] + ri * blockSizes_[J] +
                   cj;
        };
        place_.resize(entries);
        mirror_.resize(entries);
        for (unsigned int c = 0; c < n; ++c) {
            for (unsigned int e = colPointers[c]; e < colPointers[c + 1]; ++e) {
                const unsigned int r = rowIndices[e];
                place_[e] = valueOf(r, c);
                mirror_[e] = r != c && blockOfRow[r] == blockOfRow[c] ? valueOf(c, r) : noPlace;
            }
        }
    } catch (const std::bad_alloc&) {
        clear();
        return fail(message,
                    format("out of memory building the block problem of %u rows in %u blocks", n, numBlocks));
    }
    return true;
}

Problem ScalarProblem::problem() const {
    return {numBlocks_, firstConstraint_, colPointers_.data(), rowIndices_.data(), blockSizes_.data()};
}

unsigned int ScalarProblem::blockOf(unsigned int r) const {
    return static_cast<unsigned int>(std::upper_bound(blockOffsets_.begin(), blockOffsets_.end(), r) -
                                     blockOffsets_.begin()) -
           1;
}

bool ScalarProblem::locate(unsigned int i, unsigned int j, unsigned long& entry,
                           unsigned long& offset) const {
    if (i >= n_ || j >= n_) return false;
    const unsigned int R = blockOf(i), C = blockOf(j);
    const unsigned int I = std::min(R, C), J = std::max(R, C);
    const unsigned int* begin = rowIndices_.data() + colPointers_[J];
    const unsigned int* end = rowIndices_.data() + colPointers_[J + 1];
    const unsigned int* at = std::lower_bound(begin, end, I);
    if (at == end || *at != I) return false;
    entry = static_cast<unsigned long>(at - rowIndices_.data());
    // Row-major s_I × s_J: the row inside I and the column inside J.
    const unsigned long ri = R == I ? i - blockOffsets_[I] : j - blockOffsets_[I];
    const unsigned long cj = R == I ? j - blockOffsets_[J] : i - blockOffsets_[J];
    offset = ri * blockSizes_[J] + cj;
    return true;
}

template <typename V>
void ScalarProblem::scatter(const V* scalarValues, V* blockValues) const {
    const unsigned long values = numValues();
    for (unsigned long k = 0; k < values; ++k) blockValues[k] = V(0);
    for (unsigned long k = 0; k < place_.size(); ++k) {
        blockValues[place_[k]] = scalarValues[k];
        if (mirror_[k] != noPlace) blockValues[mirror_[k]] = scalarValues[k];
    }
}

template void ScalarProblem::scatter<float>(const float*, float*) const;
template void ScalarProblem::scatter<double>(const double*, double*) const;

}  // namespace Analysis
}  // namespace kivTamber
