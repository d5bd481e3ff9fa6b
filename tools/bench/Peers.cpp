// Peer adapters of the comparison benchmark and the scalar-matrix helpers they share (see Peers.h).
#include "bench/Peers.h"

#include <dlfcn.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#ifdef KIVT_HAVE_CHOLMOD
#include <cholmod.h>
#endif
#ifdef KIVT_HAVE_EIGEN
#include <Eigen/OrderingMethods>
#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>
#endif

namespace kivTamber {
namespace bench {

// ---------------------------------------------------------------------------------------------------------
// Scalar matrices
// ---------------------------------------------------------------------------------------------------------

void ScalarMatrix::multiply(const double* x, double* y) const {
    std::fill(y, y + n, 0.0);
    for (int j = 0; j < n; ++j) {
        const double xj = x[j];
        double yj = 0.0;
        for (int p = colPointers[j]; p < colPointers[j + 1]; ++p) {
            const int i = rowIndices[p];
            const double a = values[p];
            y[i] += a * xj;              // a_ij·x_j
            if (i != j) yj += a * x[i];  // a_ji·x_i, the lower triangle
        }
        y[j] += yj;
    }
}

double ScalarMatrix::normInf() const {
    std::vector<double> rowSum(n, 0.0);
    for (int j = 0; j < n; ++j)
        for (int p = colPointers[j]; p < colPointers[j + 1]; ++p) {
            const int i = rowIndices[p];
            rowSum[i] += std::fabs(values[p]);
            if (i != j) rowSum[j] += std::fabs(values[p]);
        }
    return rowSum.empty() ? 0.0 : *std::max_element(rowSum.begin(), rowSum.end());
}

void scalarMatrixFromProblem(const scenes::BlockProblem& problem, ScalarMatrix& A) {
    const unsigned int N = problem.scalarSize();
    A.n = static_cast<int>(N);
    A.colPointers.assign(N + 1, 0);
    A.rowIndices.clear();
    A.values.clear();
    A.rowIndices.reserve(problem.values.size() / 2 + N);
    A.values.reserve(problem.values.size() / 2 + N);
    for (unsigned int j = 0; j < problem.numBlocks; ++j) {
        const unsigned int sj = problem.blockSizes[j], offj = problem.blockOffsets[j];
        for (unsigned int c = 0; c < sj; ++c) {
            // Column offj + c: the blocks (i, j) in ascending i, each block's rows ascending; in the
            // diagonal block only the rows r ≤ c, the diagonal kept even when it is zero.
            for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
                const unsigned int i = problem.rowIndices[e], si = problem.blockSizes[i];
                const double* v = problem.entryValues(e);
                const unsigned int rows = i == j ? c + 1 : si;
                for (unsigned int r = 0; r < rows; ++r) {
                    const double a = v[r * sj + c];
                    if (a == 0.0 && !(i == j && r == c)) continue;
                    A.rowIndices.push_back(static_cast<int>(problem.blockOffsets[i] + r));
                    A.values.push_back(a);
                }
            }
            A.colPointers[offj + c + 1] = static_cast<int>(A.rowIndices.size());
        }
    }
}

void regularisedCopy(const scenes::BlockProblem& problem, const ScalarMatrix& A, double shift,
                     ScalarMatrix& out) {
    out = A;
    const int first = problem.firstConstraint < problem.numBlocks
                          ? static_cast<int>(problem.blockOffsets[problem.firstConstraint])
                          : A.n;
    for (int j = first; j < A.n; ++j) out.values[out.colPointers[j + 1] - 1] += shift;  // diagonal is last
}

void positiveDefiniteTwin(const ScalarMatrix& A, ScalarMatrix& out) {
    out = A;
    std::vector<double> offSum(A.n, 0.0);
    for (int j = 0; j < A.n; ++j)
        for (int p = A.colPointers[j]; p < A.colPointers[j + 1] - 1; ++p) {
            offSum[A.rowIndices[p]] += std::fabs(A.values[p]);
            offSum[j] += std::fabs(A.values[p]);
        }
    for (int j = 0; j < A.n; ++j) out.values[out.colPointers[j + 1] - 1] = 1.0 + offSum[j];
}

void unitEquationsCopy(const ScalarMatrix& A, const std::vector<int>& equations, ScalarMatrix& out) {
    out = A;
    std::vector<unsigned char> unit(A.n, 0);
    for (int e : equations) unit[e] = 1;
    for (int j = 0; j < A.n; ++j)
        for (int p = A.colPointers[j]; p < A.colPointers[j + 1]; ++p) {
            const int i = A.rowIndices[p];
            if (unit[i] || unit[j]) out.values[p] = i == j ? 1.0 : 0.0;
        }
}

void scalarOrder(const scenes::BlockProblem& problem, const unsigned int* forward, std::vector<int>& order) {
    order.clear();
    order.reserve(problem.scalarSize());
    for (unsigned int k = 0; k < problem.numBlocks; ++k) {
        const unsigned int b = forward[k];
        for (unsigned int t = 0; t < problem.blockSizes[b]; ++t)
            order.push_back(static_cast<int>(problem.blockOffsets[b] + t));
    }
}

double scaledResidual(const ScalarMatrix& A, const double* b, const double* x) {
    std::vector<double> ax(A.n);
    A.multiply(x, ax.data());
    double r = 0.0, nx = 0.0, nb = 0.0;
    for (int k = 0; k < A.n; ++k) {
        if (!std::isfinite(x[k]) || !std::isfinite(ax[k])) return HUGE_VAL;
        r = std::max(r, std::fabs(ax[k] - b[k]));
        nx = std::max(nx, std::fabs(x[k]));
        nb = std::max(nb, std::fabs(b[k]));
    }
    const double denominator = A.normInf() * nx + nb;
    return denominator > 0.0 ? r / denominator : 0.0;
}

bool Peer::refine(const ScalarMatrix& A, const double* b, double* x) {
    r_.resize(A.n);
    delta_.resize(A.n);
    A.multiply(x, r_.data());
    for (int k = 0; k < A.n; ++k) r_[k] = b[k] - r_[k];  // r = b − A·x
    if (!solve(r_.data(), delta_.data())) return false;
    for (int k = 0; k < A.n; ++k) x[k] += delta_[k];
    return true;
}

// ---------------------------------------------------------------------------------------------------------
// CHOLMOD
// ---------------------------------------------------------------------------------------------------------

#ifdef KIVT_HAVE_CHOLMOD
namespace {

const char* cholmodStatus(int status) {
    switch (status) {
        case CHOLMOD_OK:
            return "ok";
        case CHOLMOD_NOT_INSTALLED:
            return "method not installed";
        case CHOLMOD_OUT_OF_MEMORY:
            return "out of memory";
        case CHOLMOD_TOO_LARGE:
            return "integer overflow";
        case CHOLMOD_INVALID:
            return "invalid input";
        case CHOLMOD_GPU_PROBLEM:
            return "GPU problem";
        case CHOLMOD_NOT_POSDEF:
            return "not positive definite";
        case CHOLMOD_DSMALL:
            return "tiny diagonal entry";
        default:
            return "unknown status";
    }
}

// CHOLMOD's simplicial L·D·Lᵀ (supernodal = false) or supernodal L·Lᵀ (true), through its int interface.
// The input matrix is not copied: a cholmod_sparse header points into the caller's ScalarMatrix.
class CholmodPeer : public Peer {
public:
    explicit CholmodPeer(bool supernodal) : supernodal_(supernodal) {
        cholmod_start(&c_);
        c_.print = 0;  // failures are reported through lastError(), not printed
        c_.supernodal = supernodal ? CHOLMOD_SUPERNODAL : CHOLMOD_SIMPLICIAL;
        c_.final_ll = supernodal ? 1 : 0;  // the simplicial factor stays L·D·Lᵀ
    }
    ~CholmodPeer() override {
        if (L_) cholmod_free_factor(&L_, &c_);
        if (X_) cholmod_free_dense(&X_, &c_);
        if (Y_) cholmod_free_dense(&Y_, &c_);
        if (E_) cholmod_free_dense(&E_, &c_);
        if (R_) cholmod_free_sparse(&R_, &c_);
        cholmod_finish(&c_);
    }
    CholmodPeer(const CholmodPeer&) = delete;
    CholmodPeer& operator=(const CholmodPeer&) = delete;

