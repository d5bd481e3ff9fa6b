#include "TamberUpdate.h"

#include <algorithm>
#include <functional>

#include "TamberSolve.h"
#include "TreeUpdate.h"

namespace kivTamber {

namespace {

using Equation = TamberUpdate::Equation;
using EquationList = TamberUpdate::EquationList;

constexpr unsigned int noNode = Tree::noNode;

// Scalar dimension N of a block matrix (0 without block columns; colPointers may then be null).
inline unsigned long dimensionOf(const SparseMatrix<double>& S) {
    return S.numBlockCols == 0 ? 0 : S.blockSizes[S.numBlockCols];
}

// An owned, zero-filled array from the core allocator, released on every exit.
template <typename T>
class OwnedArray {
public:
    explicit OwnedArray(unsigned long n, int fill = 0) : count_(n == 0 ? 1 : n) {
        data_ = kiv::allocateArray<T>(count_);
        std::memset(static_cast<void*>(data_), fill, count_ * sizeof(T));
    }
    ~OwnedArray() { kiv::deallocateArray(data_, count_); }
    OwnedArray(const OwnedArray&) = delete;
    OwnedArray& operator=(const OwnedArray&) = delete;
    T* get() const { return data_; }

private:
    unsigned long count_;
    T* data_;
};

// ---------------------------------------------------------------------------------------------------------
// Equation access
// ---------------------------------------------------------------------------------------------------------

// The three sweeps of readEquation into y (N entries); touch(c) is called for every block c of a stored tile
// of block column b, in storage order. Returns the block of the first stored tile of the column.
template <typename Touch>
unsigned int readSweeps(const SparseMatrix<double>& S, double* y, unsigned int b, unsigned int s,
                        const MetaLayout& rows, Touch touch) {
    const unsigned int begin = S.colPointers[b], end = S.colPointers[b + 1];
    for (unsigned int e = begin; e < end; ++e) {
        const unsigned int c = S.rowIndices[e];
        const double* col = S.blockPointers[e] + static_cast<unsigned long>(s) * S.blockStrides[c];
        double* yc = y + S.blockOffsets[c];
        const unsigned int sc = S.blockSizes[c];
        for (unsigned int k = 0; k < sc; ++k) yc[k] = col[k];  // tile (k, s)
        touch(c);
    }
    const unsigned long ld = S.blockStrides[b];
    const double* diag = S.blockPointers[end - 1];
    double* yb = y + S.blockOffsets[b];
    for (unsigned int k = s + 1; k < S.blockSizes[b]; ++k) yb[k] = diag[s + k * ld];  // tile (s, k), k > s
    for (unsigned int e = rows.colPointers[b] + 1; e < rows.colPointers[b + 1]; ++e) {
        const unsigned int c = rows.rowIndices[e];
        const double* tile = rows.blocks[e];
        double* yc = y + S.blockOffsets[c];
        const unsigned int sc = S.blockSizes[c];
        for (unsigned int k = 0; k < sc; ++k) yc[k] = tile[s + k * ld];  // tile (s, k) of tile (b, c)
    }
    return S.rowIndices[begin];
}

// The two sweeps of insertData.
void insertSweeps(SparseMatrix<double>& S, const double* y, unsigned int b, unsigned int s,
                  const MetaLayout& rows) {
    const unsigned int begin = S.colPointers[b], end = S.colPointers[b + 1];
    for (unsigned int e = begin; e < end; ++e) {
        const unsigned int c = S.rowIndices[e];
        double* col = S.blockPointers[e] + static_cast<unsigned long>(s) * S.blockStrides[c];
        const double* yc = y + S.blockOffsets[c];
        const unsigned int n = e + 1 == end ? s : S.blockSizes[c];  // the diagonal tile: above the diagonal
        for (unsigned int k = 0; k < n; ++k) col[k] = yc[k];
    }
    const unsigned long ld = S.blockStrides[b];
    const unsigned int first = rows.colPointers[b];
    for (unsigned int e = first; e < rows.colPointers[b + 1]; ++e) {
        const unsigned int c = rows.rowIndices[e];
        double* tile = rows.blocks[e];
        const double* yc = y + S.blockOffsets[c];
        const unsigned int sc = S.blockSizes[c];
        for (unsigned int k = e == first ? s : 0; k < sc; ++k) tile[s + k * ld] = yc[k];
    }
}

// Dense form of funnyMult on plain arrays.
void funnyDense(const SparseMatrix<double>& S, const double* x, double* y, unsigned int b, unsigned int s) {
    const unsigned long n = S.numBlockCols;
    if (b >= n) return;
    const unsigned int i = S.blockOffsets[b] + s;
    for (unsigned int r = b; r < n; ++r) {
        const unsigned int k0 = r == b ? s + 1 : 0;
        const unsigned int sr = S.blockSizes[r];
        double* yr = y + S.blockOffsets[r];
        for (unsigned int e = S.colPointers[r]; e < S.colPointers[r + 1]; ++e) {
            const unsigned int c = S.rowIndices[e];
            const unsigned int oc = S.blockOffsets[c];
            if (oc >= i) break;
            const unsigned int ld = S.blockStrides[c];
            const unsigned int count = std::min(ld, i - oc);  // bounded by the stride: padding row included
            const double* tile = S.blockPointers[e];
            const double* xc = x + oc;
            const double* yc = y + oc;
            for (unsigned int k = k0; k < sr; ++k) {
                const double* col = tile + static_cast<unsigned long>(k) * ld;
                double sum = 0.0;
                for (unsigned int j = 0; j < count; ++j) sum += col[j] * xc[j] * yc[j];  // S(q, p)·x_q·y_q
                yr[k] -= sum;
            }
        }
    }
}

// Set form of funnyMult over the ascending blocks [it, end).
template <typename It>
void funnySet(const SparseMatrix<double>& S, const double* x, double* y, unsigned int b, unsigned int s,
              const MetaLayout& rows, It it, It end) {
    for (; it != end && *it <= b; ++it) {
        const unsigned int c = *it;
        const unsigned int count = c < b ? S.blockSizes[c] : s;
        if (count == 0) continue;
        const unsigned long ld = S.blockStrides[c];
        const double* xc = x + S.blockOffsets[c];
        const double* yc = y + S.blockOffsets[c];
        for (unsigned int e = rows.colPointers[c]; e < rows.colPointers[c + 1]; ++e) {
            const unsigned int r = rows.rowIndices[e];
            if (r < b) continue;
            const double* tile = rows.blocks[e];
            double* yr = y + S.blockOffsets[r];
            const unsigned int sr = S.blockSizes[r];
            for (unsigned int k = r == b ? s + 1 : 0; k < sr; ++k) {
                const double* col = tile + k * ld;
                double sum = 0.0;
                for (unsigned int j = 0; j < count; ++j) sum += col[j] * xc[j] * yc[j];
                yr[k] -= sum;
            }
        }
    }
}

// Counting-sort transpose of the tile pattern of S into the three sequences.
void buildRowIndex(const SparseMatrix<double>& S, kiv::VectorPOD<unsigned int>& colPointers,
                   kiv::VectorPOD<unsigned int>& rowIndices, kiv::VectorPOD<double*>& blocks) {
    const unsigned long n = S.numBlockCols;
    const unsigned long nnz = n == 0 ? 0 : S.colPointers[n];
    colPointers.clear();
    colPointers.resize(n + 1);  // zeroed
    rowIndices.clear();
    rowIndices.resize(nnz);
    blocks.clear();
    blocks.resize(nnz);
    for (unsigned long e = 0; e < nnz; ++e) ++colPointers[S.rowIndices[e] + 1];
    if (n == 0) {
        colPointers[0] = 0;
        return;
    }
    for (unsigned long k = 1; k <= n; ++k) colPointers[k] += colPointers[k - 1];
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int e = S.colPointers[j]; e < S.colPointers[j + 1]; ++e) {
            const unsigned int pos = colPointers[S.rowIndices[e]]++;
            rowIndices[pos] = j;
            blocks[pos] = S.blockPointers[e];
        }
    }
    for (unsigned long k = n; k >= 1; --k) colPointers[k] = colPointers[k - 1];
    colPointers[0] = 0;
}

