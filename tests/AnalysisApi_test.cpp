// The user-facing analysis: every ordering satisfies the safe-order rule and leaves permutation, filled
// skeleton, tree and matrix layout consistent (against dense symbolic elimination); on saddle-point systems
// with physical Jacobians (rigid bodies with 3-row point contacts, particles with 1-row distance constraints,
// J of full row rank) the factorization meets no zero pivot, has one negative pivot per constraint row and
// solves to a small residual, while the unrepaired symamd + zero-leaf swap order breaks down; fill against
// symamd with the repair; every input error with its message and the data unchanged; the assembly round trip;
// allocation-free reuse; a real KKT matrix.
#include <gtest/gtest.h>
#include <kiv/ByteAllocator.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Analysis.h"
#include "Reordering.h"
#include "Tamber.h"
#include "testing/BlockSystems.h"
#include "testing/DenseReference.h"
#include "testing/Patterns.h"

using namespace kivTamber;
namespace kt = kivTamber::testing;
using Analysis::Ordering;

namespace {

// ---------------------------------------------------------------------------------------------------------
// Saddle-point systems with physical Jacobians.
// ---------------------------------------------------------------------------------------------------------

// A problem in the user's numbering (bodies, then constraints) with its dense twin.
struct Saddle {
    kt::BlockSystem sys;  // sizes, offsets, lowerRows, dense (user numbering)
    unsigned int firstConstraint = 0;
    unsigned int constraintRows = 0;
    std::vector<unsigned int> colPointers, rowIndices;
    std::vector<double> values;  // per entry (i, j): A(i, j), s_i × s_j row-major
    std::vector<unsigned long> valuePointers;

    Analysis::Problem problem() const {
        return Analysis::Problem{sys.nb, firstConstraint, colPointers.data(), rowIndices.data(),
                                 sys.sizes.data()};
    }
};

enum class Kind { contacts, particles, mixed };

using Vec3 = std::array<double, 3>;

Vec3 cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

// Builds the saddle system from body sizes (6 rigid, 3 particle), body masses M_b and constraint rows: each
// constraint is a list of (body, s_c × s_b row-major block). Bodies may couple (coupling list).
struct Builder {
    std::vector<unsigned int> bodySize;
    std::vector<std::vector<double>> mass;  // s_b × s_b
    struct Constraint {
        unsigned int rows;
        std::vector<std::pair<unsigned int, std::vector<double>>> blocks;
    };
    std::vector<Constraint> constraints;
    std::vector<std::pair<unsigned int, unsigned int>> couplings;  // body pairs (a < b), random values
    std::vector<std::vector<double>> basis;                        // orthonormal rows of J accepted so far
    unsigned int dofs = 0;
    std::vector<unsigned int> dofOffset;

    // Adds the constraint when its rows keep J of full row rank (Gram–Schmidt against the accepted rows).
    bool tryAdd(const Constraint& c) {
        std::vector<std::vector<double>> added;
        for (unsigned int r = 0; r < c.rows; ++r) {
            std::vector<double> row(dofs, 0.0);
            for (const auto& blk : c.blocks) {
                const unsigned int s = bodySize[blk.first];
                for (unsigned int q = 0; q < s; ++q) row[dofOffset[blk.first] + q] = blk.second[r * s + q];
            }
            const double norm0 = std::sqrt(std::inner_product(row.begin(), row.end(), row.begin(), 0.0));
            for (int pass = 0; pass < 2; ++pass) {
                for (const auto* set : {&basis, &added}) {
                    for (const auto& b : *set) {
                        const double d = std::inner_product(row.begin(), row.end(), b.begin(), 0.0);
                        for (unsigned int q = 0; q < dofs; ++q) row[q] -= d * b[q];
                    }
                }
            }
            const double norm = std::sqrt(std::inner_product(row.begin(), row.end(), row.begin(), 0.0));
            if (norm < 1e-3 * norm0) return false;
            for (double& x : row) x /= norm;
            added.push_back(row);
        }
        basis.insert(basis.end(), added.begin(), added.end());
        constraints.push_back(c);
        return true;
    }

    void addBody(unsigned int size, std::mt19937_64& rng) {
        std::uniform_real_distribution<double> u(-1.0, 1.0);
        bodySize.push_back(size);
        dofOffset.push_back(dofs);
        dofs += size;
        std::vector<double> m(size * size, 0.0);
        const double mass0 = 1.0 + 0.5 * (u(rng) + 1.0);
        for (unsigned int q = 0; q < 3; ++q) m[q * size + q] = mass0;
        if (size == 6) {  // inertia R·diag·Rᵀ: a random SPD 3×3 block
            double g[9];
            for (double& x : g) x = u(rng);
            for (unsigned int r = 0; r < 3; ++r) {
                for (unsigned int c = 0; c < 3; ++c) {
                    double v = r == c ? 0.3 : 0.0;
                    for (unsigned int k = 0; k < 3; ++k) v += 0.2 * g[r * 3 + k] * g[c * 3 + k];
                    m[(3 + r) * 6 + 3 + c] = v;
                }
            }
        }
        mass.push_back(m);
    }