    const char* name() const override {
        return supernodal_ ? "CHOLMOD supernodal LLᵀ" : "CHOLMOD simplicial LDLᵀ";
    }

    bool analyze(const ScalarMatrix& A, PeerOrdering ordering, const int* order) override {
        if (L_) cholmod_free_factor(&L_, &c_);
        view(A);
        c_.nmethods = 1;
        c_.method[0].ordering = ordering == PeerOrdering::given ? CHOLMOD_GIVEN : CHOLMOD_AMD;
        int* perm = ordering == PeerOrdering::given ? const_cast<int*>(order) : nullptr;
        L_ = cholmod_analyze_p(&A_, perm, nullptr, 0, &c_);
        if (!L_ || c_.status != CHOLMOD_OK) return fail("cholmod_analyze_p");
        entries_ = c_.lnz;
        const int* P = static_cast<const int*>(L_->Perm);
        position_.resize(A.n);
        for (int k = 0; k < A.n; ++k) position_[P[k]] = k;  // row P[k] of A is row k of L
        return true;
    }

    bool factor(const ScalarMatrix& A) override {
        view(A);
        if (!cholmod_factorize(&A_, L_, &c_) || c_.status != CHOLMOD_OK) return fail("cholmod_factorize");
        switchedOff_.assign(A.n, 0);
        return true;
    }