// ---------------------------------------------------------------------------------------------------------
// Rank-one core
// ---------------------------------------------------------------------------------------------------------

// Steps 1–6 of the rank-one update for the scalars of block b; a is carried across blocks.
template <bool rowMajor>
void updateBlock(SparseMatrix<double>& L, double* D, double* w, double& a, const MetaLayout& rows,
                 unsigned int b) {
    const unsigned int off = L.blockOffsets[b], size = L.blockSizes[b];
    const unsigned int eBegin = rowMajor ? rows.colPointers[b] : L.colPointers[b];
    const unsigned int eEnd = rowMajor ? rows.colPointers[b + 1] : L.colPointers[b + 1];
    for (unsigned int t = off; t < off + size; ++t) {
        const double p = w[t];
        const double d = D[t];
        const double aOld = a;
        a = aOld + p * p / d;
        const double e = d * a;
        D[t] = e / aOld;
        if (p == 0.0) continue;  // the column of L is unchanged
        const double beta = p / e;
        for (unsigned int k = eBegin; k < eEnd; ++k) {
            const unsigned int c = rowMajor ? rows.rowIndices[k] : L.rowIndices[k];
            const unsigned int offc = L.blockOffsets[c], sc = L.blockSizes[c];
            const unsigned int q0 = t + 1 > offc ? t + 1 - offc : 0;
            double* wc = w + offc;
            if (rowMajor) {
                const unsigned long ld = L.blockStrides[b];
                double* l = rows.blocks[k] + (t - off);
                for (unsigned int q = q0; q < sc; ++q) {
                    double& lqt = l[q * ld];
                    wc[q] = wc[q] - p * lqt;   // w_q −= p·l_qt
                    lqt = lqt + beta * wc[q];  // l_qt += β·w_q
                }
            } else {
                double* l = L.blockPointers[k] + static_cast<unsigned long>(t - off) * L.blockStrides[c];
                for (unsigned int q = q0; q < sc; ++q) {
                    wc[q] = wc[q] - p * l[q];
                    l[q] = l[q] + beta * wc[q];
                }
            }
        }
    }
}

