// Block structure of a scalar symmetric matrix: detection of blocks in its pattern, and the block problem
// (Analysis::Problem) of the matrix on a partition of its rows, with the map that scatters its scalar values
// into the blocks' values.
//
// The scalar pattern (both entry points read it the same way): n scalar rows, compressed columns, the rows
// of column j at rowIndices[colPointers[j] .. colPointers[j+1]-1], strictly ascending and each < n, with
// colPointers[0] = 0. Either triangle, or both, may be given: an entry (i, j) stands for itself and its
// mirror (j, i), so lower, upper and full storage describe the same matrix, and an entry given in both
// triangles is simply read twice. Diagonal entries are optional. Rows firstConstraintRow .. n-1 are
// constraint rows (zero diagonal block), the rows before them body rows; a block never mixes the two.
//
// Typical use, from a scalar matrix (CSC, one triangle or both) to a factored block system:
//
//     Analysis::DetectedBlocks found;
//     if (!Analysis::detectBlocks(n, firstConstraintRow, cp, ri, found, &message)) fail(message);
//     Analysis::ScalarProblem sp;
//     if (!sp.build(n, firstConstraintRow, cp, ri, found.numBlocks, found.blockSizes.data(), &message))
//         fail(message);
//     analyzer.analyze(sp.problem(), Analysis::Options(), data);
//     std::vector<double> blockValues(sp.numValues());
//     sp.scatter(scalarValues, blockValues.data());      // scalarValues: [colPointers[n]], as rowIndices
//     analyzer.setBlocks(data, blockValues.data(), sp.valuePointers().data());
//
// The scalar numbering is kept: block b covers rows blockOffsets()[b] .. blockOffsets()[b+1]-1, so a vector
// in the matrix's numbering is a vector of the block problem as it is.
#ifndef KIVTAMBER_SCALARBLOCKS_H
#define KIVTAMBER_SCALARBLOCKS_H

#include <string>
#include <vector>

#include "Analysis.h"

namespace kivTamber {
namespace Analysis {

// What detectBlocks found.
struct DetectedBlocks {
    unsigned int numBlocks = 0;
    unsigned int firstConstraint = 0;        // first constraint block (numBlocks when there is none)
    std::vector<unsigned int> blockSizes;    // [numBlocks] rows of each block, in row order
    unsigned int largestBlock = 0;           // rows of the largest block
    unsigned int multiRowBlocks = 0;         // blocks of more than one row
    unsigned long rowsInMultiRowBlocks = 0;  // rows those blocks hold
    unsigned long offDiagonalPairs = 0;      // coupled row pairs i < j of the pattern (mirrors counted once)
    // Constraint blocks of more than one row. When there is one, analyse with Options::peel = false: the
    // rows of a detected constraint block need not have a Jacobian block of full row rank on each single body
    // (rule R), only on all its bodies together (rule S), and a pattern cannot tell.
    unsigned int multiRowConstraintBlocks = 0;
};

// Largest block detectBlocks forms by default, and largest block of rows that are not all coupled to one
// another (whose diagonal tile gets explicit zeros, and whose factor fills it).
constexpr unsigned int kMaxDetectedBlockRows = 32;
constexpr unsigned int kMaxLooseBlockRows = 6;

// Partitions the rows into blocks of consecutive rows with identical patterns, as supernode detection does
// on a factor: row r + 1 joins the block of rows s .. r when the rows outside s .. r + 1 that row s couples
// to are exactly those that row r + 1 couples to, when r + 1 is not the first constraint row, and when the
// block stays within maxBlockRows rows; a block whose rows are not all coupled to one another (a diagonal
// mass matrix, a group of constraint rows) stays within kMaxLooseBlockRows rows, since its diagonal tile and
// the tile's factor are dense. Rows of identical patterns make no fill between them that the scalar factor
// does not have, and their off-diagonal tiles hold no explicit zeros: the block problem factors like the
// scalar one, in far fewer, larger block operations. A pattern without such rows gives n blocks of one row.
//
// colPointers: in, [n + 1]; rowIndices: in, [colPointers[n]] (the pattern described at the top).
// out: receives the blocks (blockSizes add up to n); unchanged on failure.
// Returns false with `message` (may be null) naming the offending column, entry and values when the input
// is not a pattern in that form or firstConstraintRow > n. Cost: O(n + entries); the work memory (about
// three words per entry) is allocated in the call.
bool detectBlocks(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
                  const unsigned int* rowIndices, DetectedBlocks& out, std::string* message,
                  unsigned int maxBlockRows = kMaxDetectedBlockRows);

// The block problem of a scalar symmetric pattern on a given partition of its rows, owning its arrays, and
// the place of every scalar entry among the blocks' values (entry e = (I, J), I <= J, holds s_I × s_J values
// row-major at valuePointers()[e], the layout of Analyzer::setBlocks; a diagonal block in full).
class ScalarProblem {
public:
    static constexpr unsigned long noPlace = ~0ul;