    Saddle build(std::mt19937_64& rng) const {
        Saddle s;
        const unsigned int nb = static_cast<unsigned int>(bodySize.size());
        const unsigned int n = nb + static_cast<unsigned int>(constraints.size());
        s.firstConstraint = nb;
        kt::BlockSystem& sys = s.sys;
        sys.nb = n;
        sys.sizes = bodySize;
        for (const Constraint& c : constraints) {
            sys.sizes.push_back(c.rows);
            s.constraintRows += c.rows;
        }
        sys.offsets.assign(n + 1, 0);
        for (unsigned int b = 0; b < n; ++b) sys.offsets[b + 1] = sys.offsets[b] + sys.sizes[b];
        sys.N = sys.offsets[n];
        sys.dense = kt::DenseSymmetric(sys.N);
        sys.isConstraint.assign(n, 0);
        sys.lowerRows.assign(n, {});
        std::uniform_real_distribution<double> u(-0.3, 0.3);
        std::vector<double> rowSum(sys.N, 0.0);
        for (const auto& cp : couplings) {  // M stays SPD: the diagonal below dominates the couplings
            sys.lowerRows[cp.second].push_back(cp.first);
            for (unsigned int r = 0; r < bodySize[cp.first]; ++r) {
                for (unsigned int c = 0; c < bodySize[cp.second]; ++c) {
                    const double v = u(rng);
                    sys.dense.setSymmetric(sys.offsets[cp.first] + r, sys.offsets[cp.second] + c, v);
                    rowSum[sys.offsets[cp.first] + r] += std::fabs(v);
                    rowSum[sys.offsets[cp.second] + c] += std::fabs(v);
                }
            }
        }
        for (unsigned int b = 0; b < nb; ++b) {
            const unsigned int sb = bodySize[b], o = sys.offsets[b];
            for (unsigned int r = 0; r < sb; ++r) {
                double off = 0.0;
                for (unsigned int c = 0; c < sb; ++c) off += r == c ? 0.0 : std::fabs(mass[b][r * sb + c]);
                for (unsigned int c = 0; c < sb; ++c) sys.dense(o + r, o + c) = mass[b][r * sb + c];
                sys.dense(o + r, o + r) += rowSum[o + r] + off;
            }
        }
        for (unsigned int k = 0; k < constraints.size(); ++k) {
            const unsigned int c = nb + k, oc = sys.offsets[c];
            sys.isConstraint[c] = 1;
            for (const auto& blk : constraints[k].blocks) {
                sys.lowerRows[c].push_back(blk.first);
                const unsigned int sb = bodySize[blk.first], ob = sys.offsets[blk.first];
                for (unsigned int r = 0; r < constraints[k].rows; ++r) {
                    for (unsigned int q = 0; q < sb; ++q)
                        sys.dense.setSymmetric(oc + r, ob + q, blk.second[r * sb + q]);
                }
            }
        }
        for (auto& row : sys.lowerRows) std::sort(row.begin(), row.end());
        for (unsigned int j = 0; j < n; ++j) {
            s.colPointers.push_back(static_cast<unsigned int>(s.rowIndices.size()));
            std::vector<unsigned int> list = sys.lowerRows[j];
            list.push_back(j);
            for (unsigned int i : list) {
                s.rowIndices.push_back(i);
                s.valuePointers.push_back(s.values.size());
                for (unsigned int r = 0; r < sys.sizes[i]; ++r) {
                    for (unsigned int c = 0; c < sys.sizes[j]; ++c)
                        s.values.push_back(sys.dense(sys.offsets[i] + r, sys.offsets[j] + c));
                }
            }
        }
        s.colPointers.push_back(static_cast<unsigned int>(s.rowIndices.size()));
        return s;
    }
};

// Random orthonormal frame, row-major (rows n, t1, t2).
std::array<double, 9> randomFrame(std::mt19937_64& rng) {
    std::normal_distribution<double> g;
    std::array<double, 9> f{};
    for (unsigned int r = 0; r < 3; ++r) {
        Vec3 v{g(rng), g(rng), g(rng)};
        for (unsigned int q = 0; q < r; ++q) {
            const double d = v[0] * f[q * 3] + v[1] * f[q * 3 + 1] + v[2] * f[q * 3 + 2];
            for (unsigned int k = 0; k < 3; ++k) v[k] -= d * f[q * 3 + k];
        }
        const double norm = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (unsigned int k = 0; k < 3; ++k) f[r * 3 + k] = v[k] / norm;
    }
    return f;
}

// Point-contact block of a rigid body at lever arm r, frame D (rows = directions): [ ±Dᵀ  ∓Dᵀ[r]× ] with
// the rows of D as the three directions d: row = (sign·d, sign·(r × d)).
std::vector<double> contactBlock(const std::array<double, 9>& D, const Vec3& r, double sign) {
    std::vector<double> b(18);
    for (unsigned int k = 0; k < 3; ++k) {
        const Vec3 d{D[k * 3], D[k * 3 + 1], D[k * 3 + 2]};
        const Vec3 rd = cross(r, d);
        for (unsigned int q = 0; q < 3; ++q) {
            b[k * 6 + q] = sign * d[q];
            b[k * 6 + 3 + q] = sign * rd[q];
        }
    }
    return b;
}

Saddle makeSaddle(Kind kind, unsigned long seed, bool bodyCouplings = false) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    Builder b;
    const unsigned int rigid = kind == Kind::particles ? 0 : 3 + seed % 6;
    const unsigned int particles = kind == Kind::contacts ? 0 : 5 + seed % 9;
    std::vector<Vec3> position;
    for (unsigned int k = 0; k < rigid + particles; ++k) {
        b.addBody(k < rigid ? 6 : 3, rng);
        position.push_back({2.0 * k + 0.3 * u(rng), u(rng), u(rng)});
    }
    const unsigned int nb = rigid + particles;
    const unsigned int attempts = 3 * nb;
    for (unsigned int t = 0; t < attempts; ++t) {
        const unsigned int a = static_cast<unsigned int>(rng() % nb);
        unsigned int c = static_cast<unsigned int>(rng() % (nb + 1));  // nb: the world
        if (c == a) c = nb;
        Builder::Constraint con;
        if (b.bodySize[a] == 3 && (c == nb || b.bodySize[c] == 3)) {
            // 1-row distance constraint between particles (or to a world anchor): ±dᵀ.
            Vec3 d{u(rng), u(rng), u(rng)};
            const double norm = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
            for (double& x : d) x /= norm;
            con.rows = 1;
            con.blocks.push_back({a, {d[0], d[1], d[2]}});
            if (c != nb) con.blocks.push_back({c, {-d[0], -d[1], -d[2]}});
        } else {
            // 3-row point contact (or a particle attached to a rigid body at a point).
            const std::array<double, 9> D = randomFrame(rng);
            const Vec3 p{position[a][0] + 0.5 * u(rng), position[a][1] + 0.5 * u(rng),
                         position[a][2] + 0.5 * u(rng)};
            con.rows = 3;
            for (unsigned int body : {a, c}) {
                if (body == nb) continue;
                const double sign = body == a ? 1.0 : -1.0;
                if (b.bodySize[body] == 6) {
                    const Vec3 r{p[0] - position[body][0], p[1] - position[body][1],
                                 p[2] - position[body][2]};
                    con.blocks.push_back({body, contactBlock(D, r, sign)});
                } else {
                    con.blocks.push_back({body,
                                          {sign * D[0], sign * D[1], sign * D[2], sign * D[3], sign * D[4],
                                           sign * D[5], sign * D[6], sign * D[7], sign * D[8]}});
                }
            }
        }
        std::sort(con.blocks.begin(), con.blocks.end(),
                  [](const auto& x, const auto& y) { return x.first < y.first; });
        b.tryAdd(con);
    }
    if (bodyCouplings) {
        for (unsigned int t = 0; t < nb / 2; ++t) {
            const unsigned int x = static_cast<unsigned int>(rng() % nb),
                               y = static_cast<unsigned int>(rng() % nb);
            if (x != y && std::find(b.couplings.begin(), b.couplings.end(),
                                    std::make_pair(std::min(x, y), std::max(x, y))) == b.couplings.end())
                b.couplings.push_back({std::min(x, y), std::max(x, y)});
        }
    }
    return b.build(rng);
}