// The walk through the blocks: along the tree (re-parenting each visited block when `reparent`), or every
// block from 0 without a tree.
template <bool rowMajor, bool reparent>
void rank1Walk(SparseMatrix<double>& L, double* D, double* w, double sigma, const MetaLayout& rows,
               EliminationTree* tree, unsigned int startBlock) {
    const unsigned long numRows = L.numBlockRows;
    unsigned long b = tree ? startBlock : 0;
    if (b >= numRows) return;
    double a = 1.0 / sigma;
    for (;;) {
        updateBlock<rowMajor>(L, D, w, a, rows, static_cast<unsigned int>(b));
        unsigned long next;
        if (!tree) {
            next = b + 1;
        } else if (reparent) {
            const unsigned int bb = static_cast<unsigned int>(b);
            const unsigned int f = TreeUpdate::findFirstBlock(L, rows, bb);
            const unsigned int o = tree->parent[bb];
            TreeUpdate::updateParent(tree, bb, o, f);
            if ((f < o || bb == o) && f != bb) {
                next = f;  // the new parent lies earlier on the path, or a root gained a parent
            } else if (bb != o) {
                next = o;
            } else {
                break;
            }
        } else {
            const unsigned int p = tree->parent[b];
            if (p == b) break;
            next = p;
        }
        if (next >= numRows) break;
        b = next;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Rank-k core
// ---------------------------------------------------------------------------------------------------------

// Storage of one rank-k sweep; a holds the carried scalars a_j (already 1/σ_j). Scalar q of block c of vector
// j is W[rowOff[j] + woff[c] + q]: rowOff[j] = j·N and woff = the block offsets of L for plain rows, or a
// packed row per vector holding only its tree path (see pathRows).
struct RankKState {
    double* W;
    const long* rowOff;
    const unsigned int* woff;
    double* a;
    int* heads;
    int* next;
    double* betas;
    int* collect;
};

// One block's part of the sweep: its vectors (collected from its list and sorted ascending) and its layout.
struct BlockSweep {
    unsigned int b, off, size, wb, eBegin, eEnd, m;
    unsigned long ldb;
    const int* vectors;
};

void beginBlock(const SparseMatrix<double>& L, const MetaLayout& rows, const RankKState& st, unsigned int b,
                int* collect, BlockSweep& bs) {
    unsigned int m = 0;
    for (int j = st.heads[b]; j != -1; j = st.next[j]) collect[m++] = j;
    std::sort(collect, collect + m);
    bs.b = b;
    bs.off = L.blockOffsets[b];
    bs.size = L.blockSizes[b];
    bs.wb = st.woff[b];
    bs.eBegin = rows.colPointers[b];
    bs.eEnd = rows.colPointers[b + 1];
    bs.m = m;
    bs.ldb = L.blockStrides[b];
    bs.vectors = collect;
}

// Step 4 for vector j at scalar t of the block: 4.1 (pivot, β_j, a_j), then 4.2 (the column of t). Running
// 4.1 and 4.2 vector by vector instead of in two passes changes nothing: 4.1 of a vector reads only W[j][t],
// D[t] and a_j, which 4.2 of the vectors before it does not write, so every value sees the same operations
// in the same order.
inline void sweepVector(const SparseMatrix<double>& L, double* D, const MetaLayout& rows,
                        const RankKState& st, const BlockSweep& bs, unsigned int t, int j) {
    double* wj = st.W + st.rowOff[j];
    const double p = wj[bs.wb + (t - bs.off)];
    const double d = D[t];
    const double aNew = p * p / d + st.a[j];
    const double e = d * aNew;
    const double beta = p / e;
    st.betas[j] = beta;
    D[t] = e / st.a[j];
    st.a[j] = aNew;
    if (p == 0.0) return;
    const unsigned int tl = t - bs.off;
    for (unsigned int k = bs.eBegin; k < bs.eEnd; ++k) {
        const unsigned int c = rows.rowIndices[k];
        const unsigned int offc = L.blockOffsets[c], sc = L.blockSizes[c];
        const unsigned int q0 = t + 1 > offc ? t + 1 - offc : 0;
        double* l = rows.blocks[k] + tl;
        double* wc = wj + st.woff[c];
        for (unsigned int q = q0; q < sc; ++q) {
            double& lqt = l[q * bs.ldb];
            wc[q] = wc[q] - p * lqt;   // w_jq −= p·l_qt
            lqt = lqt + beta * wc[q];  // l_qt += β_j·w_jq
        }
    }
}

// Step 5 and 6: the block that continues b's list (b itself when the list stops), and the append.
unsigned int finishBlock(const SparseMatrix<double>& L, const MetaLayout& rows, const EliminationTree* tree,
                         const RankKState& st, unsigned int b) {
    const unsigned int f = TreeUpdate::findFirstBlock(L, rows, b);
    const unsigned int o = tree->parent[b];
    unsigned int target;
    if ((o > f || o == b) && f != b) {
        target = f;
    } else if (o == b) {
        return b;
    } else {
        target = o;
    }
    if (st.heads[target] == -1) {
        st.heads[target] = st.heads[b];
    } else {
        int last = st.heads[target];
        while (st.next[last] != -1) last = st.next[last];
        st.next[last] = st.heads[b];
    }
    return target;
}

// Calls fn(u, x) for every scalar u < s and vector x < m of a block in anti-diagonal order (u + x ascending,
// u ascending within a diagonal). Step (t, j) depends on (t, j−1) through D[t] and on (t−1, j) through
// W[j][t] and a_j only, so this order applies every value's operations in the same order as the row order
// t-major, j-minor, while the steps of one diagonal are independent and their pivot recurrences overlap.
template <typename Fn>
inline void wavefront(unsigned int s, unsigned int m, unsigned int diagonal, Fn fn) {
    const unsigned int first = diagonal + 1 > m ? diagonal + 1 - m : 0;
    const unsigned int last = std::min(diagonal + 1, s);
    for (unsigned int u = first; u < last; ++u) fn(u, diagonal - u);
}

// One block of the sweep; returns the block b's list moves on to, or b itself when it stops.
unsigned int rankKBlock(SparseMatrix<double>& L, double* D, const MetaLayout& rows,
                        const EliminationTree* tree, const RankKState& st, unsigned int b) {
    BlockSweep bs;
    beginBlock(L, rows, st, b, st.collect, bs);
    if (bs.m > 0) {
        for (unsigned int g = 0; g + 1 < bs.size + bs.m; ++g) {
            wavefront(bs.size, bs.m, g, [&](unsigned int u, unsigned int x) {
                sweepVector(L, D, rows, st, bs, bs.off + u, bs.vectors[x]);
            });
        }
    }
    return finishBlock(L, rows, tree, st, b);
}

// The sweep over every block in ascending order, skipping empty lists.
void rankKScan(SparseMatrix<double>& L, double* D, const MetaLayout& rows, const EliminationTree* tree,
               const RankKState& st) {
    for (unsigned long b = 0; b < L.numBlockRows; ++b) {
        if (st.heads[b] == -1) continue;
        rankKBlock(L, D, rows, tree, st, static_cast<unsigned int>(b));
    }
}

// The same sweep visiting only the blocks whose list is non-empty: a min-heap of pending blocks (every target
// lies after its block). On return the heads of every visited block are −1 again and the marks are zero.
void rankKSparse(SparseMatrix<double>& L, double* D, const MetaLayout& rows, const EliminationTree* tree,
                 const RankKState& st, const EquationList& eqs, TamberUpdate::Workspace& ws) {
    unsigned int* heap = ws.heap.data;
    unsigned char* queued = ws.marks.data;
    unsigned int* done = ws.path.data;  // visited blocks, for the reset
    unsigned long size = 0, numDone = 0;
    const std::greater<unsigned int> later;
    for (const Equation& eq : eqs) {
        if (queued[eq.first]) continue;
        queued[eq.first] = 1;
        heap[size++] = eq.first;
        std::push_heap(heap, heap + size, later);
    }
    while (size > 0) {
        std::pop_heap(heap, heap + size, later);
        const unsigned int b = heap[--size];
        done[numDone++] = b;
        const unsigned int target = rankKBlock(L, D, rows, tree, st, b);
        if (target != b && !queued[target]) {
            queued[target] = 1;
            heap[size++] = target;
            std::push_heap(heap, heap + size, later);
        }
    }
    for (unsigned long k = 0; k < numDone; ++k) {
        st.heads[done[k]] = -1;
        queued[done[k]] = 0;
    }
}

// ---------------------------------------------------------------------------------------------------------
// Work modes of the additions and deletions
// ---------------------------------------------------------------------------------------------------------

// The work storage of the public operations: a std::set of touched blocks, TamberSolve's reach-restricted
// forward solve, and vectors cleared over their whole length.
class DenseMode {
public:
    DenseMode(unsigned long n, DenseVector<double>& y) : n_(n), y_(y) {}

    double* y() { return y_.data; }
    void begin() {
        touched_.clear();
        std::memset(static_cast<void*>(y_.data), 0, n_ * sizeof(double));
    }
    void touch(unsigned int c) { touched_.insert(c); }
    void mask(const SparseMatrix<double>&, const MetaLayout&, unsigned int, unsigned int) {}
    void forward(const SparseMatrix<double>& L, unsigned int i, unsigned int, EliminationTree* tree) {
        TamberSolve::forwardSolve(L, y_, i, touched_, tree);
    }
    // fn(q) for every q < i, ascending.
    template <typename Fn>
    void forEachBelow(const SparseMatrix<double>&, unsigned int, unsigned int i, Fn fn) {
        for (unsigned int q = 0; q < i; ++q) fn(q);
    }
    void funny(const SparseMatrix<double>& L, const double* D, unsigned int b, unsigned int s,
               const MetaLayout& rows) {
        funnySet(L, D, y_.data, b, s, rows, touched_.begin(), touched_.end());
    }
    // y[p] ← y[p] / d for p > i.
    void divideAfter(const SparseMatrix<double>&, const EliminationTree*, unsigned int, unsigned int i,
                     double d) {
        for (unsigned long p = i + 1; p < n_; ++p) y_.data[p] = y_.data[p] / d;
    }

private:
    unsigned long n_;
    DenseVector<double>& y_;
    std::set<unsigned int> touched_;
};

// Calls fn(c) for every block of the tree path from b to its root.
template <typename Fn>
void forEachOnPath(const EliminationTree* tree, unsigned int b, Fn fn) {
    for (unsigned int x = b;; x = tree->parent[x]) {
        fn(x);
        if (tree->parent[x] == x) break;
    }
}

// Zeroes the scalars of every block on the tree path from b to its root.
void clearPath(const SparseMatrix<double>& L, const EliminationTree* tree, unsigned int b, double* v) {
    forEachOnPath(tree, b, [&](unsigned int x) {
        std::memset(static_cast<void*>(v + L.blockOffsets[x]), 0, L.blockSizes[x] * sizeof(double));
    });
}

// Forward solve of block column j (rows below `limit`), the partial solve's column step.
void forwardColumn(const SparseMatrix<double>& U, double* x, unsigned int j, unsigned int limit) {
    const unsigned int off = U.blockOffsets[j];
    if (limit <= off) return;
    const unsigned int m = std::min(limit - off, U.blockSizes[j]);
    const unsigned int diag = U.colPointers[j + 1] - 1;
    double* xj = x + off;
    for (unsigned int k = U.colPointers[j]; k < diag; ++k) {
        const unsigned int i = U.rowIndices[k];
        const double* B = U.blockPointers[k];
        const unsigned long ld = U.blockStrides[i];
        const unsigned int si = U.blockSizes[i];
        const double* xi = x + U.blockOffsets[i];
        for (unsigned int r = 0; r < m; ++r) {
            const double* col = B + r * ld;
            for (unsigned int q = 0; q < si; ++q) xj[r] -= col[q] * xi[q];  // x_j(r) −= B(q, r)·x_i(q)
        }
    }
    const double* Ujj = U.blockPointers[diag];
    const unsigned long ld = U.blockStrides[j];
    for (unsigned int r = 1; r < m; ++r) {
        const double* col = Ujj + r * ld;
        for (unsigned int q = 0; q < r; ++q) xj[r] -= col[q] * xj[q];  // x_j(r) −= U(q, r)·x_j(q)
    }
}

// The workspace: the reach of the forward solve found by walking the tree from the blocks of A's column b up
// to b (every such block is a descendant of b), sorted; vectors cleared only where they were written.
class SparseMode {
public:
    SparseMode(TamberUpdate::Workspace& ws, double* y) : ws_(ws), y_(y) {}

    double* y() { return y_; }
    void begin() { count_ = 0; }
    void touch(unsigned int c) { ws_.reach.data[count_++] = c; }
    // Drops the entries of inactive equations (other than i) from the blocks just read.
    void mask(const SparseMatrix<double>& A, const MetaLayout& rowsA, unsigned int b, unsigned int i) {
        const unsigned char* active = ws_.activeScalars;
        if (!active) return;
        auto drop = [&](unsigned int c) {
            const unsigned int off = A.blockOffsets[c], end = off + A.blockSizes[c];
            for (unsigned int q = off; q < end; ++q) {
                if (!active[q] && q != i) y_[q] = 0.0;
            }
        };
        for (unsigned long k = 0; k < count_; ++k) drop(ws_.reach.data[k]);
        for (unsigned int e = rowsA.colPointers[b] + 1; e < rowsA.colPointers[b + 1]; ++e)
            drop(rowsA.rowIndices[e]);
    }
    void forward(const SparseMatrix<double>& L, unsigned int i, unsigned int b, EliminationTree* tree) {
        unsigned int* reach = ws_.reach.data;
        unsigned char* mark = ws_.marks.data;
        const unsigned long initial = count_;
        // reach[0 .. initial) holds the blocks of A's column b, ascending, b last.
        for (unsigned long k = 0; k < initial; ++k) mark[reach[k]] = 1;
        for (unsigned long k = 0; k < initial; ++k) {
            for (unsigned int x = tree->parent[reach[k]]; x <= b && !mark[x]; x = tree->parent[x]) {
                mark[x] = 1;
                reach[count_++] = x;
            }
        }
        if (count_ > initial) std::sort(reach, reach + count_);
        for (unsigned long k = 0; k < count_; ++k) {
            mark[reach[k]] = 0;
            forwardColumn(L, y_, reach[k], i);
        }
        ws_.reachCount = count_;
    }
    template <typename Fn>
    void forEachBelow(const SparseMatrix<double>& L, unsigned int, unsigned int i, Fn fn) {
        for (unsigned long k = 0; k < count_; ++k) {
            const unsigned int c = ws_.reach.data[k];
            const unsigned int off = L.blockOffsets[c], end = std::min(off + L.blockSizes[c], i);
            for (unsigned int q = off; q < end; ++q) fn(q);
        }
    }
    void funny(const SparseMatrix<double>& L, const double* D, unsigned int b, unsigned int s,
               const MetaLayout& rows) {
        funnySet(L, D, y_, b, s, rows, ws_.reach.data, ws_.reach.data + count_);
    }
    void divideAfter(const SparseMatrix<double>& L, const EliminationTree* tree, unsigned int b,
                     unsigned int i, double d) {
        forEachOnPath(tree, b, [&](unsigned int x) {
            const unsigned int off = L.blockOffsets[x], end = off + L.blockSizes[x];
            for (unsigned int p = std::max(off, i + 1); p < end; ++p) y_[p] = y_[p] / d;
        });
    }
    // Zeroes y at and before i (the reached blocks and the head of block b).
    void clearHead(const SparseMatrix<double>& L, unsigned int i) {
        for (unsigned long k = 0; k < count_; ++k) {
            const unsigned int c = ws_.reach.data[k];
            const unsigned int off = L.blockOffsets[c], end = std::min(off + L.blockSizes[c], i + 1);
            for (unsigned int q = off; q < end; ++q) y_[q] = 0.0;
        }
    }

private:
    TamberUpdate::Workspace& ws_;
    double* y_;
    unsigned long count_ = 0;
};

// Steps 1–8 of adding equation (b, s): reads it, computes row i and column i of the new L and the pivot d,
// writes them into L (unit diagonal) and D[i] = d. Returns d; the mode's y holds the column below i (and
// the row before i, divided by the pivots).
template <typename Mode>
double insertEquation(SparseMatrix<double>& L, double* D, const SparseMatrix<double>& A, unsigned int b,
                      unsigned int s, const MetaLayout& rows, const MetaLayout& rowsA, EliminationTree* tree,
                      Mode& mode) {
    const unsigned int i = L.blockOffsets[b] + s;
    mode.begin();
    double* y = mode.y();
    readSweeps(A, y, b, s, rowsA, [&](unsigned int c) { mode.touch(c); });
    mode.mask(A, rowsA, b, i);
    mode.forward(L, i, b, tree);
    double sum = 0.0;
    mode.forEachBelow(L, b, i, [&](unsigned int q) {
        const double z = y[q];
        y[q] = z / D[q];  // l_iq = z_q / d_q
        sum += y[q] * z;  // Σ l_iq·z_q
    });
    const double d = y[i] - sum;
    y[i] = d;
    D[i] = d;
    mode.funny(L, D, b, s, rows);
    mode.divideAfter(L, tree, b, i, d);
    y[i] = 1.0;
    insertSweeps(L, y, b, s, rows);
    return d;
}

// Steps 2–5 of deleting equation (b, s): clears row i of L, moves column i below the diagonal into w (which
// the caller has zeroed), sets L(i, i) = 1 and D[i] = 1. Returns the old pivot.
double removeEquation(SparseMatrix<double>& L, double* D, unsigned int b, unsigned int s,
                      const MetaLayout& rows, double* w) {
    const unsigned int begin = L.colPointers[b], end = L.colPointers[b + 1];
    for (unsigned int e = begin; e < end; ++e) {
        const unsigned int c = L.rowIndices[e];
        std::memset(
            static_cast<void*>(L.blockPointers[e] + static_cast<unsigned long>(s) * L.blockStrides[c]), 0,
            L.blockStrides[c] * sizeof(double));
    }
    const unsigned long ld = L.blockStrides[b];
    for (unsigned int e = rows.colPointers[b]; e < rows.colPointers[b + 1]; ++e) {
        const unsigned int c = rows.rowIndices[e];
        double* tile = rows.blocks[e];
        double* wc = w + L.blockOffsets[c];
        const unsigned int sc = L.blockSizes[c];
        for (unsigned int k = 0; k < sc; ++k) {
            wc[k] = tile[s + k * ld];
            tile[s + k * ld] = 0.0;
        }
    }
    L.blockPointers[end - 1][s + s * ld] = 1.0;
    const unsigned int i = L.blockOffsets[b] + s;
    const double d = D[i];
    D[i] = 1.0;
    w[i] = 0.0;
    return d;
}

// Step 13 of both addRows forms: every block c < b with a tile in row b whose parent lies after b, or which
// is a root, is re-parented to the block its numerical pattern implies.
void reexamineRow(SparseMatrix<double>& L, const MetaLayout& rows, EliminationTree* tree, unsigned int b) {
    const unsigned int diag = L.colPointers[b + 1] - 1;
    for (unsigned int e = L.colPointers[b]; e < diag; ++e) {
        const unsigned int c = L.rowIndices[e];
        const unsigned int p = tree->parent[c];
        if (p > b || p == c) {
            const unsigned int f = TreeUpdate::findFirstBlock(L, rows, c);
            if (f != p) TreeUpdate::updateParent(tree, c, p, f);
        }
    }
}

// Builds the vector lists of a K-row operation: one list per block, equations in reverse order.
void buildLists(const EquationList& eqs, int* heads, int* next) {
    for (unsigned long j = 0; j < eqs.size(); ++j) {
        const unsigned int b = eqs[j].first;
        next[j] = heads[b];
        heads[b] = static_cast<int>(j);
    }
}

// Step 1 and 2 of deleteKRows into the rows of W (scalar q of block c of row j at rowOff[j] + woff[c] + q);
// sigmas[j] receives the old pivots.
// deleted: null, or N flags (non-zero for the equations of eqs): their entries are then left zero while the
// rows are filled, instead of being cleared in all k rows afterwards (the same W, without the k² stores).
void removeEquations(SparseMatrix<double>& L, double* D, const EquationList& eqs, const MetaLayout& rows,
                     double* W, const long* rowOff, const unsigned int* woff, double* sigmas,
                     const unsigned char* deleted) {
    const unsigned long k = eqs.size();
    for (unsigned long j = 0; j < k; ++j) {
        const unsigned int b = eqs[j].first, s = eqs[j].second;
        double* wj = W + rowOff[j];
        const unsigned int begin = L.colPointers[b], end = L.colPointers[b + 1];
        for (unsigned int e = begin; e < end; ++e) {
            const unsigned int c = L.rowIndices[e];
            std::memset(
                static_cast<void*>(L.blockPointers[e] + static_cast<unsigned long>(s) * L.blockStrides[c]), 0,
                L.blockStrides[c] * sizeof(double));
        }
        const unsigned long ldb = L.blockStrides[b];
        for (unsigned int e = rows.colPointers[b]; e < rows.colPointers[b + 1]; ++e) {
            const unsigned int c = rows.rowIndices[e];
            double* tile = rows.blocks[e];
            double* wc = wj + woff[c];
            const unsigned int sc = L.blockSizes[c];
            const unsigned char* dc = deleted ? deleted + L.blockOffsets[c] : nullptr;
            for (unsigned int q = 0; q < sc; ++q) {
                if (!dc || !dc[q]) wc[q] = tile[s + q * ldb];
                tile[s + q * ldb] = 0.0;
            }
        }
        L.blockPointers[end - 1][s + s * ldb] = 1.0;
    }
    for (unsigned long j = 0; j < k; ++j) {
        const unsigned int b = eqs[j].first, s = eqs[j].second;
        const unsigned int i = L.blockOffsets[b] + s;
        sigmas[j] = D[i];
        D[i] = 1.0;
        if (deleted) continue;
        const unsigned long wi = woff[b] + s;
        for (unsigned long r = 0; r < k; ++r)
            W[rowOff[r] + wi] = 0.0;  // no vector reaches a deleted equation
    }
}

}  // namespace

// -------------------------------------------------------------------------------------------------------------
// Workspace
// -------------------------------------------------------------------------------------------------------------

void TamberUpdate::Workspace::reserve(unsigned long nb, unsigned long N, unsigned long maxBatch) {
    nb = std::max(nb, numBlocks);
    N = std::max(N, dimension);
    maxBatch = std::max(std::max(maxBatch, batchCapacity), 1ul);
    y.reserve(N, 0);
    w.reserve(N, 0);
    W.reserve(maxBatch * N, 0);
    sigmas.reserve(maxBatch, 0);
    betas.reserve(maxBatch, 0);
    listHeads.reserve(nb, 0xFF);  // −1
    listNext.reserve(maxBatch, 0xFF);
    collect.reserve(maxBatch, 0);
    reach.reserve(nb, 0);
    path.reserve(nb, 0);
    wOffsets.reserve(nb, 0);
    rowOffsets.reserve(maxBatch, 0);
    heap.reserve(nb, 0);
    marks.reserve(nb, 0);
    scalarMarks.reserve(N, 0);
    numBlocks = nb;
    dimension = N;
    batchCapacity = maxBatch;
}

// -------------------------------------------------------------------------------------------------------------
// Equation access
// -------------------------------------------------------------------------------------------------------------

unsigned int TamberUpdate::readEquation(const SparseMatrix<double>& S, DenseMatrix<double>& M,
                                        unsigned int row, Equation eq, const MetaLayout& rows) {
    double* target = M.data + static_cast<unsigned long>(row) * M.numCols;
    return readSweeps(S, target, eq.first, eq.second, rows, [](unsigned int) {});
}

unsigned int TamberUpdate::readEquation(const SparseMatrix<double>& S, DenseVector<double>& y, Equation eq,
                                        const MetaLayout& rows, std::set<unsigned int>& touched) {
    return readSweeps(S, y.data, eq.first, eq.second, rows, [&](unsigned int c) { touched.insert(c); });
}

void TamberUpdate::funnyMult(const SparseMatrix<double>& S, const DenseVector<double>& x,
                             DenseVector<double>& y, Equation eq) {
    funnyDense(S, x.data, y.data, eq.first, eq.second);
}

void TamberUpdate::funnyMult(const SparseMatrix<double>& S, const DenseVector<double>& x,
                             DenseVector<double>& y, Equation eq, const MetaLayout& rows,
                             const std::set<unsigned int>& touched) {
    funnySet(S, x.data, y.data, eq.first, eq.second, rows, touched.begin(), touched.end());
}

void TamberUpdate::insertData(SparseMatrix<double>& S, DenseVector<double>& y, Equation eq,
                              const MetaLayout& rows) {
    insertSweeps(S, y.data, eq.first, eq.second, rows);
}

MetaLayout TamberUpdate::buildAdditionalStructure(SparseMatrix<double>& S) {
    kiv::VectorPOD<unsigned int> colPointers, rowIndices;
    kiv::VectorPOD<double*> blocks;
    buildRowIndex(S, colPointers, rowIndices, blocks);
    return MetaLayout{std::move(colPointers), std::move(rowIndices), std::move(blocks)};
}

MetaLayout TamberUpdate::buildAdditionalStructure(TamberData<double>& data) {
    if (data.isFactored) return buildAdditionalStructure(data.factor);
    return MetaLayout{};
}

void TamberUpdate::buildAdditionalStructure(SparseMatrix<double>& S, MetaLayout& layout) {
    buildRowIndex(S, layout.colPointers, layout.rowIndices, layout.blocks);
}

// -------------------------------------------------------------------------------------------------------------
// Rank-one update
// -------------------------------------------------------------------------------------------------------------

bool TamberUpdate::rank1Update(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                               double sigma, const MetaLayout& rows, EliminationTree* tree,
                               unsigned int startBlock, unsigned int wRow) {
    if (L.numBlockCols == 0 || L.colPointers[1] == 1)
        return rank1UpdateRM(L, D, W, sigma, rows, tree, startBlock, wRow);
    return rank1UpdateCM(L, D, W, sigma, rows, tree, startBlock, wRow);
}

bool TamberUpdate::rank1UpdateRM(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                                 double sigma, const MetaLayout& rows, EliminationTree* tree,
                                 unsigned int startBlock, unsigned int wRow) {
    if (W.numCols != dimensionOf(L)) return false;
    rank1Walk<true, true>(L, D.data, W.data + static_cast<unsigned long>(wRow) * W.numCols, sigma, rows, tree,
                          startBlock);
    return true;
}

bool TamberUpdate::rank1UpdateCM(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                                 double sigma, const MetaLayout& rows, EliminationTree* tree,
                                 unsigned int startBlock, unsigned int wRow) {
    if (W.numCols != dimensionOf(L)) return false;
    rank1Walk<false, false>(L, D.data, W.data + static_cast<unsigned long>(wRow) * W.numCols, sigma, rows,
                            tree, startBlock);
    return true;
}

bool TamberUpdate::rank1UpdateV2(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                                 double sigma, const MetaLayout& rows, EliminationTree* tree,
                                 unsigned int startBlock, unsigned int wRow) {
    if (W.numCols != dimensionOf(L)) return false;
    rank1Walk<true, false>(L, D.data, W.data + static_cast<unsigned long>(wRow) * W.numCols, sigma, rows,
                           tree, startBlock);
    return true;
}

// -------------------------------------------------------------------------------------------------------------
// Row addition and deletion
// -------------------------------------------------------------------------------------------------------------

bool TamberUpdate::addRows(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& E,
                           const kiv::VectorPOD<unsigned int>& startIndices, const EquationList& eqs,
                           const MetaLayout& rows, EliminationTree* tree) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L);
    DenseVector<double> yv, wv;
    yv.resize(n);
    wv.resize(n);
    double* y = yv.data;
    double* w = wv.data;
    bool ok = true;
    for (unsigned long k = 0; k < eqs.size(); ++k) {
        const unsigned int b = eqs[k].first, s = eqs[k].second;
        const unsigned int i = L.blockOffsets[b] + s;
        std::memcpy(static_cast<void*>(y), E.data + k * E.numCols, n * sizeof(double));
        TamberSolve::forwardSolve(L, yv, i, startIndices[k]);
        double sum = 0.0;
        for (unsigned int q = 0; q < i; ++q) {
            const double z = y[q];
            y[q] = z / D.data[q];
            sum += y[q] * z;
        }
        const double d = y[i] - sum;
        y[i] = d;
        D.data[i] = d;
        funnyDense(L, D.data, y, b, s);
        for (unsigned long p = i + 1; p < n; ++p) y[p] = y[p] / d;
        y[i] = 1.0;
        insertSweeps(L, y, b, s, rows);
        std::memset(static_cast<void*>(y), 0, i * sizeof(double));
        std::memcpy(static_cast<void*>(w), y,
                    n * sizeof(double));  // w[i] stays 1: the update never starts at b

        const unsigned int start = L.blockSizes[b] == 1 ? TreeUpdate::findFirstBlock(L, rows, b) : b;
        if (start != b) {
            DenseMatrix<double> W(n, 1, w);
            ok = rank1Update(L, D, W, -d, rows, tree, start, 0) && ok;
        }
        TreeUpdate::updateParent(tree, b, tree->parent[b], start);
        reexamineRow(L, rows, tree, b);
    }
    return ok;
}

