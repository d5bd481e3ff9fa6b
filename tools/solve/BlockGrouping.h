// From a scalar symmetric matrix to a block saddle-point problem for Analysis::Analyzer.
//
// The scalar rows 0 .. bodyRows-1 are body unknowns, the rest constraint rows. Consecutive rows of one kind
// are grouped into blocks of `blockSize` rows (the last block of each kind may be smaller), bodies first:
//
//     blocks 0 .. B-1:  body rows [0, K), [K, 2K), ..., up to bodyRows;
//     blocks B .. n-1:  constraint rows [bodyRows, bodyRows + K), ..., up to N.
//
// So block b covers the consecutive rows offsets[b] .. offsets[b+1]-1, and a scalar row r is row
// r - offsets[b] of its block: the problem's scalar numbering is the file's. A block entry (i, j), i <= j,
// exists when some scalar entry couples a row of block i to a row of block j; every diagonal block is an
// entry (a constraint's stays zero unless the file gives values there).
#ifndef KIVTAMBER_TOOLS_BLOCKGROUPING_H
#define KIVTAMBER_TOOLS_BLOCKGROUPING_H

#include <string>
#include <vector>

#include "Analysis.h"
#include "MatrixMarket.h"

namespace kivTamber {
namespace io {

// The problem in the list form of Analysis::Problem, with the values of every entry.
struct BlockedProblem {
    unsigned int numBlocks = 0;
    unsigned int firstConstraint = 0;          // first constraint block (numBlocks when there is none)
    std::vector<unsigned int> blockSizes;      // [numBlocks]
    std::vector<unsigned int> blockOffsets;    // [numBlocks + 1] first scalar row of each block; last = N
    std::vector<unsigned int> colPointers;     // [numBlocks + 1]
    std::vector<unsigned int> rowIndices;      // [entries] per block j the blocks i <= j, ascending, j last
    std::vector<unsigned long> valuePointers;  // [entries + 1] entry e: s_i × s_j values, row-major
    std::vector<double> values;

    unsigned long numEntries() const { return rowIndices.size(); }
    // A view for Analysis::Analyzer::analyze (borrows the arrays above).
    Analysis::Problem problem() const;
    // The block holding scalar row r.
    unsigned int blockOf(unsigned int r) const;
};

// Groups `matrix` as described at the top. bodyRows <= matrix.n; blockSize >= 1.
// Returns false with `message` when the blocks would need more values than the tool allows (2^27, 1 GiB), so
// that a careless block size fails with a message instead of exhausting memory.
bool groupIntoBlocks(const SymmetricMatrix& matrix, unsigned int bodyRows, unsigned int blockSize,
                     BlockedProblem& out, std::string& message);

}  // namespace io
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_BLOCKGROUPING_H