// The system in elimination order (for loading an order the analysis would refuse).
kt::BlockSystem permuted(const kt::BlockSystem& s, const unsigned int* forward) {
    kt::BlockSystem p;
    p.nb = s.nb;
    std::vector<unsigned int> inverse(s.nb);
    for (unsigned int k = 0; k < s.nb; ++k) {
        inverse[forward[k]] = k;
        p.sizes.push_back(s.sizes[forward[k]]);
        p.isConstraint.push_back(s.isConstraint[forward[k]]);
    }
    p.offsets.assign(s.nb + 1, 0);
    for (unsigned int k = 0; k < s.nb; ++k) p.offsets[k + 1] = p.offsets[k] + p.sizes[k];
    p.N = s.N;
    p.dense = kt::DenseSymmetric(s.N);
    for (unsigned int k = 0; k < s.nb; ++k) {
        for (unsigned int l = 0; l < s.nb; ++l) {
            for (unsigned int r = 0; r < p.sizes[k]; ++r) {
                for (unsigned int c = 0; c < p.sizes[l]; ++c)
                    p.dense(p.offsets[k] + r, p.offsets[l] + c) =
                        s.dense(s.offsets[forward[k]] + r, s.offsets[forward[l]] + c);
            }
        }
    }
    p.lowerRows.assign(s.nb, {});
    for (unsigned int i = 0; i < s.nb; ++i) {
        for (unsigned int j : s.lowerRows[i]) {
            const unsigned int a = inverse[i], b = inverse[j];
            p.lowerRows[std::max(a, b)].push_back(std::min(a, b));
        }
    }
    for (auto& row : p.lowerRows) std::sort(row.begin(), row.end());
    return p;
}

// Pivot summary of a factored data object.
struct Pivots {
    unsigned int negative = 0;
    double smallest = INFINITY;  // min |d|
    bool finite = true;
};

template <typename T>
Pivots pivotsOf(const TamberData<T>& data) {
    Pivots p;
    for (unsigned long k = 0; k < data.diagonal.size; ++k) {
        const double d = data.diagonal.data[k];
        p.finite = p.finite && std::isfinite(d);
        p.negative += d < 0 ? 1 : 0;
        p.smallest = std::min(p.smallest, std::fabs(d));
    }
    return p;
}

const Ordering kOrderings[] = {Ordering::standard, Ordering::symamdSwap, Ordering::natural};

const char* nameOf(Ordering o) {
    return o == Ordering::standard ? "standard" : o == Ordering::symamdSwap ? "symamdSwap" : "natural";
}

// data holds what analyze promises: permutation and its inverse, the filled pattern of the permuted pattern
// (dense symbolic elimination), the elimination tree read off it with a valid post order, and the matrix
// laid out on the permuted pattern with the permuted sizes.
template <typename T>
void expectConsistent(const Saddle& s, const TamberData<T>& data) {
    const unsigned int n = s.sys.nb;
    const Permutation& P = data.permutation;
    ASSERT_EQ(P.size, n);
    for (unsigned int k = 0; k < n; ++k) ASSERT_EQ(P.inverse[P.forward[k]], k);
    const kt::BlockPattern pattern = kt::permutePattern(s.sys.pattern(), P.forward);
    const kt::BlockPattern filled = kt::symbolicFactor(pattern);
    ASSERT_EQ(kt::checkSkeletonForm(data.skeleton), "");
    ASSERT_TRUE(kt::fromSkeleton(data.skeleton) == filled);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int e = data.skeleton.colPointers[i]; e < data.skeleton.colPointers[i + 1]; ++e)
            ASSERT_EQ(data.skeleton.fillFlags[e], pattern(i, data.skeleton.rowIndices[e]) ? 0 : 1);
    }
    const std::vector<unsigned int> parent = kt::eliminationParent(filled);
    ASSERT_EQ(data.etree.numNodes, n);
    for (unsigned int j = 0; j < n; ++j) {
        ASSERT_EQ(data.etree.parent[j], parent[j]);
        if (parent[j] != j) {
            ASSERT_LT(data.etree.postOrder[j], data.etree.postOrder[parent[j]]);
        }
        for (unsigned int c = data.etree.firstChild[j]; c != Tree::noNode; c = data.etree.sibling[c])
            ASSERT_EQ(parent[c], j);
    }
    const SparseMatrix<T>& A = data.matrix;
    ASSERT_EQ(A.numBlockCols, n);
    ASSERT_EQ(A.numBlocks, pattern.numUpperEntries());
    for (unsigned int c = 0; c < n; ++c) {
        ASSERT_EQ(A.blockSizes[c], s.sys.sizes[P.forward[c]]);
        std::vector<unsigned int> expected;
        for (unsigned int r = 0; r <= c; ++r) {
            if (pattern(r, c) || r == c) expected.push_back(r);
        }
        ASSERT_EQ(
            std::vector<unsigned int>(A.rowIndices + A.colPointers[c], A.rowIndices + A.colPointers[c + 1]),
            expected);
    }
    ASSERT_EQ(data.isFactored, 0);
}

// Every constraint after all of its bodies.
bool allConstraintsAfterTheirBodies(const Saddle& s, const unsigned int* forward) {
    std::vector<unsigned int> inverse(s.sys.nb);
    for (unsigned int k = 0; k < s.sys.nb; ++k) inverse[forward[k]] = k;
    for (unsigned int c = s.firstConstraint; c < s.sys.nb; ++c) {
        for (unsigned int b : s.sys.lowerRows[c]) {
            if (b < s.firstConstraint && inverse[b] > inverse[c]) return false;
        }
    }
    return true;
}

struct SeedCase {
    Kind kind;
    unsigned long seed;
    bool couplings;
};

std::vector<SeedCase> seedCases(unsigned long count) {
    std::vector<SeedCase> v;
    for (unsigned long seed = 0; seed < count; ++seed)
        v.push_back({static_cast<Kind>(seed % 3), seed, seed % 5 == 4});
    return v;
}

// ---------------------------------------------------------------------------------------------------------
// Orders, structure and numbers on the generated systems.
// ---------------------------------------------------------------------------------------------------------