bool TamberUpdate::addRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                           const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                           EliminationTree* tree) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L);
    DenseVector<double> yv, wv;
    yv.resize(n);
    wv.resize(n);
    DenseMode mode(n, yv);
    bool ok = true;
    for (const Equation& eq : eqs) {
        const unsigned int b = eq.first, s = eq.second;
        const unsigned int i = L.blockOffsets[b] + s;
        const double d = insertEquation(L, D.data, A, b, s, rows, rowsA, tree, mode);
        std::memset(static_cast<void*>(yv.data), 0, i * sizeof(double));
        std::memcpy(static_cast<void*>(wv.data), yv.data, n * sizeof(double));
        wv.data[i] = 0.0;

        const unsigned int f = TreeUpdate::findFirstBlock(L, rows, b);
        const unsigned int start = s + 1 == L.blockSizes[b] ? f : b;
        DenseMatrix<double> W(n, 1, wv.data);
        ok = rank1Update(L, D, W, -d, rows, tree, start, 0) && ok;
        if (start != b) TreeUpdate::updateParent(tree, b, tree->parent[b], start);
        reexamineRow(L, rows, tree, b);
    }
    return ok;
}

namespace {

// The loop of addRowsV2 in either mode; `w` is a vector of N entries (zero between equations in the sparse
// mode).
template <bool sparse, typename Mode>
bool addRowsV2Loop(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                   const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                   EliminationTree* tree, unsigned int* activeCounts, Mode& mode, double* w) {
    const unsigned long n = dimensionOf(L);
    bool ok = true;
    for (const Equation& eq : eqs) {
        const unsigned int b = eq.first, s = eq.second;
        const unsigned int i = L.blockOffsets[b] + s;
        const double d = insertEquation(L, D.data, A, b, s, rows, rowsA, tree, mode);
        double* y = mode.y();
        if constexpr (sparse) {
            // w = y after i; then y is cleared where it was written (reached blocks and the path of b).
            forEachOnPath(tree, b, [&](unsigned int x) {
                const unsigned int off = L.blockOffsets[x], end = off + L.blockSizes[x];
                for (unsigned int q = std::max(off, i + 1); q < end; ++q) w[q] = y[q];
            });
            mode.clearHead(L, L.blockOffsets[b] + L.blockSizes[b] - 1);
            clearPath(L, tree, b, y);
        } else {
            std::memset(static_cast<void*>(y), 0, i * sizeof(double));
            std::memcpy(static_cast<void*>(w), y, n * sizeof(double));
            w[i] = 0.0;
        }
        ++activeCounts[b];
        const unsigned int start = s + 1 == L.blockSizes[b] ? tree->parent[b] : b;
        DenseMatrix<double> W(n, 1, w);
        ok = TamberUpdate::rank1UpdateV2(L, D, W, -d, rows, tree, start, 0) && ok;
        if constexpr (sparse) clearPath(L, tree, b, w);
    }
    return ok;
}

}  // namespace