    // Builds the block pattern: block entry (I, J) exists when some scalar entry couples a row of I to a row
    // of J, and every diagonal block is an entry (a constraint block's stays zero unless the matrix has
    // values there). blockSizes: in, [numBlocks], each >= 1, adding up to n, no block holding both a body
    // row and a constraint row. Returns false with `message` (may be null) on bad input or when the storage
    // cannot be allocated; the object is then empty (numBlocks() = 0). Cost: O(n + entries + Σ log of the
    // block columns' lengths).
    bool build(unsigned int n, unsigned int firstConstraintRow, const unsigned int* colPointers,
               const unsigned int* rowIndices, unsigned int numBlocks, const unsigned int* blockSizes,
               std::string* message);

    // A view for Analyzer::analyze; borrows this object's arrays.
    Problem problem() const;

    unsigned int numBlocks() const { return numBlocks_; }
    unsigned int firstConstraint() const { return firstConstraint_; }
    unsigned int scalarSize() const { return n_; }
    const std::vector<unsigned int>& blockSizes() const { return blockSizes_; }
    const std::vector<unsigned int>& blockOffsets() const { return blockOffsets_; }     // [numBlocks + 1]
    const std::vector<unsigned int>& colPointers() const { return colPointers_; }       // [numBlocks + 1]
    const std::vector<unsigned int>& rowIndices() const { return rowIndices_; }         // [numEntries()]
    const std::vector<unsigned long>& valuePointers() const { return valuePointers_; }  // [entries + 1]
    unsigned long numEntries() const { return rowIndices_.size(); }
    // Values of all blocks: valuePointers()[numEntries()].
    unsigned long numValues() const { return valuePointers_.empty() ? 0 : valuePointers_.back(); }
    // The block holding scalar row r (r < n). O(log numBlocks).
    unsigned int blockOf(unsigned int r) const;

    // Scalar entry k of the built pattern (its position in rowIndices, 0 <= k < colPointers[n]): its value
    // goes to values[place(k)] and, inside a diagonal block off its diagonal, also to values[mirror(k)]
    // (mirror(k) = noPlace otherwise).
    unsigned long place(unsigned long k) const { return place_[k]; }
    unsigned long mirror(unsigned long k) const { return mirror_[k]; }

    // Block entry and offset inside its values of the scalar A(i, j) (any i, j < n, either triangle): the
    // element at valuePointers()[entry] + offset. False, outputs unchanged, when i or j is out of range or
    // the two blocks are not coupled. O(log of the block column's length).
    bool locate(unsigned int i, unsigned int j, unsigned long& entry, unsigned long& offset) const;

    // blockValues[0 .. numValues()) = 0, then every scalar value of the pattern in its place (and its
    // mirror). scalarValues: [colPointers[n]] in the order of rowIndices. An entry given in both triangles
    // is written twice; the later (larger column) wins.
    template <typename V>
    void scatter(const V* scalarValues, V* blockValues) const;

private:
    unsigned int n_ = 0;
    unsigned int numBlocks_ = 0;
    unsigned int firstConstraint_ = 0;
    std::vector<unsigned int> blockSizes_, blockOffsets_, colPointers_, rowIndices_;
    std::vector<unsigned long> valuePointers_, place_, mirror_;

    void clear();
};

extern template void ScalarProblem::scatter<float>(const float*, float*) const;
extern template void ScalarProblem::scatter<double>(const double*, double*) const;

}  // namespace Analysis
}  // namespace kivTamber

#endif  // KIVTAMBER_SCALARBLOCKS_H
