// Grouping of scalar rows into body and constraint blocks.
#include "BlockGrouping.h"

#include <algorithm>

namespace kivTamber {
namespace io {

Analysis::Problem BlockedProblem::problem() const {
    Analysis::Problem p;
    p.numBlocks = numBlocks;
    p.firstConstraint = firstConstraint;
    p.colPointers = colPointers.data();
    p.rowIndices = rowIndices.data();
    p.blockSizes = blockSizes.data();
    return p;
}

unsigned int BlockedProblem::blockOf(unsigned int r) const {
    return static_cast<unsigned int>(std::upper_bound(blockOffsets.begin(), blockOffsets.end() - 1, r) -
                                     blockOffsets.begin() - 1);
}

bool groupIntoBlocks(const SymmetricMatrix& matrix, unsigned int bodyRows, unsigned int blockSize,
                     BlockedProblem& out, std::string& message) {
    const unsigned int N = matrix.n;
    const unsigned long K = blockSize;
    const unsigned int bodyBlocks = static_cast<unsigned int>((bodyRows + K - 1) / K);
    const unsigned int constraintBlocks = static_cast<unsigned int>((N - bodyRows + K - 1) / K);
    const unsigned int n = bodyBlocks + constraintBlocks;
    out.numBlocks = n;
    out.firstConstraint = bodyBlocks;
    out.blockSizes.resize(n);
    out.blockOffsets.resize(n + 1ul);
    for (unsigned int b = 0; b < n; ++b) {
        const unsigned long start = b < bodyBlocks ? b * K : bodyRows + (b - bodyBlocks) * K;
        const unsigned long end = b < bodyBlocks ? std::min<unsigned long>(start + K, bodyRows)
                                                 : std::min<unsigned long>(start + K, N);
        out.blockOffsets[b] = static_cast<unsigned int>(start);
        out.blockSizes[b] = static_cast<unsigned int>(end - start);
    }
    out.blockOffsets[n] = N;

    // Block pattern: the pairs (j, i), i <= j, of the scalar entries, plus every diagonal, sorted by j then
    // i.
    std::vector<unsigned int> scalarBlock(N);
    for (unsigned int b = 0; b < n; ++b)
        std::fill(scalarBlock.begin() + out.blockOffsets[b], scalarBlock.begin() + out.blockOffsets[b + 1],
                  b);
    std::vector<unsigned long> pairs;  // j·2^32 + i
    pairs.reserve(matrix.numEntries() + n);
    for (unsigned int c = 0; c < N; ++c) {
        for (unsigned long k = matrix.colPointers[c]; k < matrix.colPointers[c + 1]; ++k) {
            const unsigned long i = scalarBlock[c];  // c <= r, so block(c) <= block(r)
            const unsigned long j = scalarBlock[matrix.rowIndices[k]];
            pairs.push_back(j << 32 | i);
        }
    }
    for (unsigned long j = 0; j < n; ++j) pairs.push_back(j << 32 | j);
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());

    out.colPointers.assign(n + 1ul, 0);
    out.rowIndices.resize(pairs.size());
    out.valuePointers.resize(pairs.size() + 1);
    unsigned long total = 0;
    for (std::size_t e = 0; e < pairs.size(); ++e) {
        const unsigned int j = static_cast<unsigned int>(pairs[e] >> 32);
        const unsigned int i = static_cast<unsigned int>(pairs[e] & 0xFFFFFFFFul);
        ++out.colPointers[j + 1ul];
        out.rowIndices[e] = i;
        out.valuePointers[e] = total;
        // Each product is below 2^32 (block sizes come from N < 2^32 rows); stopping at the limit keeps the
        // sum far from overflowing.
        total += static_cast<unsigned long>(out.blockSizes[i]) * out.blockSizes[j];
        if (total > (1ul << 27)) break;
    }
    out.valuePointers[pairs.size()] = total;
    for (unsigned int j = 0; j < n; ++j) out.colPointers[j + 1ul] += out.colPointers[j];
    if (total > (1ul << 27)) {
        message = "blocks of " + std::to_string(blockSize) +
                  " rows need more values than the tool's limit of " + std::to_string(1ul << 27) +
                  " (1 GiB); choose a smaller block size";
        return false;
    }

    // Values: scalar entry (r, c), r >= c, is element (c - offset_i, r - offset_j) of entry (i, j) =
    // (block(c), block(r)); inside a diagonal block it is written at both mirror positions.
    out.values.assign(total, 0.0);
    for (unsigned int c = 0; c < N; ++c) {
        const unsigned int i = scalarBlock[c];
        const unsigned int lc = c - out.blockOffsets[i];
        for (unsigned long k = matrix.colPointers[c]; k < matrix.colPointers[c + 1]; ++k) {
            const unsigned int r = matrix.rowIndices[k];
            const unsigned int j = scalarBlock[r];
            const unsigned int lr = r - out.blockOffsets[j];
            const unsigned int* list = out.rowIndices.data();
            const unsigned long e = static_cast<unsigned long>(
                std::lower_bound(list + out.colPointers[j], list + out.colPointers[j + 1], i) - list);
            double* block = out.values.data() + out.valuePointers[e];
            const unsigned int sj = out.blockSizes[j];
            block[static_cast<unsigned long>(lc) * sj + lr] = matrix.values[k];  // A(i, j)(lc, lr)
            if (i == j) block[static_cast<unsigned long>(lr) * sj + lc] = matrix.values[k];
        }
    }
    return true;
}

}  // namespace io
}  // namespace kivTamber