bool TamberUpdate::addRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                             const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                             EliminationTree* tree, unsigned int* activeCounts, SkeletonMatrix*) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L);
    DenseVector<double> yv, wv;
    yv.resize(n);
    wv.resize(n);
    DenseMode mode(n, yv);
    return addRowsV2Loop<false>(L, D, A, eqs, rows, rowsA, tree, activeCounts, mode, wv.data);
}

bool TamberUpdate::addRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                             const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                             EliminationTree* tree, unsigned int* activeCounts, Workspace& ws) {
    SparseMode mode(ws, ws.y.data);
    return addRowsV2Loop<true>(L, D, A, eqs, rows, rowsA, tree, activeCounts, mode, ws.w.data);
}

bool TamberUpdate::deleteRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                              const MetaLayout& rows, EliminationTree* tree) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L);
    DenseVector<double> wv;
    wv.resize(n);
    OwnedArray<double> saved(eqs.size());
    bool ok = true;
    for (unsigned long k = 0; k < eqs.size(); ++k) {
        const unsigned int b = eqs[k].first, s = eqs[k].second;
        std::memset(static_cast<void*>(wv.data), 0, n * sizeof(double));
        const double d = removeEquation(L, D.data, b, s, rows, wv.data);
        saved.get()[k] = d;
        const unsigned int start = L.blockSizes[b] == 1 ? tree->parent[b] : b;
        DenseMatrix<double> W(n, 1, wv.data);
        ok = rank1Update(L, D, W, d, rows, tree, start, 0) && ok;

        if (TreeUpdate::findFirstBlock(L, rows, b) == b) {
            // b has no non-zero off-diagonal tile left: a root without children; its former children move to
            // the blocks their own patterns imply.
            TreeUpdate::removeChild(tree, b, tree->parent[b]);
            tree->parent[b] = b;
            unsigned int c = tree->firstChild[b];
            tree->firstChild[b] = noNode;
            while (c != noNode) {
                const unsigned int nextChild = tree->sibling[c];
                const unsigned int fc = TreeUpdate::findFirstBlock(L, rows, c);
                tree->sibling[c] = noNode;
                tree->parent[c] = c;
                if (fc != c) TreeUpdate::insertChild(tree, c, fc);
                c = nextChild;
            }
        }
    }
    return ok;
}

