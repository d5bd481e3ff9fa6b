// Modification of a double-precision L·D·Lᵀ factor in place: reading and writing single equations, rank-one
// and rank-k updates, and switching single equations on and off (row addition and deletion).
//
// Factor forms. The operations work on a SparseMatrix<double> holding one block triangle:
//  - row-major form (what Tamber::factorSerial produces, and what every operation except rank1UpdateCM
//  reads):
//    block column j holds block row j of L transposed, the tiles (c, j), c ≤ j, ascending, diagonal tile
//    last. L(q, t), t in block b, q in block c ≥ b, q > t, is tile (b, c) at (t − off_b) + (q −
//    off_c)·stride_b. The tiles of block row b (the column of L) are reached through the row index
//    `MetaLayout` (buildAdditionalStructure), whose first entry for row b is the diagonal tile;
//  - column-major form (rank1UpdateCM only): block column j holds block column j of L, the tiles (c, j),
//    c ≥ j, diagonal tile first; L(q, t) is tile (c, b) at (q − off_c) + (t − off_b)·stride_c.
// A diagonal tile carries the unit diagonal as stored 1.0 values; the updates read and write only the
// strictly triangular part. D is the vector of the N scalar pivots. Padding rows and columns of the tiles
// stay zero.
//
// An input matrix A handed to the additions is held the same way (the stored-triangle layout of the row-major
// form, e.g. TamberData::matrix): element (p, q), p in block c ≤ q's block j, is tile (c, j) at
// (p − off_c) + (q − off_j)·stride_c; inside a diagonal tile only the part row ≤ column is read.
//
// A deleted equation i stays in the factor as a decoupled unit equation: row and column i of L are zero
// except L(i, i) = 1, and D[i] = 1. Adding it replaces that unit equation by the real one (Davis–Hager row
// modification: a partial forward solve for the new row, then one rank-one downdate of the trailing factor).
//
// Trees. The rank-one family accepts a null tree (then every block is visited). Every row operation
// (addRows, addRowsV2, deleteRows, deleteRowsV2) and the whole rank-k family (rankKUpdate, addKRows,
// deleteKRows) read tree->parent unconditionally and require a tree.
//
// Preconditions of the equation additions, established by comparing with factors computed from scratch:
//  - an added equation must not be coupled in A to an equation that is switched off at the time it is added.
//    Its row is read from A in full, so such a coupling enters the factor although the other equation is a
//    unit equation there, and adding that equation later does not repair it. Under this condition single
//    additions (addRows sparse form, addRowsV2) reproduce the factor of the new matrix in ascending and in
//    descending equation order alike. Equations coupled to each other cannot be added by them in either
//    order in general (ascending happens to be exact only when nothing follows the later equation in the
//    earlier one's column of L, e.g. the last two scalars of a root block; descending never is). The
//    Workspace variants with activeScalars set drop those couplings and are exact in either order;
//  - addKRows equals the same equations added one at a time only when the added equations are not coupled to
//    each other in A: each equation is read while the others of the list are still unit equations (or, with
//    activeScalars, without its couplings to them), so couplings among them are lost.
// The stored tile pattern of L must already hold every tile an addition fills (a factor of the whole matrix
// with every equation active has them all); no tile is created.
//
// Nothing here checks its arguments beyond what each operation states. All operations are single-threaded.
#ifndef KIVTAMBER_TAMBERUPDATE_H
#define KIVTAMBER_TAMBERUPDATE_H

#include <kiv/ByteAllocator.h>
#include <kiv/VectorPOD.h>

#include <cstring>
#include <set>
#include <utility>
#include <vector>

#include "DenseTypes.h"
#include "EliminationTree.h"
#include "SkeletonMatrix.h"
#include "SparseTypes.h"
#include "Tamber.h"
#include "TamberUtils.h"

namespace kivTamber {

class TamberUpdate {
public:
    // (block, local): scalar index blockOffsets[first] + second.
    typedef std::pair<unsigned int, unsigned int> Equation;
    typedef kiv::VectorPOD<Equation> EquationList;

