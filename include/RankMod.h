// Switching equations of a factored system on and off between time steps, in place, without factoring again.
//
// A constraint solver factors the matrix with every equation active once, prepares a RankMod from it, and
// afterwards, whenever constraints come and go, names the equations to switch off and on. RankMod keeps the
// factor L·D·Lᵀ equal to the factor of A with every inactive equation i replaced by a unit equation (row and
// column i of A set to those of the identity), so TamberSolve::solve / Tamber::solve<double> solve with the
// active matrix; for an inactive equation the solution equals the right-hand side's entry.
//
//     TamberData<double> data;  ... fill, Tamber::estimateWork, Tamber::factorSerial ...
//     RankMod mod;
//     mod.prepare(data);                                  // every equation active
//     each step: mod.apply(data, switchOff, switchOn, RankMod::batched);
//                TamberSolve::solve(data, x);
//
// Numbering: an equation is (block, local) with `block` in the FACTOR's numbering, i.e. the permuted block
// order of data.factor and data.matrix (factorBlock = data.permutation.inverse[userBlock]; `local` is the
// same in both numberings). toFactorNumbering does that mapping (with block merging: its Analyzer form).
//
// What apply does, in this order:
//  1. checks every request (block < n, local < block size); an invalid one fails the call before anything
//     changes;
//  2. deletions: the switch-off requests naming an active equation, each once, ascending; with `singles`
//     one deleteRowsV2 over them, with `batched` deleteKRows in chunks of at most maxBatch equations;
//  3. additions: the switch-on requests naming an inactive equation (after step 2), each once, ascending.
//     Every addition reads its equation from data.matrix without the couplings to inactive equations (the
//     Workspace's activeScalars), so the new equation never couples to a unit equation. With `singles` each
//     is added by addRowsV2 on its own, ascending. With `batched` the equations that are coupled in A to
//     none of the other additions go through addKRows in ascending chunks of at most maxBatch (a batch equals
//     single additions only for mutually uncoupled equations); the coupled ones follow one by one,
//     ascending.
// An equation named in both lists is therefore switched off and on again, which also picks up new values of
// its row of A. The tree data.etree is never changed (V2 and rank-k operations only).
//
// Contract with the caller:
//  - prepare needs data.isFactored = 1 with a factor of data.matrix in which every equation is active
//    (Tamber::factorSerial, or any factorization leaving the same row-major factor), data.matrix in
//    the upper stored-triangle form, and data.etree the elimination tree of the factor's pattern (as the
//    analysis built it). The factor's pattern then holds every tile an addition can fill;
//  - between calls the caller keeps unchanged: the pattern and block sizes of data.matrix and data.factor,
//    data.etree, and the values of data.matrix in the rows and columns of active equations. The rows of
//    inactive equations may change freely (only their couplings to equations active at the time of the
//    switch-on are read); to change values among active equations, factor again and prepare again;
//  - after the caller factors again (isFactored cleared and a new factorization), or changes the structure,
//    prepare must be called again: it rebuilds both row indices and makes every equation active;
//  - data.isFactored stays 1; data.diagonal and data.factor are modified in place; data.scaledFactor is NOT
//    updated, so Tamber::solve<float>, Tamber::unitSolve and anything else reading the scaled factor see the
//    old factor; Tamber::iterativeRefinement reads data.matrix, which still holds the inactive equations;
//  - the active set is a flag per scalar equation (1 active, 0 inactive), in `active`.
// Nothing in apply allocates once RankMod has seen the sizes: prepare sizes every work array (y, w, the
// maxBatch × N vectors W, sigmas, list heads and links, reach lists, marks) and the request lists keep their
// storage (a call with more requests than any before may grow them once). apply returns the logical and of
// the results of the operations it ran (true when nothing was to be done).
#ifndef KIVTAMBER_RANKMOD_H
#define KIVTAMBER_RANKMOD_H

#include <kiv/VectorPOD.h>

#include "Analysis.h"
#include "Tamber.h"
#include "TamberUpdate.h"
#include "TamberUtils.h"