namespace {

template <bool sparse>
bool deleteRowsV2Loop(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                      const MetaLayout& rows, EliminationTree* tree, unsigned int* activeCounts, double* w,
                      double* saved) {
    const unsigned long n = dimensionOf(L);
    bool ok = true;
    for (unsigned long k = 0; k < eqs.size(); ++k) {
        const unsigned int b = eqs[k].first, s = eqs[k].second;
        if constexpr (!sparse) std::memset(static_cast<void*>(w), 0, n * sizeof(double));
        const double d = removeEquation(L, D.data, b, s, rows, w);
        if (saved) saved[k] = d;
        const unsigned int start = L.blockSizes[b] == 1 ? tree->parent[b] : b;
        DenseMatrix<double> W(n, 1, w);
        ok = TamberUpdate::rank1UpdateV2(L, D, W, d, rows, tree, start, 0) && ok;
        --activeCounts[b];
        if constexpr (sparse) clearPath(L, tree, b, w);
    }
    return ok;
}

}  // namespace

bool TamberUpdate::deleteRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                                const MetaLayout& rows, EliminationTree* tree, unsigned int* activeCounts,
                                SkeletonMatrix*) {
    if (eqs.empty()) return true;
    DenseVector<double> wv;
    wv.resize(dimensionOf(L));
    OwnedArray<double> saved(eqs.size());
    return deleteRowsV2Loop<false>(L, D, eqs, rows, tree, activeCounts, wv.data, saved.get());
}

