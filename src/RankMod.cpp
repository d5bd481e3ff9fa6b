#include "RankMod.h"

#include <algorithm>
#include <cstring>

namespace kivTamber {

bool RankMod::prepare(TamberData<double>& data, unsigned int maxBatchSize) {
    const SparseMatrix<double>& L = data.factor;
    const unsigned long nb = L.numBlockCols;
    const unsigned long N = nb == 0 ? 0 : L.blockSizes[nb];
    if (!data.isFactored || data.matrix.numBlockCols != nb || data.diagonal.size != N ||
        data.etree.numNodes < nb || (nb > 0 && data.matrix.blockSizes[nb] != N))
        return false;
    if (maxBatchSize == 0) maxBatchSize = 1;

    TamberUpdate::buildAdditionalStructure(data.factor, rows);
    TamberUpdate::buildAdditionalStructure(data.matrix, rowsA);
    activeCounts.resize(nb);
    offsets_.resize(nb + 1);
    for (unsigned long b = 0; b < nb; ++b) {
        activeCounts[b] = L.blockSizes[b];
        offsets_[b] = L.blockOffsets[b];
    }
    offsets_[nb] = static_cast<unsigned int>(N);
    active.resize(N);
    if (N > 0) std::memset(active.data(), 1, N);
    marks_.resize(N);
    if (N > 0) std::memset(marks_.data(), 0, N);

    maxBatch = maxBatchSize;
    workspace.reserve(nb, N, maxBatch);
    workspace.activeScalars = active.data();
    // A call switches each scalar equation at most once (repeated and no-op requests are dropped),
    // so lists of N entries never grow again.
    const unsigned long lists = std::max<unsigned long>(N, 64);
    deletions_.reserve(lists);
    additions_.reserve(lists);
    batch_.reserve(lists);
    coupled_.reserve(lists);
    chunk_.reserve(maxBatch);

    numBlocks_ = nb;
    dimension_ = N;
    prepared_ = true;
    lastSwitchedOff = lastSwitchedOn = lastBatched = 0;
    return true;
}

bool RankMod::isActive(unsigned int block, unsigned int local) const {
    if (!prepared_ || block >= numBlocks_) return false;
    return active[offsets_[block] + local] != 0;
}

unsigned long RankMod::numActive() const {
    unsigned long count = 0;
    for (unsigned long b = 0; b < activeCounts.size(); ++b) count += activeCounts[b];
    return count;
}

void RankMod::collect(const EquationList& requests, unsigned char state, EquationList& out) {
    out.clear();
    for (const Equation& eq : requests) {
        const unsigned int i = offsets_[eq.first] + eq.second;
        if (active[i] != state || marks_[i]) continue;  // changes nothing, or named before
        marks_[i] = 1;
        out.push_back(eq);
    }
    for (const Equation& eq : out) marks_[offsets_[eq.first] + eq.second] = 0;
    std::sort(out.begin(), out.end());
}

bool RankMod::coupledToMarked(const SparseMatrix<double>& A, unsigned int b, unsigned int s) const {
    const unsigned int i = offsets_[b] + s;
    auto hit = [&](unsigned int q, double v) { return marks_[q] && q != i && v != 0.0; };
    const unsigned char* marked = workspace.marks.data;  // blocks holding a marked equation
    // Column s of the tiles (c, b), c ≤ b; of the diagonal tile only the part above the diagonal.
    const unsigned int begin = A.colPointers[b], end = A.colPointers[b + 1];
    for (unsigned int e = begin; e < end; ++e) {
        const unsigned int c = A.rowIndices[e];
        if (!marked[c]) continue;
        const double* col = A.blockPointers[e] + static_cast<unsigned long>(s) * A.blockStrides[c];
        const unsigned int n = c == b ? s : A.blockSizes[c];
        for (unsigned int k = 0; k < n; ++k) {
            if (hit(offsets_[c] + k, col[k])) return true;
        }
    }
    // Row s of the tiles (b, c), c ≥ b, from the diagonal tile on (its part right of the diagonal).
    const unsigned long ld = A.blockStrides[b];
    const unsigned int first = rowsA.colPointers[b];
    for (unsigned int e = first; e < rowsA.colPointers[b + 1]; ++e) {
        const unsigned int c = rowsA.rowIndices[e];
        if (!marked[c]) continue;
        const double* tile = rowsA.blocks[e];
        for (unsigned int k = e == first ? s + 1 : 0; k < A.blockSizes[c]; ++k) {
            if (hit(offsets_[c] + k, tile[s + k * ld])) return true;
        }
    }
    return false;
}

bool RankMod::apply(TamberData<double>& data, const EquationList& switchOff, const EquationList& switchOn,
                    Method method) {
    SparseMatrix<double>& L = data.factor;
    if (!prepared_ || L.numBlockCols != numBlocks_ || data.diagonal.size != dimension_) return false;
    for (const EquationList* list : {&switchOff, &switchOn}) {
        for (const Equation& eq : *list) {
            if (eq.first >= numBlocks_ || eq.second >= offsets_[eq.first + 1] - offsets_[eq.first])
                return false;
        }
    }
    DenseVector<double>& D = data.diagonal;
    EliminationTree* tree = &data.etree;
    TamberUpdate::Workspace& ws = workspace;
    ws.activeScalars = active.data();
    bool ok = true;

    // Deletions.
    collect(switchOff, 1, deletions_);
    if (method == singles) {
        ok = TamberUpdate::deleteRowsV2(L, D, deletions_, rows, tree, activeCounts.data(), ws) && ok;
    } else {
        for (unsigned long k = 0; k < deletions_.size(); k += maxBatch) {
            const unsigned long end = std::min<unsigned long>(k + maxBatch, deletions_.size());
            chunk_.clear();
            for (unsigned long j = k; j < end; ++j) {
                chunk_.push_back(deletions_[j]);
                --activeCounts[deletions_[j].first];
            }
            ok = TamberUpdate::deleteKRows(L, D, chunk_, rows, tree, ws) && ok;
        }
    }
    for (const Equation& eq : deletions_) active[offsets_[eq.first] + eq.second] = 0;

    // Additions, ascending.
    collect(switchOn, 0, additions_);
    batch_.clear();
    coupled_.clear();
    if (method == batched) {
        // The workspace's block marks (zero between its calls) flag the blocks holding an addition.
        for (const Equation& eq : additions_) {
            marks_[offsets_[eq.first] + eq.second] = 1;
            ws.marks.data[eq.first] = 1;
        }
        for (const Equation& eq : additions_) {
            if (coupledToMarked(data.matrix, eq.first, eq.second))
                coupled_.push_back(eq);
            else
                batch_.push_back(eq);
        }
        for (const Equation& eq : additions_) {
            marks_[offsets_[eq.first] + eq.second] = 0;
            ws.marks.data[eq.first] = 0;
        }
    } else {
        coupled_ = additions_;  // storage kept: the copy reuses coupled_'s capacity once it has grown
    }
    for (unsigned long k = 0; k < batch_.size(); k += maxBatch) {
        const unsigned long end = std::min<unsigned long>(k + maxBatch, batch_.size());
        chunk_.clear();
        for (unsigned long j = k; j < end; ++j) chunk_.push_back(batch_[j]);
        ok = TamberUpdate::addKRows(L, D, data.matrix, chunk_, rows, rowsA, tree, ws) && ok;
        for (const Equation& eq : chunk_) {
            ++activeCounts[eq.first];
            active[offsets_[eq.first] + eq.second] = 1;
        }
    }
    for (const Equation& eq : coupled_) {
        chunk_.clear();
        chunk_.push_back(eq);
        ok = TamberUpdate::addRowsV2(L, D, data.matrix, chunk_, rows, rowsA, tree, activeCounts.data(), ws) &&
             ok;
        active[offsets_[eq.first] + eq.second] = 1;
    }

    lastSwitchedOff = deletions_.size();
    lastSwitchedOn = additions_.size();
    lastBatched = batch_.size();
    return ok;
}

}  // namespace kivTamber