TEST(AnalysisApi, EveryOrderingSatisfiesTheRuleAndFactorsWithoutZeroPivots) {
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    unsigned long repaired = 0, peeled = 0;
    for (const SeedCase& sc : seedCases(90)) {
        const Saddle s = makeSaddle(sc.kind, sc.seed, sc.couplings);
        const Analysis::Problem problem = s.problem();
        for (Ordering ordering : kOrderings) {
            for (bool peel : {true, false}) {
                SCOPED_TRACE("seed " + std::to_string(sc.seed) + " " + nameOf(ordering) +
                             (peel ? "" : " no peel") + " " + kt::describe(s.sys));
                Analysis::Options options;
                options.ordering = ordering;
                options.peel = peel;
                options.nestedDissectionThreshold =
                    sc.seed % 2 ? 0.0 : 5e7;  // exercise nested dissection too
                const Analysis::Report report = analyzer.analyze(problem, options, data);
                ASSERT_TRUE(report.ok) << report.message;
                ASSERT_EQ(report.message, "");
                std::string why;
                ASSERT_TRUE(Analysis::checkOrder(problem, data.permutation.forward, &why, peel)) << why;
                ASSERT_TRUE(peel || allConstraintsAfterTheirBodies(s, data.permutation.forward));
                expectConsistent(s, data);
                repaired += report.movedConstraints;
                peeled += report.peeledBlocks;

                // The cost the report gives is the one of the filled pattern and of the prediction.
                std::vector<unsigned int> sizes(s.sys.nb);
                for (unsigned int k = 0; k < s.sys.nb; ++k)
                    sizes[k] = s.sys.sizes[data.permutation.forward[k]];
                const Analysis::FactorCost fromPattern = Analysis::factorCost(data.skeleton, sizes.data());
                const Analysis::FactorCost predicted =
                    Analysis::predictCost(problem, data.permutation.forward);
                ASSERT_EQ(report.cost.scalarEntries, fromPattern.scalarEntries);
                ASSERT_EQ(report.cost.blockEntries, data.skeleton.numEntries());
                ASSERT_EQ(predicted.scalarEntries, fromPattern.scalarEntries);
                ASSERT_DOUBLE_EQ(predicted.flops, report.cost.flops);

                analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
                tamber.estimateWork(data, nullptr);
                tamber.factorSerial(data);
                const Pivots pv = pivotsOf(data);
                ASSERT_TRUE(pv.finite);
                ASSERT_GT(pv.smallest, 1e-8);
                ASSERT_EQ(pv.negative, s.constraintRows);

                const std::vector<double> b = kt::randomVector(s.sys.N, sc.seed);
                std::vector<double> bp(s.sys.N), xp(s.sys.N), x(s.sys.N);
                analyzer.permuteVector(b.data(), bp.data());
                ASSERT_TRUE(tamber.solve(data, bp.data(), xp.data()));
                analyzer.unpermuteVector(xp.data(), x.data());
                ASSERT_LT(kt::scaledResidual(s.sys.dense, x.data(), b.data()), 1e-13);
            }
        }
    }
    EXPECT_GT(repaired, 0u);  // the repair had work to do
    EXPECT_GT(peeled, 0u);
}

// Random user orders: accepted exactly when the checker passes them; repaired ones always are, and factor.
TEST(AnalysisApi, RandomUserOrdersAreAcceptedExactlyWhenTheySatisfyTheRule) {
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Tamber tamber;
    unsigned int accepted = 0, rejected = 0;
    for (const SeedCase& sc : seedCases(60)) {
        SCOPED_TRACE("seed " + std::to_string(sc.seed));
        const Saddle s = makeSaddle(sc.kind, sc.seed, sc.couplings);
        std::vector<unsigned int> order(s.sys.nb);
        std::iota(order.begin(), order.end(), 0u);
        std::mt19937_64 rng(sc.seed);
        std::shuffle(order.begin(), order.end(), rng);
        Analysis::Options options;
        options.ordering = Ordering::user;
        options.userOrder = order.data();
        for (int attempt = 0; attempt < 2; ++attempt) {
            std::string why;
            const bool legal = Analysis::checkOrder(s.problem(), order.data(), &why);
            const Analysis::Report r = analyzer.analyze(s.problem(), options, data);
            ASSERT_EQ(r.ok, legal) << r.message;
            if (!r.ok) {
                ++rejected;
                EXPECT_EQ(r.message, why);
                ASSERT_TRUE(Analysis::repairOrder(s.problem(), order.data()));  // and try again
                continue;
            }
            ++accepted;
            ASSERT_EQ(
                std::vector<unsigned int>(data.permutation.forward, data.permutation.forward + s.sys.nb),
                order);
            analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
            tamber.factorSerial(data);
            const Pivots pv = pivotsOf(data);
            ASSERT_TRUE(pv.finite);
            ASSERT_GT(pv.smallest, 1e-8);
            ASSERT_EQ(pv.negative, s.constraintRows);
            break;
        }
    }
    EXPECT_EQ(accepted, 60u);
    EXPECT_GT(rejected, 40u);
}

// symamd followed by the zero-leaf swap, without the repair. On these systems it breaks the
// rule and meets (numerically) zero pivots; every order it yields that does satisfy the rule factors well.
TEST(AnalysisApi, UnrepairedSymamdSwapMeetsZeroPivots) {
    SkeletonMatrix S, T;
    EliminationTree tree;
    Permutation P;
    ScratchPad pad;
    Tamber tamber;
    unsigned int broken = 0, singular = 0;
    for (const SeedCase& sc : seedCases(90)) {
        SCOPED_TRACE("seed " + std::to_string(sc.seed));
        const Saddle s = makeSaddle(sc.kind, sc.seed, sc.couplings);
        s.sys.buildSkeleton(S);
        ASSERT_TRUE(Reordering::computeSymamdPermutation(S, P, pad));
        if (!Reordering::zeroLeafSwap(S, T, tree, s.firstConstraint, P, pad)) continue;
        const bool legal = Analysis::checkOrder(s.problem(), P.forward);
        const kt::BlockSystem ps = permuted(s.sys, P.forward);
        TamberData<double> data;
        ps.fillData(data);
        tamber.factorSerial(data);
        const Pivots pv = pivotsOf(data);
        const bool bad = !pv.finite || pv.smallest < 1e-10 || pv.negative != s.constraintRows;
        if (legal) {
            EXPECT_FALSE(bad) << "an order that satisfies the rule broke down";
        } else {
            ++broken;
            singular += bad ? 1 : 0;
        }
    }
    EXPECT_GT(broken, 60u);    // measured: 89 of 90
    EXPECT_GT(singular, 60u);  // measured: all 89 of them
}

