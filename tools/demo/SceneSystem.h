// A scene's system handed to the Solver the way a physics engine holds it: bodies and constraints by id,
// Jacobian blocks J(c, b) as the physics computes them (s_c × s_b, not transposed), body–body couplings where
// a scene has them. Header-only, so that tamber-demo and the benchmarks share it without another library.
//
// A BlockProblem of the scenes stores the transposed Jacobian J(c, b)ᵀ as its entry (b, c); gather() turns
// it back into J, the array a constraint solver fills itself. A pattern that the body/constraint form cannot
// hold (two constraints coupled, or a constraint with a non-zero diagonal block) is handed over as a general
// block pattern instead: Solver::analyze(const Analysis::Problem&) and Solver::setPatternValues.
#ifndef KIVTAMBER_TOOLS_DEMO_SCENE_SYSTEM_H
#define KIVTAMBER_TOOLS_DEMO_SCENE_SYSTEM_H

#include <vector>

#include "Analysis.h"
#include "Solver.h"
#include "scenes/Scenes.h"

namespace kivTamber {
namespace demo {

template <typename T>
class SceneSystem {
public:
    // Reads the structure of `problem` (a finished BlockProblem). Body b is block b, constraint c is block
    // firstConstraint + c, so the Solver's numbering of unknowns is the problem's. forceGeneral: hand the
    // pattern over as a general block pattern even when it is a body/constraint system (to compare the two
    // roads). Allocates; call once per structure.
    void describe(const scenes::BlockProblem& problem, bool forceGeneral = false) {
        const unsigned int n = problem.numBlocks, first = problem.firstConstraint;
        structure_ = SystemStructure();
        bodyEntries_.assign(first, 0);
        jacobianEntries_.clear();
        couplingEntries_.clear();
        general_ = forceGeneral;
        for (unsigned int j = 0; j < n; ++j) {
            for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
                const unsigned int i = problem.rowIndices[e];
                if (i == j) {
                    if (j < first) {
                        bodyEntries_[j] = e;
                    } else {
                        const unsigned long count =
                            static_cast<unsigned long>(problem.blockSizes[j]) * problem.blockSizes[j];
                        const double* v = problem.entryValues(e);
                        for (unsigned long k = 0; k < count; ++k)
                            if (v[k] != 0.0) general_ = true;  // a compliance block: not in the scenes' form
                    }
                } else if (j >= first && i < first) {
                    jacobianEntries_.push_back(e);
                    structure_.jacobians.emplace_back(j - first, i);
                } else if (j < first) {
                    couplingEntries_.push_back(e);
                    structure_.couplings.emplace_back(i, j);
                } else {
                    general_ = true;  // two constraints coupled
                }
            }
        }
        for (unsigned int b = 0; b < first; ++b) structure_.addBody(problem.blockSizes[b]);
        for (unsigned int c = first; c < n; ++c) structure_.addConstraint(problem.blockSizes[c]);
    }

    // True when the pattern goes to the Solver as a general block pattern.
    bool general() const { return general_; }
    const SystemStructure& structure() const { return structure_; }
    unsigned long jacobianBlocks() const { return jacobianEntries_.size(); }
    unsigned long couplingBlocks() const { return couplingEntries_.size(); }

    // Analyses the described structure. `problem` must be the one described (its arrays are read for a
    // general pattern).
    Status analyze(Solver<T>& solver, const scenes::BlockProblem& problem) const {
        if (!general_) return solver.analyze(structure_);
        const Analysis::Problem p = problem.pattern();
        return solver.analyze(p);
    }

    // The values of the current step of `problem` (same structure as described) in the arrays the engine
    // hands over: body blocks by id, Jacobian blocks J(c, b) in the order of the structure, couplings
    // likewise; for a general pattern every entry in the problem's order and form. Allocation-free after the
    // first call.
    void gather(const scenes::BlockProblem& problem) {
        if (general_) {
            values_.resize(problem.values.size());
            for (unsigned long k = 0; k < problem.values.size(); ++k)
                values_[k] = static_cast<T>(problem.values[k]);
            return;
        }
        unsigned long count = 0;
        for (unsigned long e : bodyEntries_) count += problem.valuePointers[e + 1] - problem.valuePointers[e];
        bodies_.resize(count);
        T* out = bodies_.data();
        for (unsigned long e : bodyEntries_)
            for (unsigned long k = problem.valuePointers[e]; k < problem.valuePointers[e + 1]; ++k)
                *out++ = static_cast<T>(problem.values[k]);
        transposeEntries(problem, jacobianEntries_, jacobians_, false);
        transposeEntries(problem, couplingEntries_, couplings_, true);
    }

    // Hands the gathered values to the solver: Solver::setValues, or Solver::setPatternValues for a general
    // pattern.
    Status setValues(Solver<T>& solver, const scenes::BlockProblem& problem) const {
        if (!general_)
            return solver.setValues(bodies_.data(), jacobians_.data(),
                                    couplings_.empty() ? nullptr : couplings_.data());
        return solver.setPatternValues(values_.data(), problem.valuePointers.data());
    }

    const T* bodies() const { return bodies_.data(); }
    const T* jacobians() const { return jacobians_.data(); }
    const T* couplings() const { return couplings_.data(); }

private:
    // Entry (i, j) of the problem holds A(i, j), s_i × s_j. A Jacobian J(c, b) = A(c, b) is its transpose
    // (s_c × s_b); a coupling K(b1, b2) with b1 < b2 is recorded as (i, j) = (b1, b2): keep the entry as is.
    void transposeEntries(const scenes::BlockProblem& problem, const std::vector<unsigned long>& entries,
                          std::vector<T>& out, bool keep) {
        unsigned long count = 0;
        for (unsigned long e : entries) count += problem.valuePointers[e + 1] - problem.valuePointers[e];
        out.resize(count);
        T* o = out.data();
        unsigned int column = 0;
        for (unsigned long e : entries) {
            while (problem.colPointers[column + 1] <= e) ++column;  // entries ascend: the column only grows
            const unsigned int si = problem.blockSizes[problem.rowIndices[e]],
                               sj = problem.blockSizes[column];
            const double* v = problem.entryValues(e);
            if (keep) {
                for (unsigned long k = 0; k < static_cast<unsigned long>(si) * sj; ++k)
                    o[k] = static_cast<T>(v[k]);
            } else {
                for (unsigned int r = 0; r < sj; ++r)
                    for (unsigned int c = 0; c < si; ++c) o[r * si + c] = static_cast<T>(v[c * sj + r]);
            }
            o += static_cast<unsigned long>(si) * sj;
        }
    }

    SystemStructure structure_;
    bool general_ = false;
    std::vector<unsigned long> bodyEntries_, jacobianEntries_, couplingEntries_;
    std::vector<T> bodies_, jacobians_, couplings_, values_;
};

}  // namespace demo
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_DEMO_SCENE_SYSTEM_H