    bool solve(const double* b, double* x) override {
        cholmod_dense B;
        std::memset(&B, 0, sizeof(B));
        B.nrow = B.d = B.nzmax = static_cast<size_t>(A_.nrow);
        B.ncol = 1;
        B.x = const_cast<double*>(b);
        B.xtype = CHOLMOD_REAL;
        B.dtype = CHOLMOD_DOUBLE;
        // cholmod_solve2 keeps X, Y and E between calls, so repeated solves do not allocate.
        if (!cholmod_solve2(CHOLMOD_A, L_, &B, nullptr, &X_, nullptr, &Y_, &E_, &c_) ||
            c_.status != CHOLMOD_OK)
            return fail("cholmod_solve2");
        std::memcpy(x, X_->x, A_.nrow * sizeof(double));
        return true;
    }

    double factorEntries() const override { return entries_; }

    bool canModifyRows() const override { return !supernodal_; }

    // The full symmetric columns of A, from which switchOn takes the columns it adds back (the analogue of
    // the row index RankMod builds in its preparation).
    bool prepareModification(const ScalarMatrix& A) override {
        const int n = A.n;
        fullPointers_.assign(n + 1, 0);
        for (int j = 0; j < n; ++j)
            for (int p = A.colPointers[j]; p < A.colPointers[j + 1]; ++p) {
                ++fullPointers_[j + 1];
                if (A.rowIndices[p] != j) ++fullPointers_[A.rowIndices[p] + 1];
            }
        int longest = 0;
        for (int j = 0; j < n; ++j) {
            longest = std::max(longest, fullPointers_[j + 1]);
            fullPointers_[j + 1] += fullPointers_[j];
        }
        fullRows_.resize(fullPointers_[n]);
        fullValues_.resize(fullPointers_[n]);
        std::vector<int> next(fullPointers_.begin(), fullPointers_.end() - 1);
        for (int j = 0; j < n; ++j)
            for (int p = A.colPointers[j]; p < A.colPointers[j + 1]; ++p) {
                const int i = A.rowIndices[p];
                fullRows_[next[j]] = i;
                fullValues_[next[j]++] = A.values[p];
                if (i != j) {
                    fullRows_[next[i]] = j;
                    fullValues_[next[i]++] = A.values[p];
                }
            }
        if (R_) cholmod_free_sparse(&R_, &c_);
        R_ = cholmod_allocate_sparse(n, 1, std::max(longest, 1), 1, 1, 0, CHOLMOD_REAL, &c_);
        if (!R_) return fail("cholmod_allocate_sparse");
        entriesOfR_.reserve(longest);
        return true;
    }

    bool switchOff(const std::vector<int>& equations) override {
        for (int e : equations) {
            if (!cholmod_rowdel(position_[e], nullptr, L_, &c_) || c_.status != CHOLMOD_OK)
                return fail("cholmod_rowdel");
            switchedOff_[e] = 1;
        }
        return true;
    }