namespace kivTamber {

class RankMod {
public:
    typedef TamberUpdate::Equation Equation;
    typedef TamberUpdate::EquationList EquationList;

    // How apply modifies the factor.
    enum Method {
        singles = 0,  // one equation at a time (deleteRowsV2, addRowsV2)
        batched = 1   // one rank-k sweep per chunk (deleteKRows, addKRows), singles for coupled additions
    };

    // Row index of data.factor and of data.matrix.
    MetaLayout rows;
    MetaLayout rowsA;
    // Active equations per block.
    kiv::VectorPOD<unsigned int> activeCounts;
    // Per scalar equation: 1 active, 0 inactive.
    kiv::VectorPOD<unsigned char> active;
    // Work storage of the update operations.
    TamberUpdate::Workspace workspace;
    // Most equations per rank-k sweep (W holds maxBatch vectors of N entries).
    unsigned int maxBatch = 32;
    // Equations switched off, switched on, and switched on within a batch, by the last apply.
    unsigned long lastSwitchedOff = 0;
    unsigned long lastSwitchedOn = 0;
    unsigned long lastBatched = 0;

    RankMod() = default;
    RankMod(const RankMod&) = delete;
    RankMod& operator=(const RankMod&) = delete;

    // Builds the row indices, makes every equation active and sizes all work storage for `data` and batches
    // of maxBatchSize (≥ 1) equations. Returns false, changing nothing, when data is not factored or its
    // factor, matrix, diagonal and tree do not belong together (block counts, scalar dimension).
    // Throws std::bad_alloc.
    bool prepare(TamberData<double>& data, unsigned int maxBatchSize = 32);

    // Switches the equations of `switchOff` off and those of `switchOn` on (see the top of this header) in
    // data.factor and data.diagonal. Returns false, changing nothing, when RankMod is not prepared for data's
    // dimensions or a request is out of range.
    bool apply(TamberData<double>& data, const EquationList& switchOff, const EquationList& switchOn,
               Method method);

    // Whether equation (block, local) (factor numbering) is active; false before prepare.
    bool isActive(unsigned int block, unsigned int local) const;

    // Number of active scalar equations.
    unsigned long numActive() const;

    // The equation `local` of the user's block `userBlock` in the factor's numbering, for data whose blocks
    // are the user's blocks permuted (an analysis without block merging, or data filled by hand). With
    // merging the data's blocks are groups of user blocks and data.permutation is not the user's: use the
    // Analyzer form below.
    static Equation toFactorNumbering(const TamberData<double>& data, unsigned int userBlock,
                                      unsigned int local) {
        return Equation(data.permutation.inverse[userBlock], local);
    }

    // The same through the analyzer that filled data, right with and without merging. False, `out`
    // unchanged, when userBlock or local is out of range.
    static bool toFactorNumbering(const Analysis::Analyzer& analyzer, unsigned int userBlock, unsigned int local,
                                  Equation& out) {
        unsigned int block = 0, inBlock = 0;
        if (!analyzer.factorPosition(userBlock, local, block, inBlock)) return false;
        out = Equation(block, inBlock);
        return true;
    }

private:
    bool prepared_ = false;
    unsigned long numBlocks_ = 0;
    unsigned long dimension_ = 0;
    kiv::VectorPOD<unsigned int> offsets_;  // [n + 1] scalar offsets of the blocks
    kiv::VectorPOD<unsigned char> marks_;   // [N] zero between calls
    EquationList deletions_;
    EquationList additions_;
    EquationList batch_;
    EquationList coupled_;
    EquationList chunk_;

    // Sorted, duplicate-free list of the requests whose equation's active flag equals `state`.
    void collect(const EquationList& requests, unsigned char state, EquationList& out);
    // Whether equation (b, s) of data.matrix has a non-zero coupling to a marked scalar other than itself.
    bool coupledToMarked(const SparseMatrix<double>& A, unsigned int b, unsigned int s) const;
};

}  // namespace kivTamber

#endif  // KIVTAMBER_RANKMOD_H