    // Reusable work storage of the allocation-free variants of addRowsV2, deleteRowsV2, addKRows and
    // deleteKRows (the ones taking a Workspace). Sized by `reserve` for one factor; grows only.
    //
    // Between calls y, w and every row of W are zero and every listHeads entry is −1: the variants restore
    // that state before they return, clearing only the blocks they wrote. That is what makes them cost
    // O(work on the tree paths) instead of O(N) per equation, and it rests on one more precondition: `tree`
    // is the elimination tree of L's stored tile pattern (TamberData::etree after the factorization), so that
    // every tile (c, r), r > c, of L or of A has r on the tree path from c to its root.
    class Workspace {
    public:
        // A zero-initialised array from the core allocator; `reserve` replaces it when it is too small.
        template <typename T>
        class Array {
        public:
            T* data = nullptr;
            unsigned long count = 0;
            Array() = default;
            ~Array() { release(); }
            Array(const Array&) = delete;
            Array& operator=(const Array&) = delete;
            // At least n elements; new storage is filled with the byte `fill` (old contents are dropped).
            void reserve(unsigned long n, int fill) {
                if (n <= count && data) return;
                T* fresh = kiv::allocateArray<T>(n == 0 ? 1 : n);
                std::memset(static_cast<void*>(fresh), fill, (n == 0 ? 1 : n) * sizeof(T));
                release();
                data = fresh;
                count = n;
            }
            void release() noexcept {
                if (data) kiv::deallocateArray(data, count == 0 ? 1 : count);
                data = nullptr;
                count = 0;
            }
        };

        unsigned long numBlocks = 0;      // blocks of the factor it is sized for
        unsigned long dimension = 0;      // scalar dimension N
        unsigned long batchCapacity = 0;  // most vectors of one addKRows/deleteKRows call
        // Optional, not owned: N flags, 0 for an equation that is switched off. When set, an addition drops
        // from the equation it reads every entry of an inactive equation (other than the added one itself),
        // so the new equation does not couple to unit equations of the factor.
        const unsigned char* activeScalars = nullptr;

        Array<double> y;  // [N] the equation being added
        Array<double> w;  // [N] the vector of the rank-one update
        Array<double> W;  // [batchCapacity·N] the vectors of the rank-k update, one packed row each
        Array<unsigned int> wOffsets;  // [numBlocks] where a block's scalars lie in the rows of W
        Array<long> rowOffsets;        // [batchCapacity] where each row of W starts (relative to wOffsets)
        Array<double> sigmas;          // [batchCapacity]
        Array<double> betas;           // [batchCapacity]
        Array<int> listHeads;          // [numBlocks] −1 between calls
        Array<int> listNext;           // [batchCapacity]
        Array<int> collect;            // [batchCapacity] one block's vector list, sorted
        Array<unsigned int> reach;     // [numBlocks] blocks reached by the forward solve, ascending
        Array<unsigned int> path;      // [numBlocks] a tree path
        Array<unsigned int> heap;      // [numBlocks] pending blocks of the rank-k sweep
        Array<unsigned char> marks;    // [numBlocks] zero between calls
        Array<unsigned char> scalarMarks;  // [N] zero between calls
        unsigned long reachCount = 0;      // entries of `reach` in use

        Workspace() = default;
        Workspace(const Workspace&) = delete;
        Workspace& operator=(const Workspace&) = delete;

        // Storage for a factor of `nb` blocks and N scalars and batches of up to `maxBatch` equations.
        // Grows only; throws std::bad_alloc.
        void reserve(unsigned long nb, unsigned long N, unsigned long maxBatch);
    };

    // ---------------------------------------------------------------------------------------------------------
    // Equation access and the row index
    // ---------------------------------------------------------------------------------------------------------

    // Copies equation eq = (b, s), i = off_b + s, of the symmetric matrix held in S into row `row` of M
    // (M.data + row·M.numCols), at positions off_c + k, in three sweeps: the column s of every stored tile of
    // block column b (the diagonal tile included, its part below the diagonal too); row s of the diagonal
    // tile right of the diagonal (overwriting that part); row s of every off-diagonal tile of block row b in
    // `rows`. Positions of blocks without a tile in the equation are left as they are (clear M's row first).
    // Returns the block index of the first stored tile of block column b.
    static unsigned int readEquation(const SparseMatrix<double>& S, DenseMatrix<double>& M, unsigned int row,
                                     Equation eq, const MetaLayout& rows);

    // The same into y.data (N entries), and inserts into `touched` every block c of a stored tile (c, b) of
    // block column b (the blocks c ≤ b, b included; the blocks reached through `rows` are not inserted).
    // Returns the block index of the first stored tile of block column b.
    static unsigned int readEquation(const SparseMatrix<double>& S, DenseVector<double>& y, Equation eq,
                                     const MetaLayout& rows, std::set<unsigned int>& touched);

