// BlockProblem: building, structure comparison, checking and dense assembly.
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "scenes/Scenes.h"

namespace kivTamber {
namespace scenes {

namespace {

// Grows a vector geometrically so that a long run of small appends stays linear.
template <typename T>
void reserveFor(kiv::VectorPOD<T>& v, std::size_t needed) {
    if (needed > v.capacity()) v.reserve(needed > 2 * v.capacity() ? needed : 2 * v.capacity());
}

bool fail(std::string& message, const char* format, ...) {
    char buffer[256];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    va_end(args);
    message = buffer;
    return false;
}

}  // namespace

void BlockProblem::reset(unsigned int n, unsigned int firstConstraintBlock) {
    numBlocks = n;
    firstConstraint = firstConstraintBlock;
    blockSizes.clear();
    blockSizes.resize(n);
    blockOffsets.clear();
    blockOffsets.resize(static_cast<std::size_t>(n) + 1);
    colPointers.clear();
    colPointers.resize(static_cast<std::size_t>(n) + 1);
    rowIndices.clear();
    valuePointers.clear();
    valuePointers.push_back(0);
    values.clear();
    openColumn_ = 0;
}

double* BlockProblem::addEntry(unsigned int i, unsigned int j) {
    const unsigned int entries = static_cast<unsigned int>(rowIndices.size());
    while (openColumn_ < j) colPointers[++openColumn_] = entries;  // close the columns before j
    reserveFor(rowIndices, rowIndices.size() + 1);
    rowIndices.push_back(i);
    const std::size_t start = values.size();
    const std::size_t count = static_cast<std::size_t>(blockSizes[i]) * blockSizes[j];
    reserveFor(values, start + count);
    values.resize(start + count);  // zeroes the new block
    reserveFor(valuePointers, valuePointers.size() + 1);
    valuePointers.push_back(start + count);
    colPointers[j + 1] = entries + 1;
    return values.data() + start;
}

void BlockProblem::finish() {
    const unsigned int entries = static_cast<unsigned int>(rowIndices.size());
    while (openColumn_ < numBlocks) colPointers[++openColumn_] = entries;
    unsigned int offset = 0;
    for (unsigned int j = 0; j < numBlocks; ++j) {
        blockOffsets[j] = offset;
        offset += blockSizes[j];
    }
    blockOffsets[numBlocks] = offset;
}

bool BlockProblem::sameStructure(const BlockProblem& other) const {
    if (numBlocks != other.numBlocks || firstConstraint != other.firstConstraint) return false;
    if (numEntries() != other.numEntries()) return false;
    const std::size_t n = numBlocks;
    if (n == 0) return true;
    return std::memcmp(blockSizes.data(), other.blockSizes.data(), n * sizeof(unsigned int)) == 0 &&
           std::memcmp(colPointers.data(), other.colPointers.data(), (n + 1) * sizeof(unsigned int)) == 0 &&
           (numEntries() == 0 || std::memcmp(rowIndices.data(), other.rowIndices.data(),
                                             numEntries() * sizeof(unsigned int)) == 0);
}

bool checkProblem(const BlockProblem& p, std::string& message) {
    const unsigned long n = p.numBlocks;
    if (p.firstConstraint > n)
        return fail(message, "firstConstraint %u exceeds the block count %lu", p.firstConstraint, n);
    if (p.blockSizes.size() != n || p.blockOffsets.size() != n + 1 || p.colPointers.size() != n + 1)
        return fail(message,
                    "array lengths %zu (sizes), %zu (offsets), %zu (column pointers) do not fit %lu blocks",
                    p.blockSizes.size(), p.blockOffsets.size(), p.colPointers.size(), n);
    unsigned long offset = 0;
    for (unsigned long j = 0; j < n; ++j) {
        if (p.blockSizes[j] == 0) return fail(message, "block %lu has size 0", j);
        if (p.blockOffsets[j] != offset)
            return fail(message, "block %lu has offset %u, the sizes before it add up to %lu", j,
                        p.blockOffsets[j], offset);
        offset += p.blockSizes[j];
        if (offset > 0xFFFFFFFFul)
            return fail(message, "the scalar dimension exceeds 32 bits at block %lu", j);
    }
    if (p.blockOffsets[n] != offset)
        return fail(message, "blockOffsets[%lu] is %u, the sizes add up to %lu", n, p.blockOffsets[n],
                    offset);
    const unsigned long entries = p.rowIndices.size();
    if (p.colPointers[0] != 0 || p.colPointers[n] != entries)
        return fail(message, "column pointers run from %u to %u, there are %lu entries", p.colPointers[0],
                    p.colPointers[n], entries);
    if (p.valuePointers.size() != entries + 1 || p.valuePointers[0] != 0)
        return fail(message, "%zu value pointers for %lu entries", p.valuePointers.size(), entries);
    for (unsigned long j = 0; j < n; ++j) {
        const unsigned int begin = p.colPointers[j], end = p.colPointers[j + 1];
        if (end <= begin || end > entries)
            return fail(message, "block %lu has an empty or overlong list (%u .. %u)", j, begin, end);
        for (unsigned int e = begin; e < end; ++e) {
            const unsigned int i = p.rowIndices[e];
            if (i > j)
                return fail(message, "entry %u of block %lu names block %u above the diagonal", e, j, i);
            if (e + 1 < end && i >= p.rowIndices[e + 1])
                return fail(message, "list of block %lu is not ascending at entry %u (%u then %u)", j, e, i,
                            p.rowIndices[e + 1]);
            if (e + 1 == end && i != j)
                return fail(message, "list of block %lu ends with %u, not its diagonal", j, i);
            const unsigned long si = p.blockSizes[i], sj = p.blockSizes[j];
            if (p.valuePointers[e + 1] - p.valuePointers[e] != si * sj)
                return fail(message, "entry %u (%u, %lu) holds %lu values, its block is %lu x %lu", e, i, j,
                            p.valuePointers[e + 1] - p.valuePointers[e], si, sj);
            if (p.valuePointers[e + 1] > p.values.size())
                return fail(message, "entry %u (%u, %lu) ends at value %lu, there are %zu values", e, i, j,
                            p.valuePointers[e + 1], p.values.size());
            const double* a = p.entryValues(e);
            for (unsigned long k = 0; k < si * sj; ++k)
                if (!std::isfinite(a[k]))
                    return fail(message, "entry (%u, %lu) holds a non-finite value at %lu", i, j, k);
            if (i != j) continue;
            for (unsigned long r = 0; r < sj; ++r)
                for (unsigned long c = 0; c < sj; ++c) {
                    if (a[r * sj + c] != a[c * sj + r])
                        return fail(message,
                                    "diagonal block %lu is not symmetric at (%lu, %lu): %.17g vs %.17g", j, r,
                                    c, a[r * sj + c], a[c * sj + r]);
                    if (j >= p.firstConstraint && a[r * sj + c] != 0.0)
                        return fail(message,
                                    "constraint block %lu has a non-zero diagonal value %.17g at (%lu, %lu)",
                                    j, a[r * sj + c], r, c);
                }
        }
    }
    return true;
}

void assembleDense(const BlockProblem& p, double* dense) {
    const std::size_t N = p.scalarSize();
    if (N == 0) return;
    std::memset(dense, 0, N * N * sizeof(double));
    for (unsigned int j = 0; j < p.numBlocks; ++j) {
        const std::size_t oj = p.blockOffsets[j], sj = p.blockSizes[j];
        for (unsigned int e = p.colPointers[j]; e < p.colPointers[j + 1]; ++e) {
            const unsigned int i = p.rowIndices[e];
            const std::size_t oi = p.blockOffsets[i], si = p.blockSizes[i];
            const double* a = p.entryValues(e);
            for (std::size_t r = 0; r < si; ++r)
                for (std::size_t c = 0; c < sj; ++c) {
                    dense[(oi + r) * N + oj + c] = a[r * sj + c];  // A(i, j)
                    dense[(oj + c) * N + oi + r] = a[r * sj + c];  // A(j, i) = A(i, j)ᵀ
                }
        }
    }
}

}  // namespace scenes
}  // namespace kivTamber