bool TamberUpdate::deleteRowsV2(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                                const MetaLayout& rows, EliminationTree* tree, unsigned int* activeCounts,
                                Workspace& ws) {
    return deleteRowsV2Loop<true>(L, D, eqs, rows, tree, activeCounts, ws.w.data, nullptr);
}

// -------------------------------------------------------------------------------------------------------------
// Rank-k update and k-row addition and deletion
// -------------------------------------------------------------------------------------------------------------

bool TamberUpdate::rankKUpdate(SparseMatrix<double>& L, DenseVector<double>& D, DenseMatrix<double>& W,
                               DenseVector<double>& sigmas, const MetaLayout& rows, EliminationTree* tree,
                               std::vector<int>& listHeads, std::vector<int>& listNext) {
    if (W.numCols != dimensionOf(L) || W.numRows != sigmas.size) return false;
    const unsigned long k = sigmas.size;
    OwnedArray<double> betas(k);
    OwnedArray<int> collect(k);
    for (unsigned long j = 0; j < k; ++j) sigmas.data[j] = 1.0 / sigmas.data[j];
    OwnedArray<long> rowOff(k);
    for (unsigned long j = 0; j < k; ++j) rowOff.get()[j] = static_cast<long>(j * W.numCols);
    const RankKState st{W.data,           rowOff.get(),    L.blockOffsets, sigmas.data,
                        listHeads.data(), listNext.data(), betas.get(),    collect.get()};
    rankKScan(L, D.data, rows, tree, st);
    return true;
}