    // Partial product below eq = (b, s), i = off_b + s: y[p] ← y[p] − Σ_{q<i} S(q, p)·x[q]·y[q] for p > i,
    // S(q, p) the stored element above the diagonal (for a factor L(p, q)). Block columns r = b … n−1 in
    // order, rows k from s+1 in column b and from 0 after it; within a column the tiles (c, r) ascending
    // until the first with off_c ≥ i; min(stride_c, i − off_c) leading columns of tile c enter each sum, so
    // the zero padding row of an odd tile takes part (times x and y at the next block's first index: padding
    // must be zero, and a non-finite value there turns into NaN). Each sum starts at 0.0 and runs in index
    // order. Nothing when b ≥ numBlockCols. x, y: N entries; y[q], q ≤ i, is only read.
    static void funnyMult(const SparseMatrix<double>& S, const DenseVector<double>& x, DenseVector<double>& y,
                          Equation eq);

    // The same product restricted to the blocks c ≤ b of `touched`, walked ascending (nothing when the set is
    // empty or its smallest block exceeds b): from block c < b all s_c columns, from b the first s; targets
    // are the tiles of block row c in `rows` with block column r ≥ b (rows k from s+1 when r = b).
    static void funnyMult(const SparseMatrix<double>& S, const DenseVector<double>& x, DenseVector<double>& y,
                          Equation eq, const MetaLayout& rows, const std::set<unsigned int>& touched);

    // Writes y (N entries) back as equation eq = (b, s) of S, the inverse of readEquation: column s of the
    // tiles of block column b (of the diagonal tile only the part above the diagonal), then row s of the
    // tiles of block row b in `rows` (of the diagonal tile from the diagonal on, so y[i] becomes the diagonal
    // element).
    static void insertData(SparseMatrix<double>& S, DenseVector<double>& y, Equation eq,
                           const MetaLayout& rows);

    // The row index of S: for each block row c the block columns j ≥ c holding a tile (c, j), ascending, with
    // the tile pointers (a counting-sort transpose of the tile pattern). For S with n = 0 block columns
    // colPointers = {0} and the other two are empty. Rebuild it whenever S's tile set changes.
    // The returned index owns its storage; on an allocation failure the partial index is released and
    // std::bad_alloc propagates.
    static MetaLayout buildAdditionalStructure(SparseMatrix<double>& S);

    // buildAdditionalStructure(data.factor) when data.isFactored is set, otherwise an empty index (all three
    // sequences empty).
    static MetaLayout buildAdditionalStructure(TamberData<double>& data);

    // The same index written into `layout`, reusing its storage: each sequence is sized to exactly its
    // length, and reallocated (to max(4, m) elements, zeroed) only when its capacity is too small.
    static void buildAdditionalStructure(SparseMatrix<double>& S, MetaLayout& layout);

    // ---------------------------------------------------------------------------------------------------------
    // Rank-one update: L·D·Lᵀ ← L·D·Lᵀ + σ·w·wᵀ (Gill, Golub, Murray and Saunders, method C1, with a = 1/α
    // carried from column to column, a = 1/σ at the start). Per scalar t of a visited block, ascending:
    //   p = w[t], d = D[t], a_old = a;  a = a_old + p·p/d;  e = d·a;  D[t] = e/a_old;
    //   if p ≠ 0 (exact; NaN counts as non-zero): β = p/e and for every stored L(q, t), q > t, in the order
    //   of the form (row-major: the tiles of block row b in `rows`, diagonal tile first; column-major: the
    //   tiles of block column b in storage order), q ascending within a tile:
    //     w[q] ← w[q] − p·L(q, t);  L(q, t) ← L(q, t) + β·w[q].
    // σ > 0 updates, σ < 0 downdates; nothing checks d = 0, σ = 0 or the definiteness of the result.
    //
    // L: in/out. D: in/out, N pivots. W: row `wRow` (N entries, W.numCols must equal N) is w; workspace,
    // destroyed. rows: the row index of L (row-major forms). tree: may be null; with a tree the walk starts
    // at `startBlock` and w must be zero outside the tree path from startBlock to its root; without a tree
    // every block 0 … numBlockRows−1 is visited and startBlock is ignored. A start block ≥ numBlockRows
    // changes nothing. Returns false, changing nothing, when W.numCols ≠ N; true otherwise. Allocates
    // nothing.
    // ---------------------------------------------------------------------------------------------------------