    bool switchOn(const ScalarMatrix& A, const std::vector<int>& equations) override {
        if (fullPointers_.size() != static_cast<size_t>(A.n) + 1 && !prepareModification(A)) return false;
        for (int e : equations) {
            // R = column position_[e] of P·A·Pᵀ, without the couplings to switched-off equations.
            switchedOff_[e] = 0;
            entriesOfR_.clear();
            for (int p = fullPointers_[e]; p < fullPointers_[e + 1]; ++p)
                if (!switchedOff_[fullRows_[p]])
                    entriesOfR_.emplace_back(position_[fullRows_[p]], fullValues_[p]);
            std::sort(entriesOfR_.begin(), entriesOfR_.end());
            int* Rp = static_cast<int*>(R_->p);
            int* Ri = static_cast<int*>(R_->i);
            double* Rx = static_cast<double*>(R_->x);
            Rp[0] = 0;
            Rp[1] = static_cast<int>(entriesOfR_.size());
            for (size_t q = 0; q < entriesOfR_.size(); ++q) {
                Ri[q] = entriesOfR_[q].first;
                Rx[q] = entriesOfR_[q].second;
            }
            if (!cholmod_rowadd(position_[e], R_, L_, &c_) || c_.status != CHOLMOD_OK)
                return fail("cholmod_rowadd");
        }
        return true;
    }

private:
    bool fail(const char* what) {
        error_ = std::string(what) + ": " + cholmodStatus(c_.status);
        if (c_.status == CHOLMOD_NOT_POSDEF && L_) error_ += " (column " + std::to_string(L_->minor) + ")";
        return false;
    }

    // Points the sparse header at A (upper triangle, sorted, packed).
    void view(const ScalarMatrix& A) {
        std::memset(&A_, 0, sizeof(A_));
        A_.nrow = A_.ncol = static_cast<size_t>(A.n);
        A_.nzmax = static_cast<size_t>(A.nnz());
        A_.p = const_cast<int*>(A.colPointers.data());
        A_.i = const_cast<int*>(A.rowIndices.data());
        A_.x = const_cast<double*>(A.values.data());
        A_.stype = 1;
        A_.itype = CHOLMOD_INT;
        A_.xtype = CHOLMOD_REAL;
        A_.dtype = CHOLMOD_DOUBLE;
        A_.sorted = 1;
        A_.packed = 1;
    }

    bool supernodal_;
    cholmod_common c_;
    cholmod_sparse A_;
    cholmod_factor* L_ = nullptr;
    cholmod_dense *X_ = nullptr, *Y_ = nullptr, *E_ = nullptr;
    cholmod_sparse* R_ = nullptr;
    double entries_ = 0.0;
    std::vector<int> position_;  // [n] row of L of each row of A
    std::vector<unsigned char> switchedOff_;
    std::vector<int> fullPointers_, fullRows_;
    std::vector<double> fullValues_;
    std::vector<std::pair<int, double>> entriesOfR_;
};

}  // namespace
#endif  // KIVT_HAVE_CHOLMOD

// ---------------------------------------------------------------------------------------------------------
// Eigen
// ---------------------------------------------------------------------------------------------------------

#ifdef KIVT_HAVE_EIGEN
namespace {

typedef Eigen::SparseMatrix<double, Eigen::ColMajor, int> EigenMatrix;

// The order of our analysis as an Eigen ordering. Eigen default-constructs its ordering object inside
// analyzePattern, so the order reaches it through this pointer, set around that call.
thread_local const int* givenOrder = nullptr;

struct GivenOrdering {
    typedef Eigen::PermutationMatrix<Eigen::Dynamic, Eigen::Dynamic, int> PermutationType;
    // Eigen's orderings return the inverse permutation: indices()[k] = the row placed k-th.
    template <typename MatrixType>
    void operator()(const MatrixType& A, PermutationType& perm) {
        perm.resize(static_cast<int>(A.rows()));
        for (int k = 0; k < A.rows(); ++k) perm.indices()[k] = givenOrder[k];
    }
};

// Eigen's SimplicialLDLT on the upper triangle, with its AMD ordering or the given one.
class EigenPeer : public Peer {
public:
    const char* name() const override { return "Eigen SimplicialLDLT"; }