// The repair by hand. Bodies 0, 1, 2; constraint 3 couples to bodies 0 and 1, constraint 4 to bodies 0 and 2.
// In the order 3, 0, 4, 1, 2 constraint 3 leads (it breaks the rule) while 4 follows body 0 by rule R. Moving
// 3 behind its last body 1 takes R away from 4 (body 0's other constraint now comes later), so a second
// round moves 4 behind body 2.
TEST(AnalysisApi, RepairMovesConstraintsRoundAfterRound) {
    const std::vector<unsigned int> colPointers{0, 1, 2, 3, 6, 9};
    const std::vector<unsigned int> rowIndices{0, 1, 2, 0, 1, 3, 0, 2, 4};
    const std::vector<unsigned int> sizes{6, 6, 6, 3, 3};
    const Analysis::Problem problem{5, 3, colPointers.data(), rowIndices.data(), sizes.data()};
    std::vector<unsigned int> order{3, 0, 4, 1, 2};
    std::string why;
    EXPECT_FALSE(Analysis::checkOrder(problem, order.data(), &why));
    EXPECT_EQ(
        why,
        "order: constraint block 3 (position 0) precedes its body block 1 (position 3) and does not directly "
        "follow one of its bodies; place it after all its bodies, or directly after a body whose last "
        "constraint it is");
    unsigned long moved = 0;
    ASSERT_TRUE(Analysis::repairOrder(problem, order.data(), &moved, &why));
    EXPECT_EQ(order, (std::vector<unsigned int>{0, 1, 3, 2, 4}));
    EXPECT_EQ(moved, 2u);
    EXPECT_TRUE(Analysis::checkOrder(problem, order.data(), &why)) << why;

    // In 2, 4, 0, 1, 3 constraint 4 follows body 2 by rule R; with R disallowed it moves behind body 0.
    order = {2, 4, 0, 1, 3};
    EXPECT_TRUE(Analysis::checkOrder(problem, order.data(), &why));
    EXPECT_FALSE(Analysis::checkOrder(problem, order.data(), &why, false));
    ASSERT_TRUE(Analysis::repairOrder(problem, order.data(), &moved, &why, false));
    EXPECT_EQ(order, (std::vector<unsigned int>{2, 0, 4, 1, 3}));
    EXPECT_EQ(moved, 1u);

    // Bad input is reported, the order left alone.
    order = {0, 0, 1, 2, 3};
    EXPECT_FALSE(Analysis::repairOrder(problem, order.data(), &moved, &why));
    EXPECT_EQ(why, "order: block 0 is placed twice (positions 0 and 1)");
    EXPECT_EQ(order, (std::vector<unsigned int>{0, 0, 1, 2, 3}));
}

// ---------------------------------------------------------------------------------------------------------
// Fill on grid-like and pile-like patterns.
// ---------------------------------------------------------------------------------------------------------

struct PatternProblem {
    std::vector<unsigned int> colPointers, rowIndices, sizes;
    unsigned int firstConstraint = 0;
    Analysis::Problem problem() const {
        return Analysis::Problem{static_cast<unsigned int>(sizes.size()), firstConstraint, colPointers.data(),
                                 rowIndices.data(), sizes.data()};
    }
};

// bodies of size bodySize, constraints (rows, bodies) after them.
PatternProblem patternOf(unsigned int bodies, unsigned int bodySize,
                         const std::vector<std::pair<unsigned int, std::vector<unsigned int>>>& constraints) {
    PatternProblem p;
    p.firstConstraint = bodies;
    for (unsigned int b = 0; b < bodies; ++b) {
        p.colPointers.push_back(b);
        p.rowIndices.push_back(b);
        p.sizes.push_back(bodySize);
    }
    for (const auto& c : constraints) {
        const unsigned int j = static_cast<unsigned int>(p.sizes.size());
        p.colPointers.push_back(static_cast<unsigned int>(p.rowIndices.size()));
        std::vector<unsigned int> list = c.second;
        std::sort(list.begin(), list.end());
        for (unsigned int b : list) p.rowIndices.push_back(b);
        p.rowIndices.push_back(j);
        p.sizes.push_back(c.first);
    }
    p.colPointers.push_back(static_cast<unsigned int>(p.rowIndices.size()));
    return p;
}

// A side × side particle grid with 1-row constraints on the edges and one diagonal per square.
PatternProblem clothPattern(unsigned int side) {
    std::vector<std::pair<unsigned int, std::vector<unsigned int>>> c;
    for (unsigned int y = 0; y < side; ++y) {
        for (unsigned int x = 0; x < side; ++x) {
            const unsigned int v = y * side + x;
            if (x + 1 < side) c.push_back({1, {v, v + 1}});
            if (y + 1 < side) c.push_back({1, {v, v + side}});
            if (x + 1 < side && y + 1 < side)
                c.push_back({1, (x + y) % 2 ? std::vector<unsigned int>{v, v + side + 1}
                                            : std::vector<unsigned int>{v + 1, v + side}});
        }
    }
    return patternOf(side * side, 3, c);
}

// nx × ny × nz boxes with 3-row contacts on the ground, on the box below and against the +x, +y neighbours.
PatternProblem pilePattern(unsigned int nx, unsigned int ny, unsigned int nz) {
    std::vector<std::pair<unsigned int, std::vector<unsigned int>>> c;
    auto id = [=](unsigned int x, unsigned int y, unsigned int z) { return (z * ny + y) * nx + x; };
    for (unsigned int z = 0; z < nz; ++z) {
        for (unsigned int y = 0; y < ny; ++y) {
            for (unsigned int x = 0; x < nx; ++x) {
                const unsigned int a = id(x, y, z);
                c.push_back({3, z == 0 ? std::vector<unsigned int>{a}
                                       : std::vector<unsigned int>{id(x, y, z - 1), a}});
                if (x + 1 < nx) c.push_back({3, {a, id(x + 1, y, z)}});
                if (y + 1 < ny) c.push_back({3, {a, id(x, y + 1, z)}});
            }
        }
    }
    return patternOf(nx * ny * nz, 6, c);
}