bool TamberUpdate::addKRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                            const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                            EliminationTree* tree) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L), k = eqs.size();
    DenseVector<double> yv, sigmas;
    yv.resize(n);
    sigmas.resize(k);
    OwnedArray<double> Wdata(k * n);
    DenseMode mode(n, yv);
    for (unsigned long j = 0; j < k; ++j) {
        const unsigned int b = eqs[j].first, s = eqs[j].second;
        const unsigned int i = L.blockOffsets[b] + s;
        const double d = insertEquation(L, D.data, A, b, s, rows, rowsA, tree, mode);
        std::memset(static_cast<void*>(yv.data), 0, (i + 1) * sizeof(double));
        sigmas.data[j] = -d;
        std::memcpy(static_cast<void*>(Wdata.get() + j * n), yv.data, n * sizeof(double));
    }
    std::vector<int> listHeads(L.numBlockCols, -1), listNext(k, -1);
    buildLists(eqs, listHeads.data(), listNext.data());
    DenseMatrix<double> W(n, k, Wdata.get());
    return rankKUpdate(L, D, W, sigmas, rows, tree, listHeads, listNext);
}

bool TamberUpdate::deleteKRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                               const MetaLayout& rows, EliminationTree* tree) {
    if (eqs.empty()) return true;
    const unsigned long n = dimensionOf(L), k = eqs.size();
    DenseVector<double> sigmas;
    sigmas.resize(k);
    OwnedArray<double> Wdata(k * n);
    OwnedArray<long> rowOff(k);
    for (unsigned long j = 0; j < k; ++j) rowOff.get()[j] = static_cast<long>(j * n);
    removeEquations(L, D.data, eqs, rows, Wdata.get(), rowOff.get(), L.blockOffsets, sigmas.data, nullptr);
    std::vector<int> listHeads(L.numBlockCols, -1), listNext(k, -1);
    buildLists(eqs, listHeads.data(), listNext.data());
    DenseMatrix<double> W(n, k, Wdata.get());
    return rankKUpdate(L, D, W, sigmas, rows, tree, listHeads, listNext);
}

namespace {

// Packed rows: vector j keeps only its tree path b_j, parent(b_j), …, root, in that order, in
// W[start_j .. start_j + S(b_j)), S(x) being the number of scalars from x up to its root; its rows lie back
// to back. Block c of the path then starts at start_j + S(b_j) − S(c) = rowOff[j] + woff[c] with woff[c] = N
// − S(c) (ws.wOffsets) and rowOff[j] = start_j − (N − S(b_j)) (ws.rowOffsets). Each vector's entries are
// contiguous along its path, as a single rank-one vector's are. Returns the total length.
unsigned long pathRows(const SparseMatrix<double>& L, const EliminationTree* tree, const EquationList& eqs,
                       TamberUpdate::Workspace& ws) {
    const long N = static_cast<long>(ws.dimension);
    unsigned char* known = ws.marks.data;
    unsigned int* R = ws.wOffsets.data;  // N − S(x)
    unsigned int* stack = ws.heap.data;
    unsigned int* seen = ws.path.data;
    unsigned long numSeen = 0, total = 0;
    for (unsigned long j = 0; j < eqs.size(); ++j) {
        unsigned long depth = 0;
        unsigned int x = eqs[j].first;
        while (!known[x]) {  // up to the first block whose S is known, or past the root
            stack[depth++] = x;
            if (tree->parent[x] == x) break;
            x = tree->parent[x];
        }
        while (depth > 0) {  // S(x) = s_x + S(parent(x)), S(root) = s_root
            const unsigned int y = stack[--depth];
            const unsigned int p = tree->parent[y];
            const unsigned int above = p == y ? static_cast<unsigned int>(N) : R[p];
            R[y] = above - L.blockSizes[y];
            known[y] = 1;
            seen[numSeen++] = y;
        }
        const long S = N - static_cast<long>(R[eqs[j].first]);
        ws.rowOffsets.data[j] = static_cast<long>(total) - (N - S);
        total += static_cast<unsigned long>(S);
    }
    for (unsigned long k = 0; k < numSeen; ++k) known[seen[k]] = 0;
    return total;
}

}  // namespace

bool TamberUpdate::addKRows(SparseMatrix<double>& L, DenseVector<double>& D, const SparseMatrix<double>& A,
                            const EquationList& eqs, const MetaLayout& rows, const MetaLayout& rowsA,
                            EliminationTree* tree, Workspace& ws) {
    if (eqs.empty()) return true;
    const unsigned long k = eqs.size();
    const unsigned long length = pathRows(L, tree, eqs, ws);
    double* const W = ws.W.data;
    const unsigned int* woff = ws.wOffsets.data;
    const long* rowOff = ws.rowOffsets.data;
    double* const y = ws.y.data;
    for (unsigned long j = 0; j < k; ++j) {
        const unsigned int b = eqs[j].first, s = eqs[j].second;
        const unsigned int i = L.blockOffsets[b] + s;
        SparseMode mode(ws, y);
        const double d = insertEquation(L, D.data, A, b, s, rows, rowsA, tree, mode);
        // Row j of W: the new column below i (it lies on the path of b); y is cleared where it was written.
        double* wj = W + rowOff[j];
        forEachOnPath(tree, b, [&](unsigned int x) {
            const unsigned int off = L.blockOffsets[x], end = off + L.blockSizes[x];
            for (unsigned int q = std::max(off, i + 1); q < end; ++q) wj[woff[x] + (q - off)] = y[q];
        });
        mode.clearHead(L, L.blockOffsets[b] + L.blockSizes[b] - 1);
        clearPath(L, tree, b, y);
        ws.sigmas.data[j] = 1.0 / -d;
    }
    buildLists(eqs, ws.listHeads.data, ws.listNext.data);
    const RankKState st{
        W, rowOff, woff, ws.sigmas.data, ws.listHeads.data, ws.listNext.data, ws.betas.data, ws.collect.data};
    rankKSparse(L, D.data, rows, tree, st, eqs, ws);
    std::memset(static_cast<void*>(W), 0, length * sizeof(double));
    return true;
}

bool TamberUpdate::deleteKRows(SparseMatrix<double>& L, DenseVector<double>& D, const EquationList& eqs,
                               const MetaLayout& rows, EliminationTree* tree, Workspace& ws) {
    if (eqs.empty()) return true;
    const unsigned long k = eqs.size();
    const unsigned long length = pathRows(L, tree, eqs, ws);
    double* const W = ws.W.data;
    unsigned char* deleted = ws.scalarMarks.data;
    for (const Equation& eq : eqs) deleted[L.blockOffsets[eq.first] + eq.second] = 1;
    removeEquations(L, D.data, eqs, rows, W, ws.rowOffsets.data, ws.wOffsets.data, ws.sigmas.data, deleted);
    for (const Equation& eq : eqs) deleted[L.blockOffsets[eq.first] + eq.second] = 0;
    for (unsigned long j = 0; j < k; ++j) ws.sigmas.data[j] = 1.0 / ws.sigmas.data[j];
    buildLists(eqs, ws.listHeads.data, ws.listNext.data);
    const RankKState st{W,
                        ws.rowOffsets.data,
                        ws.wOffsets.data,
                        ws.sigmas.data,
                        ws.listHeads.data,
                        ws.listNext.data,
                        ws.betas.data,
                        ws.collect.data};
    rankKSparse(L, D.data, rows, tree, st, eqs, ws);
    std::memset(static_cast<void*>(W), 0, length * sizeof(double));
    return true;
}

}  // namespace kivTamber