    bool analyze(const ScalarMatrix& A, PeerOrdering ordering, const int* order) override {
        A_ = Eigen::Map<const EigenMatrix>(A.n, A.n, A.nnz(), A.colPointers.data(), A.rowIndices.data(),
                                           A.values.data());
        given_ = ordering == PeerOrdering::given;
        if (given_) {
            givenOrder = order;
            byGiven_.analyzePattern(A_);
            givenOrder = nullptr;
            return check(byGiven_.info(), "analyzePattern");
        }
        byAmd_.analyzePattern(A_);
        return check(byAmd_.info(), "analyzePattern");
    }

    bool factor(const ScalarMatrix& A) override {
        std::copy(A.values.begin(), A.values.end(), A_.valuePtr());  // same pattern, new values
        if (given_) {
            byGiven_.factorize(A_);
            return check(byGiven_.info(), "factorize");
        }
        byAmd_.factorize(A_);
        return check(byAmd_.info(), "factorize");
    }

    bool solve(const double* b, double* x) override {
        const Eigen::Map<const Eigen::VectorXd> bv(b, A_.rows());
        Eigen::Map<Eigen::VectorXd> xv(x, A_.rows());
        if (given_) {
            xv = byGiven_.solve(bv);
            return check(byGiven_.info(), "solve");
        }
        xv = byAmd_.solve(bv);
        return check(byAmd_.info(), "solve");
    }

    double factorEntries() const override {
        // The strict lower triangle is stored; the unit diagonal is implied.
        const double strict = given_ ? byGiven_.matrixL().nestedExpression().nonZeros()
                                     : byAmd_.matrixL().nestedExpression().nonZeros();
        return strict + static_cast<double>(A_.rows());
    }

private:
    bool check(Eigen::ComputationInfo info, const char* what) {
        if (info == Eigen::Success) return true;
        error_ = std::string(what) + ": " +
                 (info == Eigen::NumericalIssue ? "numerical issue (zero pivot)" : "invalid input");
        return false;
    }

    EigenMatrix A_;
    bool given_ = true;
    Eigen::SimplicialLDLT<EigenMatrix, Eigen::Upper, GivenOrdering> byGiven_;
    Eigen::SimplicialLDLT<EigenMatrix, Eigen::Upper, Eigen::AMDOrdering<int>> byAmd_;
};

}  // namespace
#endif  // KIVT_HAVE_EIGEN

// ---------------------------------------------------------------------------------------------------------
// Registry
// ---------------------------------------------------------------------------------------------------------

std::vector<std::string> availablePeerLibraries() {
    std::vector<std::string> names;
#ifdef KIVT_HAVE_CHOLMOD
    names.push_back("CHOLMOD");
#endif
#ifdef KIVT_HAVE_EIGEN
    names.push_back("Eigen");
#endif
    return names;
}

std::vector<std::string> missingPeerLibraries() {
    std::vector<std::string> names;
#ifndef KIVT_HAVE_CHOLMOD
    names.push_back("CHOLMOD (libsuitesparse-dev)");
#endif
#ifndef KIVT_HAVE_EIGEN
    names.push_back("Eigen (libeigen3-dev)");
#endif
    return names;
}

std::string blasLibrary() {
#ifdef KIVT_HAVE_CHOLMOD
    void* symbol = dlsym(RTLD_DEFAULT, "dgemm_");
    Dl_info info;
    if (!symbol || !dladdr(symbol, &info) || !info.dli_fname) return std::string();
    char resolved[PATH_MAX];
    return realpath(info.dli_fname, resolved) ? std::string(resolved) : std::string(info.dli_fname);
#else
    return std::string();
#endif
}

std::vector<PeerEntry> makePeers() {
    std::vector<PeerEntry> peers;
#ifdef KIVT_HAVE_CHOLMOD
    peers.push_back(PeerEntry{std::unique_ptr<Peer>(new CholmodPeer(false)), false});
    peers.push_back(PeerEntry{std::unique_ptr<Peer>(new CholmodPeer(true)), true});
#endif
#ifdef KIVT_HAVE_EIGEN
    peers.push_back(PeerEntry{std::unique_ptr<Peer>(new EigenPeer()), false});
#endif
    return peers;
}

}  // namespace bench
}  // namespace kivTamber