TEST(AnalysisApi, StandardOrderingFillsNoMoreThanRepairedSymamd) {
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    const PatternProblem cases[] = {clothPattern(8),      clothPattern(16),     clothPattern(24),
                                    pilePattern(4, 4, 3), pilePattern(8, 8, 2), pilePattern(6, 6, 6)};
    for (const PatternProblem& p : cases) {
        SCOPED_TRACE("blocks " + std::to_string(p.sizes.size()));
        Analysis::Options standard, repaired;
        repaired.ordering = Ordering::symamdSwap;
        const Analysis::Report a = analyzer.analyze(p.problem(), standard, data);
        ASSERT_TRUE(a.ok) << a.message;
        const Analysis::Report b = analyzer.analyze(p.problem(), repaired, data);
        ASSERT_TRUE(b.ok) << b.message;
        EXPECT_LE(a.cost.scalarEntries, b.cost.scalarEntries);
        EXPECT_LE(a.cost.flops, b.cost.flops);
        EXPECT_GT(b.movedConstraints, 0u);
    }
}

// Peeling never makes fill: a chain is placed completely; a constraint on six bodies, each of which has no
// other neighbour, waits until only two of its bodies are left (placing it earlier would join the others).
TEST(AnalysisApi, PeelingMakesNoFill) {
    std::vector<std::pair<unsigned int, std::vector<unsigned int>>> joints{{3, {0}}};
    for (unsigned int k = 1; k < 20; ++k) joints.push_back({3, {k - 1, k}});
    const PatternProblem chain = patternOf(20, 6, joints);
    const PatternProblem star = patternOf(6, 3, {{1, {0, 1, 2, 3, 4, 5}}});
    for (const PatternProblem* p : {&chain, &star}) {
        Analysis::Analyzer analyzer;
        TamberData<float> data;
        const Analysis::Report r = analyzer.analyze(p->problem(), Analysis::Options(), data);
        ASSERT_TRUE(r.ok) << r.message;
        EXPECT_EQ(r.peeledBlocks, p->sizes.size());
        for (unsigned long e = 0; e < data.skeleton.numEntries(); ++e)
            EXPECT_EQ(data.skeleton.fillFlags[e], 0);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Input errors: the message, and nothing changed.
// ---------------------------------------------------------------------------------------------------------

// 3 bodies and 2 constraints: constraint 3 couples to bodies 0 and 1, constraint 4 to bodies 1 and 2.
struct Small {
    std::vector<unsigned int> colPointers{0, 1, 2, 3, 6, 9};
    std::vector<unsigned int> rowIndices{0, 1, 2, 0, 1, 3, 1, 2, 4};
    std::vector<unsigned int> sizes{6, 6, 3, 3, 1};
    unsigned int firstConstraint = 3;
    Analysis::Problem problem() const {
        return Analysis::Problem{static_cast<unsigned int>(sizes.size()), firstConstraint, colPointers.data(),
                                 rowIndices.data(), sizes.data()};
    }
};

struct Snapshot {
    std::vector<unsigned int> forward, inverse, rows, cols, parent, order;
    const void* values;
    unsigned long blocks;
    unsigned char factored;

    template <typename T>
    static Snapshot of(const TamberData<T>& d, const Analysis::Analyzer& a) {
        Snapshot s;
        s.forward.assign(d.permutation.forward, d.permutation.forward + d.permutation.size);
        s.inverse.assign(d.permutation.inverse, d.permutation.inverse + d.permutation.size);
        s.rows.assign(d.skeleton.rowIndices, d.skeleton.rowIndices + d.skeleton.numEntries());
        s.cols.assign(d.skeleton.colPointers, d.skeleton.colPointers + d.skeleton.n + 1);
        s.parent.assign(d.etree.parent, d.etree.parent + d.etree.numNodes);
        s.order.assign(a.order(), a.order() + a.numBlocks());
        s.values = d.matrix.values;
        s.blocks = d.matrix.numBlocks;
        s.factored = d.isFactored;
        return s;
    }
    bool operator==(const Snapshot& o) const {
        return forward == o.forward && inverse == o.inverse && rows == o.rows && cols == o.cols &&
               parent == o.parent && order == o.order && values == o.values && blocks == o.blocks &&
               factored == o.factored;
    }
};

TEST(AnalysisApi, InputErrorsAreReportedAndLeaveTheDataUnchanged) {
    struct Case {
        const char* expected;
        void (*mutate)(Small&);
    };
    const Case cases[] = {
        {"block 1 has size 0; every block needs at least one scalar row", [](Small& s) { s.sizes[1] = 0; }},
        {"firstConstraint 6 exceeds the number of blocks 5", [](Small& s) { s.firstConstraint = 6; }},
        {"colPointers[0] is 1; it must be 0", [](Small& s) { s.colPointers[0] = 1; }},
        {"colPointers decreases at block 2 (colPointers[3] = 1 after colPointers[2] = 2)",
         [](Small& s) { s.colPointers[3] = 1; }},
        {"list of block 2 is empty (it must end with its diagonal 2)",
         [](Small& s) { s.colPointers[3] = 2; }},
        {"list of block 3: entry 4 names block 0 after block 1 (a list is strictly ascending)",
         [](Small& s) {
             s.rowIndices[3] = 1;
             s.rowIndices[4] = 0;
         }},
        {"list of block 3: entry 4 names block 0 after block 0 (a list is strictly ascending)",
         [](Small& s) { s.rowIndices[4] = 0; }},
        {"list of block 3: entry 4 names block 9, but the problem has 5 blocks",
         [](Small& s) { s.rowIndices[4] = 9; }},
        {"list of block 3: entry 4 names block 4, which is larger than 3 (a list holds the blocks i <= 3)",
         [](Small& s) { s.rowIndices[4] = 4; }},
        {"list of block 4: it ends with block 2 instead of its diagonal 4",
         [](Small& s) {  // the diagonal of constraint 4 is missing
             s.rowIndices.pop_back();
             s.colPointers[5] = 8;
         }},
        {"constraint block 4 couples to no body block (bodies are blocks 0 .. 2); its pivot would be zero",
         [](Small& s) {
             s.rowIndices = {0, 1, 2, 0, 1, 3, 4};
             s.colPointers[5] = 7;
         }},
        {"constraint block 0 couples to no body block (the problem has no bodies: firstConstraint is 0); its "
         "pivot would be zero",
         [](Small& s) { s.firstConstraint = 0; }},
        {"the problem's colPointers, rowIndices and blockSizes must not be null (numBlocks = 5)",
         [](Small& s) {
             s.sizes.clear();
             s.sizes.shrink_to_fit();
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        Small good, bad;
        c.mutate(bad);
        Analysis::Problem problem = bad.problem();
        if (bad.sizes.empty()) {
            problem.numBlocks = 5;
            problem.blockSizes = nullptr;
        }
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        ASSERT_TRUE(analyzer.analyze(good.problem(), Analysis::Options(), data).ok);
        const Snapshot before = Snapshot::of(data, analyzer);
        const Analysis::Report r = analyzer.analyze(problem, Analysis::Options(), data);
        EXPECT_FALSE(r.ok);
        EXPECT_EQ(r.message, c.expected);
        EXPECT_TRUE(Snapshot::of(data, analyzer) == before);
        std::string message;
        EXPECT_FALSE(Analysis::checkProblem(problem, &message));
        EXPECT_EQ(message, c.expected);
    }
}

TEST(AnalysisApi, UserOrdersAreAcceptedOnlyWhenTheySatisfyTheRule) {
    const Small s;
    struct Case {
        std::vector<unsigned int> order;
        const char* expected;  // null: accepted
    };
    const Case cases[] = {
        {{0, 1, 2, 3, 4}, nullptr},
        {{0, 3, 2, 1, 4}, nullptr},  // 3 directly after body 0, whose only constraint it is (R)
        {{0, 1, 3, 2, 4}, nullptr},  // 3 after both its bodies (S)
        {{1, 3, 0, 2, 4},
         "order: constraint block 3 (position 1) precedes its body block 0 (position 2), and the body it "
         "directly "
         "follows, block 1, has another constraint, block 4, placed later (position 4); place it after all "
         "its "
         "bodies, or directly after a body whose last constraint it is"},
        {{4, 2, 0, 1, 3},
         "order: constraint block 4 (position 0) precedes its body block 1 (position 3) and does not "
         "directly "
         "follow one of its bodies; place it after all its bodies, or directly after a body whose last "
         "constraint "
         "it is"},
        {{0, 1, 2, 3, 3}, "order: block 3 is placed twice (positions 3 and 4)"},
        {{0, 1, 2, 3, 7}, "order: position 4 holds block 7, but the problem has 5 blocks"},
    };
    for (const Case& c : cases) {
        Analysis::Analyzer analyzer;
        TamberData<double> data;
        ASSERT_TRUE(analyzer.analyze(s.problem(), Analysis::Options(), data).ok);
        const Snapshot before = Snapshot::of(data, analyzer);
        Analysis::Options options;
        options.ordering = Ordering::user;
        options.userOrder = c.order.data();
        const Analysis::Report r = analyzer.analyze(s.problem(), options, data);
        std::string why;
        const bool legal = Analysis::checkOrder(s.problem(), c.order.data(), &why);
        if (c.expected == nullptr) {
            EXPECT_TRUE(r.ok) << r.message;
            EXPECT_TRUE(legal) << why;
            EXPECT_EQ(std::vector<unsigned int>(data.permutation.forward, data.permutation.forward + 5),
                      c.order);
        } else {
            EXPECT_FALSE(r.ok);
            EXPECT_FALSE(legal);
            EXPECT_EQ(r.message, c.expected);
            EXPECT_EQ(why, c.expected);
            EXPECT_TRUE(Snapshot::of(data, analyzer) == before);
        }
    }
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    Analysis::Options options;
    options.ordering = Ordering::user;
    EXPECT_EQ(analyzer.analyze(s.problem(), options, data).message,
              "ordering 'user' needs Options::userOrder");
    // With peeling off, rule R is not accepted either.
    const std::vector<unsigned int> r{0, 3, 2, 1, 4};
    options.userOrder = r.data();
    options.peel = false;
    EXPECT_EQ(analyzer.analyze(s.problem(), options, data).message,
              "order: constraint block 3 (position 1) precedes its body block 1 (position 3); with peeling "
              "switched "
              "off every constraint must follow all its bodies");
}

// ---------------------------------------------------------------------------------------------------------
// Assembly.
// ---------------------------------------------------------------------------------------------------------

// P·A·Pᵀ · P·x = P·(A·x): the matrix assembled in elimination order times a permuted vector is the permuted
// product of the user's matrix, with blocks moved across the diagonal transposed.
template <typename T>
void roundTrip(double tolerance) {
    Analysis::Analyzer analyzer;
    TamberData<T> data;
    unsigned long transposed = 0;
    for (const SeedCase& sc : seedCases(24)) {
        SCOPED_TRACE("seed " + std::to_string(sc.seed));
        const Saddle s = makeSaddle(sc.kind, sc.seed, sc.couplings);
        Analysis::Options options;
        options.ordering = sc.seed % 2 ? Ordering::standard : Ordering::symamdSwap;
        ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
        ASSERT_EQ(analyzer.numBlocks(), s.sys.nb);
        ASSERT_EQ(analyzer.scalarSize(), s.sys.N);
        ASSERT_EQ(analyzer.numEntries(), s.rowIndices.size());
        if (sc.seed % 3 == 0) {
            analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
        } else {  // entry by entry, found by (i, j), from float values half the time
            for (unsigned int j = 0; j < s.sys.nb; ++j) {
                for (unsigned int e = s.colPointers[j]; e < s.colPointers[j + 1]; ++e) {
                    const unsigned long found = analyzer.findEntry(s.rowIndices[e], j);
                    ASSERT_EQ(found, e);
                    if (sizeof(T) == sizeof(float) && sc.seed % 2) {
                        std::vector<float> f(s.values.begin() + s.valuePointers[e],
                                             s.values.begin() + s.valuePointers[e] +
                                                 s.sys.sizes[s.rowIndices[e]] * s.sys.sizes[j]);
                        analyzer.setBlock(data, e, f.data());
                    } else {
                        analyzer.setBlock(data, e, s.values.data() + s.valuePointers[e]);
                    }
                }
            }
            ASSERT_EQ(analyzer.findEntry(1, 0), Analysis::Analyzer::noEntry);
        }
        for (unsigned int j = 0; j < s.sys.nb; ++j) {
            for (unsigned int i : s.sys.lowerRows[j])
                transposed += data.permutation.inverse[i] > data.permutation.inverse[j] ? 1 : 0;
        }
        const std::vector<double> x = kt::randomVector(s.sys.N, sc.seed + 1);
        const std::vector<double> y = kt::denseMultiply(s.sys.dense, x);
        std::vector<T> xu(x.begin(), x.end()), xp(s.sys.N), yp(s.sys.N), yu(s.sys.N);
        analyzer.permuteVector(xu.data(), xp.data());
        data.matrix.multiply(xp.data(), yp.data());
        analyzer.unpermuteVector(yp.data(), yu.data());
        double err = 0.0, scale = 0.0;
        for (unsigned int k = 0; k < s.sys.N; ++k) {
            err = std::max(err, std::fabs(yu[k] - y[k]));
            scale = std::max(scale, std::fabs(y[k]));
        }
        EXPECT_LE(err, tolerance * (1.0 + scale));
        // unpermute(permute(v)) = v exactly.
        std::vector<T> back(s.sys.N);
        analyzer.unpermuteVector(xp.data(), back.data());
        EXPECT_EQ(back, xu);
    }
    EXPECT_GT(transposed, 5u);
}

TEST(AnalysisApi, AssemblyRoundTripDouble) {
    roundTrip<double>(1e-13);
}

TEST(AnalysisApi, AssemblyRoundTripFloat) {
    roundTrip<float>(1e-5);
}

// After the first steps, a time step (values, vectors) allocates nothing, and neither does the analysis of
// an unchanged structure from the third call on (the ordering libraries' own calloc and the zero-leaf swap's
// local arrays aside).
TEST(AnalysisApi, SteadyStateAllocatesNothing) {
    const Saddle s = makeSaddle(Kind::mixed, 7);
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    std::vector<double> b(s.sys.N, 1.0), bp(s.sys.N);
    for (Ordering ordering : kOrderings) {
        SCOPED_TRACE(nameOf(ordering));
        Analysis::Options options;
        options.ordering = ordering;
        options.nestedDissectionThreshold = 0.0;
        for (int k = 0; k < 2; ++k) ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
        const std::uint64_t before = kiv::ByteAllocator::allocationCount();
        ASSERT_TRUE(analyzer.analyze(s.problem(), options, data).ok);
        analyzer.setBlocks(data, s.values.data(), s.valuePointers.data());
        analyzer.permuteVector(b.data(), bp.data());
        analyzer.unpermuteVector(bp.data(), b.data());
        // The zero-leaf swap keeps its node states, post positions and emission list local (3 arrays).
        EXPECT_EQ(kiv::ByteAllocator::allocationCount(), before + (ordering == Ordering::symamdSwap ? 3 : 0));
    }
}

TEST(AnalysisApi, EmptyProblem) {
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    const Analysis::Problem problem{0, 0, nullptr, nullptr, nullptr};
    for (Ordering ordering : kOrderings) {
        Analysis::Options options;
        options.ordering = ordering;
        const Analysis::Report r = analyzer.analyze(problem, options, data);
        EXPECT_TRUE(r.ok) << r.message;
        EXPECT_EQ(data.permutation.size, 0u);
        EXPECT_EQ(data.skeleton.n, 0u);
        EXPECT_EQ(data.etree.numNodes, 0u);
        EXPECT_EQ(r.cost.scalarEntries, 0u);
    }
}

// ---------------------------------------------------------------------------------------------------------
// A real KKT matrix: AUG3DCQP (3873 primal unknowns with a positive definite P, 1000 equality rows), one
// block per scalar. Factored in the standard order: every pivot finite, exactly 1000 negative, small
// residual.
// ---------------------------------------------------------------------------------------------------------

bool readKkt(const std::string& base, PatternProblem& p, std::vector<double>& values,
             std::vector<unsigned long>& pointers) {
    std::ifstream blocks(base + ".blocks"), mtx(base + ".mtx");
    if (!blocks || !mtx) return false;
    std::string line;
    unsigned int n1 = 0;
    while (std::getline(blocks, line)) {
        std::istringstream is(line);
        std::string key;
        is >> key;
        if (key == "n1") is >> n1;
    }
    while (std::getline(mtx, line) && line[0] == '%') {
    }
    std::istringstream head(line);
    unsigned int rows = 0, cols = 0;
    unsigned long nnz = 0;
    head >> rows >> cols >> nnz;
    std::vector<std::vector<std::pair<unsigned int, double>>> lists(rows);  // list of r: (c <= r, A(c, r))
    for (unsigned long k = 0; k < nnz; ++k) {
        unsigned int i, j;
        double v;
        mtx >> i >> j >> v;
        lists[i - 1].push_back({j - 1, v});  // lower triangle: i >= j
    }
    p.firstConstraint = n1;
    p.sizes.assign(rows, 1);
    for (unsigned int r = 0; r < rows; ++r) {
        auto& l = lists[r];
        std::sort(l.begin(), l.end());
        if (l.empty() || l.back().first != r) l.push_back({r, 0.0});
        p.colPointers.push_back(static_cast<unsigned int>(p.rowIndices.size()));
        for (const auto& e : l) {
            p.rowIndices.push_back(e.first);
            pointers.push_back(values.size());
            values.push_back(e.second);
        }
    }
    p.colPointers.push_back(static_cast<unsigned int>(p.rowIndices.size()));
    return true;
}

TEST(AnalysisApi, RealKktMatrixFactorsWithTheRightInertia) {
    const char* dir = kt::realDataDir();
    if (dir == nullptr) GTEST_SKIP() << "KIVTAMBER_DATA_DIR is not set";
    PatternProblem p;
    std::vector<double> values;
    std::vector<unsigned long> pointers;
    ASSERT_TRUE(readKkt(std::string(dir) + "/AUG3DCQP_kkt", p, values, pointers));
    ASSERT_EQ(p.sizes.size(), 4873u);
    Analysis::Analyzer analyzer;
    TamberData<double> data;
    const Analysis::Report r = analyzer.analyze(p.problem(), Analysis::Options(), data);
    ASSERT_TRUE(r.ok) << r.message;
    analyzer.setBlocks(data, values.data(), pointers.data());
    Tamber tamber;
    tamber.estimateWork(data, nullptr);
    tamber.factorSerial(data);
    const Pivots pv = pivotsOf(data);
    EXPECT_TRUE(pv.finite);
    EXPECT_EQ(pv.negative, 1000u);

    const unsigned int N = analyzer.scalarSize();
    std::vector<double> b = kt::randomVector(N, 3), bp(N), xp(N), yp(N);
    analyzer.permuteVector(b.data(), bp.data());
    ASSERT_TRUE(tamber.solve(data, bp.data(), xp.data()));
    data.matrix.multiply(xp.data(), yp.data());
    double norm = 0.0;
    for (double v : values) norm = std::max(norm, std::fabs(v));
    double res = 0.0, xn = 0.0, bn = 0.0;
    for (unsigned int k = 0; k < N; ++k) {
        res = std::max(res, std::fabs(yp[k] - bp[k]));
        xn = std::max(xn, std::fabs(xp[k]));
        bn = std::max(bn, std::fabs(bp[k]));
    }
    EXPECT_LT(res / (norm * xn + bn), 1e-10);
}

}  // namespace