    // Dispatch on the form: block column 0 holding exactly one tile (colPointers[1] = 1) is taken for the
    // row-major form (rank1UpdateRM), anything else for the column-major form (rank1UpdateCM). A row-major
    // factor whose column 0 holds more tiles would go to the column-major routine; do not rely on the
    // dispatch for such a factor.
    static bool rank1Update(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                            double sigma, const MetaLayout& rows, EliminationTree* tree,
                            unsigned int startBlock, unsigned int wRow);

    // Row-major form; after block b: f = TreeUpdate::findFirstBlock(L, rows, b). Without a tree the next
    // block is b + 1. With a tree, o = parent[b], TreeUpdate::updateParent(tree, b, o, f), and the walk
    // continues at f when (f < o or b = o) and f ≠ b, else at o when b ≠ o, else stops: the tree follows the
    // numerical pattern of L as it changes.
    static bool rank1UpdateRM(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                              double sigma, const MetaLayout& rows, EliminationTree* tree,
                              unsigned int startBlock, unsigned int wRow);

    // Column-major form (`rows` unused); the walk follows tree->parent up to a root, or b + 1 without a tree.
    static bool rank1UpdateCM(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                              double sigma, const MetaLayout& rows, EliminationTree* tree,
                              unsigned int startBlock, unsigned int wRow);

    // Row-major form; the walk follows tree->parent up to a root (b + 1 without a tree); the tree is only
    // read.
    static bool rank1UpdateV2(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                              double sigma, const MetaLayout& rows, EliminationTree* tree,
                              unsigned int startBlock, unsigned int wRow);

    // ---------------------------------------------------------------------------------------------------------
    // Row addition and deletion (row-major form, `rows` the row index of L). Equations are processed in list
    // order, each completely (with its rank-one update) before the next. Each returns the logical and of the
    // rank-one results (true for an empty list, which allocates nothing). Work vectors (y and w of N entries,
    // the touched-block set, the saved pivots) are allocated per call and released on every exit.
    //
    // Adding equation (b, s), i = off_b + s, whose row and column in L are a unit equation: read it from A
    // (readEquation with `rowsA`); z = the forward solve of the leading i equations; row i of L is z_q / D[q]
    // and the pivot d = A(i, i) − Σ_q (z_q / D[q])·z_q; column i below the diagonal is
    // (A(p, i) − Σ_{q<i} L(p, q)·D[q]·L(i, q)) / d (funnyMult); both are written with insertData, D[i] = d,
    // and the trailing factor is downdated by d·l·lᵀ (σ = −d), l the new column.
    // Deleting equation (b, s): row i of L is cleared, column i below the diagonal moved into w, L(i, i) = 1,
    // D[i] = 1, and the trailing factor is updated by d·w·wᵀ (σ = +d, d the old pivot).
    // ---------------------------------------------------------------------------------------------------------

    // Dense form, meant for factors of one-scalar blocks: row k of E (N entries) is equation eqs[k] in full;
    // the forward solve is TamberSolve::forwardSolve(L, y, i, startIndices[k]). The rank-one downdate starts
    // at findFirstBlock(L, rows, b) and runs only for a block of one scalar (for larger blocks the rows after
    // i keep their old values, as this form is meant), then parent[b] is always set to that start block
    // (updateParent), and every block c < b with a tile in row b whose parent is > b, or which is a root, is
    // re-parented to findFirstBlock(L, rows, c).
    static bool addRows(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& E,
                        const kiv::VectorPOD<unsigned int>& startIndices, const EquationList& eqs,
                        const MetaLayout& rows, EliminationTree* tree);

    // Sparse form: equations read from A (stored-triangle layout, row index rowsA); reach-restricted forward
    // solve (TamberSolve::forwardSolve with the touched set); the downdate through rank1Update starts at
    // f = findFirstBlock(L, rows, b) when s is the last scalar of b (then b is re-parented to f), at b
    // otherwise; then the blocks c < b with a tile in row b are re-examined as in the dense form.
    static bool addRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                        const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                        EliminationTree* tree);

    // As the sparse form, with the tree fixed: the downdate is rank1UpdateV2 from tree->parent[b] when s is
    // the last scalar of b, from b otherwise. activeCounts[b] (one counter per block, owned and initialised
    // by the caller) is incremented per added equation. The SkeletonMatrix argument is accepted and not used.
    static bool addRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                          const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                          EliminationTree* tree, unsigned int* activeCounts, SkeletonMatrix* skeleton);

    // Deletion with tree re-parenting: the update through rank1Update starts at tree->parent[b] when block b
    // has one scalar, at b otherwise (unlike the addition's rule, on purpose). When b is left without a
    // non-zero off-diagonal tile, b becomes a root with no children and each former child c becomes a root
    // or, when findFirstBlock(L, rows, c) ≠ c, the child of that block.
    static bool deleteRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                           const MetaLayout& rows, EliminationTree* tree);

    // Deletion with the tree fixed: rank1UpdateV2 with the same start rule; activeCounts[b] is decremented
    // per deleted equation. The SkeletonMatrix argument is accepted and not used.
    static bool deleteRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                             const MetaLayout& rows, EliminationTree* tree, unsigned int* activeCounts,
                             SkeletonMatrix* skeleton);

    // ---------------------------------------------------------------------------------------------------------
    // Rank-k update and k-row addition and deletion (row-major form, tree required).
    // ---------------------------------------------------------------------------------------------------------

    // L·D·Lᵀ ← L·D·Lᵀ + Σ_j σ_j·w_j·w_jᵀ in one sweep over the blocks, w_j = row j of W (k rows of N). The
    // blocks b = 0 … numBlockRows−1 with a non-empty list are visited ascending; a block's list (followed
    // from listHeads[b] through listNext, then sorted ascending) names the vectors applied there, in that
    // order. Per scalar t: for each listed j, p = W[j][t], d = D[t], a_new = p·p/d + a_j, e = d·a_new, β_j =
    // p/e, D[t] = e/a_j, a_j = a_new; then for each listed j with p ≠ 0 the column of t as in the rank-one
    // update. Then f = findFirstBlock(L, rows, b), o = tree->parent[b]; the list moves on to f when (o > f or
    // o = b) and f ≠ b, stops when o = b, else moves on to o: b's list is linked behind the target's list
    // (listHeads[b] keeps its value). The tree is only read. The result equals k successive rank-one updates.
    // sigmas: in σ_j, out the final carried a_j (first overwritten by 1/σ_j). listHeads: one entry per block,
    // −1 for an empty list; listNext: one entry per vector, −1 at a list end; both are modified.
    // Returns false, changing nothing, when W.numCols ≠ N or W.numRows ≠ sigmas.size.
    static bool rankKUpdate(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                            DenseVector<double>& sigmas, const MetaLayout& rows, EliminationTree* tree,
                            std::vector<int>& listHeads, std::vector<int>& listNext);

    // The equations added in one sweep: each is inserted into L as by the sparse addition (its row and column
    // and its pivot d_j) without its trailing correction, which then comes for all of them from one
    // rankKUpdate with σ_j = −d_j. Later equations see the rows and columns inserted for earlier ones, not
    // their corrections; the result equals single additions only when the equations are not coupled to each
    // other in A (see the top of this header). An empty list runs no update and returns true. The tree is not
    // changed.
    static bool addKRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                         const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                         EliminationTree* tree);

    // The equations deleted in one sweep: rows cleared and columns moved into W for all of them, every
    // vector's entries at the deleted equations cleared, unit pivots, then one rankKUpdate with σ_j = +d_j.
    // An empty list runs no update and returns true. The tree is not changed.
    static bool deleteKRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                            const MetaLayout& rows, EliminationTree* tree);

    // ---------------------------------------------------------------------------------------------------------
    // Allocation-free variants: the same algorithms and arithmetic, with the work storage taken from `ws`
    // (sized by ws.reserve for this factor) and only the touched blocks cleared (see Workspace for the extra
    // precondition on the tree). The K forms require eqs.size() ≤ ws.batchCapacity. When ws.activeScalars is
    // set, the additions read each equation without its couplings to inactive equations. The reach of the
    // forward solve is found by walking the tree from the blocks of A's column b up to b, instead of through
    // a std::set.
    // ---------------------------------------------------------------------------------------------------------

    static bool addRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                          const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                          EliminationTree* tree, unsigned int* activeCounts, Workspace& ws);
    static bool deleteRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                             const MetaLayout& rows, EliminationTree* tree, unsigned int* activeCounts,
                             Workspace& ws);
    static bool addKRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                         const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                         EliminationTree* tree, Workspace& ws);
    static bool deleteKRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                            const MetaLayout& rows, EliminationTree* tree, Workspace& ws);
};

}  // namespace kivTamber

#endif  // KIVTAMBER_TAMBERUPDATE_H
