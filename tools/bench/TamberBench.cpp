// tamber-bench: the comparison a user asks for before choosing this library.
//
// On the scene matrices (chain, ragdolls, cloth, box wall) at a few sizes it times, in one run and on the
// same matrices: our analysis, the serial and the multifrontal factorization (1 and N threads), the solve,
// one step of iterative refinement and the switching of a few constraint equations through RankMod; and each
// peer found at build time (Peers.h) in two settings: in our elimination order on the saddle-point matrix,
// and with its own AMD ordering on a copy regularised by −1e-8 on the constraint diagonal. CHOLMOD's
// supernodal L·Lᵀ, which cannot factor a saddle-point matrix, runs on the positive definite twin with the
// same pattern. The peers' answer to switching equations is a numeric refactorization, and for CHOLMOD's
// simplicial factor also its own row deletion and addition.
//
// Output: two Markdown tables (every solver, and a summary of the ratios) on standard output and in
// <out>/tamber-bench.md, the same as CSV (<out>/tamber-bench.csv, <out>/tamber-bench-summary.csv), and a
// plot of factor time against size per solver (<out>/factor-times.png, with gnuplot or python3-matplotlib;
// skipped with a message when neither is installed). Progress goes to standard error.
//
// Every time is the median of up to --runs repetitions; a measurement stops repeating once it has run three
// times and used --budget seconds, or used three budgets.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <list>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Analysis.h"
#include "RankMod.h"
#include "Tamber.h"
#include "TamberSolve.h"
#include "bench/Peers.h"
#include "scenes/Scenes.h"

using namespace kivTamber;
using namespace kivTamber::bench;
using kivTamber::scenes::SceneKind;

namespace {

using Clock = std::chrono::steady_clock;
const double notMeasured = std::numeric_limits<double>::quiet_NaN();

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> v) {
    if (v.empty()) return notMeasured;
    std::sort(v.begin(), v.end());
    const std::size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : 0.5 * (v[m - 1] + v[m]);
}

struct Settings {
    std::vector<unsigned long> sizes{1000, 10000, 50000};
    std::vector<SceneKind> scenes{SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth,
                                  SceneKind::boxWall};
    int runs = 7;
    double budget = 2.0;
    bool peers = true;
    bool plot = true;
    std::string outDir = "bench-results";
    unsigned int threads = 2;
    unsigned int switchCount = 10;
};

// Repeats `run` (which times its own part and returns false on failure) up to settings.runs times, stopping
// early by the budget rule. Returns false when a run failed.
bool repeat(const Settings& settings, const std::function<bool()>& run) {
    const Clock::time_point start = Clock::now();
    for (int r = 0; r < settings.runs; ++r) {
        if (!run()) return false;
        const double used = since(start);
        if ((r >= 2 && used >= settings.budget) || used >= 3.0 * settings.budget) break;
    }
    return true;
}

// One line of the full table: one solver in one setting on one matrix.
struct Row {
    std::string scene;
    unsigned long target = 0, blocks = 0, N = 0;  // requested and actual block count, scalar dimension
    std::string solver, tag, ordering;
    bool ours = false, given = true, twin = false;
    double entries = notMeasured;
    double analyze = notMeasured, factor = notMeasured, assembly = notMeasured, solve = notMeasured,
           refine = notMeasured;
    double residualSolve = notMeasured, residual = notMeasured;
    double refactor = notMeasured, switchOff = notMeasured, switchOn = notMeasured;
    double switchResidual = notMeasured;
    int runs = 0;
    std::string note;
    // Our serial row only: medians of the per-round ratios peer / ours of the paired phase (interleaved
    // rounds of our step and the fastest peers'), and the ratio refinement step / solve of ours.
    double pairedGiven = notMeasured, pairedAmd = notMeasured, pairedSolve = notMeasured;
    double refinePerSolve = notMeasured;
    int pairedRounds = 0;
};

const char* sceneName(SceneKind kind) {
    switch (kind) {
        case SceneKind::chain:
            return "chain";
        case SceneKind::ragdolls:
            return "ragdolls";
        case SceneKind::cloth:
            return "cloth";
        case SceneKind::boxWall:
            return "boxwall";
    }
    return "?";
}

bool parseScene(const std::string& name, SceneKind& kind) {
    const SceneKind all[] = {SceneKind::chain, SceneKind::ragdolls, SceneKind::cloth, SceneKind::boxWall};
    for (SceneKind k : all)
        if (name == sceneName(k)) {
            kind = k;
            return true;
        }
    return false;
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    std::stringstream in(text);
    std::string part;
    while (std::getline(in, part, separator))
        if (!part.empty()) parts.push_back(part);
    return parts;
}

// Milliseconds with three significant digits, "—" when not measured.
std::string ms(double seconds) {
    if (!std::isfinite(seconds)) return "—";
    const double v = seconds * 1e3;
    char text[32];
    if (v >= 100.0)
        std::snprintf(text, sizeof(text), "%.0f", v);
    else if (v >= 10.0)
        std::snprintf(text, sizeof(text), "%.1f", v);
    else if (v >= 1.0)
        std::snprintf(text, sizeof(text), "%.2f", v);
    else
        std::snprintf(text, sizeof(text), "%.3g", v);
    return text;
}

std::string sci(double v) {
    if (std::isnan(v)) return "—";
    if (std::isinf(v)) return "inf";
    char text[32];
    std::snprintf(text, sizeof(text), "%.1e", v);
    return text;
}

std::string ratio(double a, double b) {
    if (!std::isfinite(a) || !std::isfinite(b) || b <= 0.0) return "—";
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f×", a / b);
    return text;
}

// CSV field: a number with full precision (empty when not measured) or a quoted text.
std::string csvNumber(double v) {
    if (std::isnan(v)) return "";
    if (std::isinf(v)) return "inf";
    char text[40];
    std::snprintf(text, sizeof(text), "%.6g", v);
    return text;
}

std::string csvText(const std::string& s) {
    std::string out = "\"";
    for (char c : s) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    return out + "\"";
}

std::string loadAverage() {
    std::ifstream in("/proc/loadavg");
    std::string one;
    in >> one;
    return one.empty() ? std::string("unknown") : one;
}

std::string cpuModel() {
    std::ifstream in("/proc/cpuinfo");
    std::string line;
    while (std::getline(in, line))
        if (line.compare(0, 10, "model name") == 0) {
            const std::size_t colon = line.find(':');
            return colon == std::string::npos ? line : line.substr(colon + 2);
        }
    return "unknown processor";
}

// ---------------------------------------------------------------------------------------------------------
// One scene at one size
// ---------------------------------------------------------------------------------------------------------

class SceneRun {
public:
    SceneRun(const Settings& settings, SceneKind kind, unsigned long targetBlocks)
        : settings_(settings), kind_(kind), target_(targetBlocks) {}

    // Builds the matrices, runs every solver and appends the rows. Returns false (with a message on standard
    // error) when the scene could not be analysed.
    bool run(std::vector<Row>& rows, std::vector<std::string>& notes, bool checkSupernodalOnSaddle) {
        auto scene = scenes::makeScene(kind_, scenes::sizeForBlockCount(kind_, target_));
        scene->step(0.01);
        scene->build(problem_);
        N_ = problem_.scalarSize();
        scalarMatrixFromProblem(problem_, A_);
        chooseEquations();
        unitEquationsCopy(A_, scalars_, changed_);
        b_.resize(N_);
        for (unsigned int k = 0; k < N_; ++k) b_[k] = std::sin(0.37 * k + 1.0);
        std::fprintf(stderr, "%s, %u blocks, N = %u\n", sceneName(kind_), problem_.numBlocks, N_);

        const std::size_t first = rows.size();
        if (!runOurs(rows)) return false;
        if (settings_.peers) {
            runPeers(rows, notes, checkSupernodalOnSaddle);
            runPaired(rows, first);
        }
        return true;
    }

private:
    Row newRow(const std::string& solver, const std::string& tag, const std::string& ordering) const {
        Row row;
        row.scene = sceneName(kind_);
        row.target = target_;
        row.blocks = problem_.numBlocks;
        row.N = N_;
        row.solver = solver;
        row.tag = tag;
        row.ordering = ordering;
        return row;
    }

    // switchCount constraint equations in distinct constraint blocks, chosen by a fixed seed; ascending.
    void chooseEquations() {
        std::vector<unsigned int> constraints;
        for (unsigned int c = problem_.firstConstraint; c < problem_.numBlocks; ++c) constraints.push_back(c);
        std::mt19937 random(7);
        std::shuffle(constraints.begin(), constraints.end(), random);
        constraints.resize(std::min<std::size_t>(constraints.size(), settings_.switchCount));
        std::sort(constraints.begin(), constraints.end());
        blocks_.clear();
        scalars_.clear();
        for (unsigned int c : constraints) {
            const unsigned int local = random() % problem_.blockSizes[c];
            blocks_.emplace_back(c, local);
            scalars_.push_back(static_cast<int>(problem_.blockOffsets[c] + local));
        }
    }

    // Our analysis options: the standard order, with block merging (a no-op where nothing merges).
    static Analysis::Options ourOptions() {
        Analysis::Options options;
        options.mergeBlocks = true;
        return options;
    }

    bool runOurs(std::vector<Row>& rows) {
        const Analysis::Problem problem = problem_.pattern();
        Analysis::Report report;
        Row serial = newRow("kivTamber serial", "ours", "ours");
        serial.ours = true;
        data_.writeScaledFactor = 0;  // as the Solver: the double solves read only L and D
        std::vector<double> times;
        repeat(settings_, [&] {
            const Clock::time_point start = Clock::now();
            report = analyzer_.analyze(problem, ourOptions(), data_);
            if (!report.ok) return false;
            tamber_.estimateWork(data_, nullptr);
            times.push_back(since(start));
            return true;
        });
        if (!report.ok) {
            std::fprintf(stderr, "%s: analysis failed: %s\n", sceneName(kind_), report.message.c_str());
            return false;
        }
        serial.analyze = median(times);
        serial.entries = static_cast<double>(report.cost.scalarEntries);
        order_.assign(analyzer_.order(), analyzer_.order() + problem_.numBlocks);
        scalarOrder(problem_, order_.data(), scalarOrder_);

        // Factor time includes the assembly of the values into the factor's order, as the peers' include
        // their permutation of the matrix: setBlocksAndFactor, which writes each block column just before
        // the factorization reads it. The assembly column is setBlocks alone, timed apart.
        times.clear();
        std::vector<double> assembly;
        repeat(settings_, [&] {
            Clock::time_point start = Clock::now();
            analyzer_.setBlocks(data_, problem_.values.data(), problem_.valuePointers.data());
            assembly.push_back(since(start));
            start = Clock::now();
            analyzer_.setBlocksAndFactor(tamber_, data_, problem_.values.data(),
                                         problem_.valuePointers.data());
            times.push_back(since(start));
            return true;
        });
        serial.factor = median(times);
        serial.assembly = median(assembly);
        serial.runs = static_cast<int>(times.size());

        for (unsigned int threads : {1u, settings_.threads}) {
            Row mf = newRow("kivTamber multifrontal, " + std::to_string(threads) +
                                (threads == 1 ? " thread" : " threads"),
                            "ours MF" + std::to_string(threads), "ours");
            mf.ours = true;
            data_.numThreads = threads;
            const Clock::time_point prepareStart = Clock::now();
            tamber_.prepareMultifrontal(data_);
            mf.analyze = since(prepareStart);  // the preparation for this thread count, once per structure
            times.clear();
            repeat(settings_, [&] {
                const Clock::time_point start = Clock::now();
                analyzer_.setBlocks(data_, problem_.values.data(), problem_.valuePointers.data());
                tamber_.factorMF(data_);
                times.push_back(since(start));
                return true;
            });
            mf.factor = median(times);
            mf.runs = static_cast<int>(times.size());
            mf.entries = serial.entries;
            solveOurs(mf, false);  // residual of the multifrontal factor, not timed
            multifrontal_.push_back(mf);
            if (settings_.threads == 1) break;
        }

        analyzer_.setBlocks(data_, problem_.values.data(), problem_.valuePointers.data());
        tamber_.factorSerial(data_);  // RankMod works on the serial factor's layout
        solveOurs(serial, true);
        switchOurs(serial);
        rows.push_back(serial);
        for (Row& mf : multifrontal_) rows.push_back(mf);
        multifrontal_.clear();
        runCentroid(rows, problem);
        return true;
    }

    // When the bodies form a forest (chains, ragdolls): the serial factorization, solve and equation
    // switching in the centroid order, whose shallow tree keeps the switching work to O(log n) blocks per
    // equation (at the price of some fill). Leaves analyzer_ and data_ analysed in that order.
    void runCentroid(std::vector<Row>& rows, const Analysis::Problem& problem) {
        Row row = newRow("kivTamber serial, centroid order", "ours centroid", "centroid");
        row.ours = true;
        Analysis::Options options = ourOptions();
        options.ordering = Analysis::Ordering::centroid;
        Analysis::Report report;
        std::vector<double> times;
        repeat(settings_, [&] {
            const Clock::time_point start = Clock::now();
            report = analyzer_.analyze(problem, options, data_);
            if (!report.ok) return false;
            tamber_.estimateWork(data_, nullptr);
            times.push_back(since(start));
            return true;
        });
        if (!report.ok) {
            std::fprintf(stderr, "%s: centroid order refused: %s\n", sceneName(kind_),
                         report.message.c_str());
            return;
        }
        if (report.centroidFallback) return;  // the bodies do not form a forest
        row.analyze = median(times);
        row.entries = static_cast<double>(report.cost.scalarEntries);
        times.clear();
        repeat(settings_, [&] {
            const Clock::time_point start = Clock::now();
            analyzer_.setBlocksAndFactor(tamber_, data_, problem_.values.data(),
                                         problem_.valuePointers.data());
            times.push_back(since(start));
            return true;
        });
        row.factor = median(times);
        row.runs = static_cast<int>(times.size());
        solveOurs(row, true);
        switchOurs(row);
        rows.push_back(row);
    }

    // Solve (permutation of b, the three triangular passes, permutation back) and one refinement step in the
    // factor's order; residuals of both in the user's numbering. With timed = false only the residual of
    // the solve.
    void solveOurs(Row& row, bool timed) {
        std::vector<double> pb(N_), px(N_), px0(N_), x(N_);
        analyzer_.permuteVector(b_.data(), pb.data());
        std::vector<double> times;
        repeat(timed ? settings_ : once(), [&] {
            const Clock::time_point start = Clock::now();
            analyzer_.permuteVector(b_.data(), px.data());
            TamberSolve::solve(data_, px.data());
            analyzer_.unpermuteVector(px.data(), x.data());
            times.push_back(since(start));
            return true;
        });
        row.residualSolve = scaledResidual(A_, b_.data(), x.data());
        if (!timed) return;
        row.solve = median(times);
        px0 = px;
        times.clear();
        repeat(settings_, [&] {
            px = px0;
            const Clock::time_point start = Clock::now();
            tamber_.iterativeRefinement(data_, pb.data(), px.data(), 1);
            analyzer_.unpermuteVector(px.data(), x.data());
            times.push_back(since(start));
            return true;
        });
        row.refine = median(times);
        row.residual = scaledResidual(A_, b_.data(), x.data());
    }

    Settings once() const {
        Settings s = settings_;
        s.runs = 1;
        return s;
    }

    // The paired phase: the comparisons the goals are judged on, taken in interleaved rounds so that the
    // machine's speed swings hit both sides of each ratio alike. Each round times, in a rotating order: our
    // step (setBlocksAndFactor in our order, one solve, one refinement step and a second solve; the
    // refinement goal is the median of the per-round ratios refinement / second solve); the fastest peer's
    // factorization in our order; the fastest peer's in its own order; the step of the fastest solver in our
    // order (its factorization, untimed, then its solve: each side's solve runs right after its own
    // factorization, as in a time step). Peers are those of the rows above by their medians, each a fresh
    // instance, analysed once. The row of our serial factorization gets the medians of the per-round ratios.
    void runPaired(std::vector<Row>& rows, std::size_t first) {
        Row* ours = nullptr;
        const Row *given = nullptr, *amd = nullptr, *solver = nullptr;
        for (std::size_t k = first; k < rows.size(); ++k) {
            Row& row = rows[k];
            if (row.tag == "ours") ours = &row;
            if (row.ours || !std::isfinite(row.factor)) continue;
            const Row*& best = row.given ? given : amd;
            if (!best || row.factor < best->factor) best = &row;
            if (row.given && std::isfinite(row.solve) && (!solver || row.solve < solver->solve))
                solver = &row;
        }
        if (!ours) return;
        if (std::isfinite(ours->solve) && std::isfinite(ours->refine))
            ours->refinePerSolve = ours->refine / ours->solve;
        if (!given && !amd) return;

        Analysis::Report report = analyzer_.analyze(problem_.pattern(), ourOptions(), data_);
        if (!report.ok) return;
        tamber_.estimateWork(data_, nullptr);
        ScalarMatrix regularised;
        regularisedCopy(problem_, A_, -1e-8, regularised);
        std::list<ScalarMatrix> twins;  // stable addresses
        std::vector<PeerEntry> peers = makePeers();
        // A fresh, analysed instance of the peer of `row` (nullptr when it cannot be made).
        auto prepare = [&](const Row* row, std::unique_ptr<Peer>& out) -> const ScalarMatrix* {
            if (!row) return nullptr;
            for (PeerEntry& entry : peers) {
                if (entry.peer && row->solver == entry.peer->name()) {
                    ScalarMatrix* twin = nullptr;
                    if (row->twin) {
                        twins.emplace_back();
                        positiveDefiniteTwin(A_, twins.back());
                        twin = &twins.back();
                    }
                    const ScalarMatrix& M = twin ? *twin : row->given ? A_ : regularised;
                    out = std::move(entry.peer);
                    if (!out->analyze(M, row->given ? PeerOrdering::given : PeerOrdering::ownAmd,
                                      scalarOrder_.data()))
                        return nullptr;
                    return &M;
                }
            }
            return nullptr;
        };
        std::unique_ptr<Peer> givenPeer, amdPeer, solvePeer;
        const ScalarMatrix* givenM = prepare(given, givenPeer);
        peers = makePeers();
        const ScalarMatrix* amdM = prepare(amd, amdPeer);
        peers = makePeers();
        const ScalarMatrix* solveM = prepare(solver, solvePeer);

        std::vector<double> pb(N_), px(N_), x(N_), rGiven, rAmd, rSolve, rRefine;
        analyzer_.permuteVector(b_.data(), pb.data());
        const int rounds = std::max(settings_.runs, 5);
        for (int round = 0; round < rounds; ++round) {
            double ourFactor = notMeasured, ourSolve = notMeasured, tGiven = notMeasured, tAmd = notMeasured,
                   tSolve = notMeasured;
            for (int part = 0; part < 4; ++part) {
                const Clock::time_point start = Clock::now();
                switch ((part + round) % 4) {
                    case 0: {
                        analyzer_.setBlocksAndFactor(tamber_, data_, problem_.values.data(),
                                                     problem_.valuePointers.data());
                        ourFactor = since(start);
                        const Clock::time_point solveStart = Clock::now();
                        analyzer_.permuteVector(b_.data(), px.data());
                        TamberSolve::solve(data_, px.data());
                        analyzer_.unpermuteVector(px.data(), x.data());
                        ourSolve = since(solveStart);
                        // One refinement step from that solution, as a time step would take it, against
                        // a second solve in the same state of the caches (the first one follows the
                        // factorization).
                        const Clock::time_point refineStart = Clock::now();
                        tamber_.iterativeRefinement(data_, pb.data(), px.data(), 1);
                        analyzer_.unpermuteVector(px.data(), x.data());
                        const double refine = since(refineStart);
                        const Clock::time_point againStart = Clock::now();
                        analyzer_.permuteVector(b_.data(), px.data());
                        TamberSolve::solve(data_, px.data());
                        analyzer_.unpermuteVector(px.data(), x.data());
                        rRefine.push_back(refine / since(againStart));
                        break;
                    }
                    case 1:
                        if (givenM && givenPeer->factor(*givenM)) tGiven = since(start);
                        break;
                    case 2:
                        if (amdM && amdPeer->factor(*amdM)) tAmd = since(start);
                        break;
                    case 3:
                        if (solveM && solvePeer->factor(*solveM)) {
                            const Clock::time_point solveStart = Clock::now();
                            if (solvePeer->solve(b_.data(), x.data())) tSolve = since(solveStart);
                        }
                        break;
                }
            }
            if (std::isfinite(tGiven)) rGiven.push_back(tGiven / ourFactor);
            if (std::isfinite(tAmd)) rAmd.push_back(tAmd / ourFactor);
            if (std::isfinite(tSolve)) rSolve.push_back(tSolve / ourSolve);
        }
        ours->pairedGiven = median(rGiven);
        ours->pairedAmd = median(rAmd);
        ours->pairedSolve = median(rSolve);
        ours->refinePerSolve = median(rRefine);
        ours->pairedRounds = rounds;
    }

    // RankMod: switch the chosen equations off and on again, batched; the residual of a solve with the
    // switched-off factor against the matrix with unit equations.
    void switchOurs(Row& row) {
        RankMod mod;
        if (!mod.prepare(data_)) {
            row.note = "RankMod::prepare failed";
            return;
        }
        RankMod::EquationList off, none;
        for (const auto& eq : blocks_) {
            unsigned int block = 0, local = 0;
            if (!analyzer_.factorPosition(eq.first, eq.second, block, local)) {
                row.note = "no factor position for a switched equation";
                return;
            }
            off.push_back(RankMod::Equation(block, local));
        }
        std::vector<double> offTimes, onTimes, px(N_), x(N_);
        bool first = true, ok = true;
        repeat(settings_, [&] {
            Clock::time_point start = Clock::now();
            ok = mod.apply(data_, off, none, RankMod::batched);
            offTimes.push_back(since(start));
            if (first) {
                analyzer_.permuteVector(b_.data(), px.data());
                TamberSolve::solve(data_, px.data());
                analyzer_.unpermuteVector(px.data(), x.data());
                row.switchResidual = scaledResidual(changed_, b_.data(), x.data());
                first = false;
            }
            start = Clock::now();
            ok = mod.apply(data_, none, off, RankMod::batched) && ok;
            onTimes.push_back(since(start));
            return ok;
        });
        if (!ok) row.note = "RankMod::apply failed";
        row.switchOff = median(offTimes);
        row.switchOn = median(onTimes);
    }

    void runPeers(std::vector<Row>& rows, std::vector<std::string>& notes, bool checkSupernodalOnSaddle) {
        ScalarMatrix regularised, regularisedChanged, twin, twinChanged;
        regularisedCopy(problem_, A_, -1e-8, regularised);
        unitEquationsCopy(regularised, scalars_, regularisedChanged);
        positiveDefiniteTwin(A_, twin);
        unitEquationsCopy(twin, scalars_, twinChanged);

        std::vector<PeerEntry> peers = makePeers();
        for (PeerEntry& entry : peers) {
            Peer& peer = *entry.peer;
            if (entry.positiveDefiniteOnly && checkSupernodalOnSaddle) {
                // Shown once: the supernodal L·Lᵀ on the saddle-point matrix itself.
                const bool ok = peer.analyze(A_, PeerOrdering::given, scalarOrder_.data()) && peer.factor(A_);
                notes.push_back(std::string(peer.name()) + " on the saddle-point matrix itself (" +
                                sceneName(kind_) + ", our order): " + (ok ? "succeeded" : peer.lastError()));
            }
            for (PeerOrdering ordering : {PeerOrdering::given, PeerOrdering::ownAmd}) {
                const bool given = ordering == PeerOrdering::given;
                const bool spd = entry.positiveDefiniteOnly;
                const ScalarMatrix& M = spd ? twin : given ? A_ : regularised;
                const ScalarMatrix& changedM = spd ? twinChanged : given ? changed_ : regularisedChanged;
                // Residuals are those of the system the user wants solved: the original matrix, also for
                // a factor of the regularised copy (for the twin, the twin itself).
                const ScalarMatrix& target = spd ? twin : A_;
                const ScalarMatrix& changedTarget = spd ? twinChanged : changed_;
                std::string label = given ? "ours" : "own AMD, −1e-8";
                if (spd) label = given ? "ours, SPD twin" : "own AMD, SPD twin";
                Row row = newRow(peer.name(), shortName(peer.name()), label);
                row.given = given;
                row.twin = spd;
                std::fprintf(stderr, "  %s (%s)\n", peer.name(), label.c_str());
                runPeer(peer, ordering, M, changedM, target, changedTarget, row);
                rows.push_back(row);
            }
        }
    }

    static std::string shortName(const std::string& name) {
        if (name.find("supernodal") != std::string::npos) return "CHOLMOD super";
        if (name.find("CHOLMOD") != std::string::npos) return "CHOLMOD simp";
        return "Eigen";
    }

    void runPeer(Peer& peer, PeerOrdering ordering, const ScalarMatrix& M, const ScalarMatrix& changedM,
                 const ScalarMatrix& target, const ScalarMatrix& changedTarget, Row& row) {
        std::vector<double> times, x(N_), x0(N_);
        auto fail = [&] {
            row.note = peer.lastError();
            std::fprintf(stderr, "    failed: %s\n", row.note.c_str());
        };
        if (!repeat(settings_, [&] {
                const Clock::time_point start = Clock::now();
                if (!peer.analyze(M, ordering, scalarOrder_.data())) return false;
                times.push_back(since(start));
                return true;
            }))
            return fail();
        row.analyze = median(times);
        times.clear();
        if (!repeat(settings_, [&] {
                const Clock::time_point start = Clock::now();
                if (!peer.factor(M)) return false;
                times.push_back(since(start));
                return true;
            }))
            return fail();
        row.factor = median(times);
        row.runs = static_cast<int>(times.size());
        row.entries = peer.factorEntries();
        times.clear();
        if (!repeat(settings_, [&] {
                const Clock::time_point start = Clock::now();
                if (!peer.solve(b_.data(), x.data())) return false;
                times.push_back(since(start));
                return true;
            }))
            return fail();
        row.solve = median(times);
        row.residualSolve = scaledResidual(target, b_.data(), x.data());
        x0 = x;
        times.clear();
        if (!repeat(settings_, [&] {
                x = x0;
                const Clock::time_point start = Clock::now();
                if (!peer.refine(target, b_.data(), x.data())) return false;
                times.push_back(since(start));
                return true;
            }))
            return fail();
        row.refine = median(times);
        row.residual = scaledResidual(target, b_.data(), x.data());

        // The peer's answer to switched equations: a numeric refactorization of the changed matrix.
        times.clear();
        if (!repeat(settings_, [&] {
                const Clock::time_point start = Clock::now();
                if (!peer.factor(changedM)) return false;
                times.push_back(since(start));
                return true;
            }))
            return fail();
        row.refactor = median(times);
        if (!peer.solve(b_.data(), x.data())) return fail();
        const double refactorResidual = scaledResidual(changedTarget, b_.data(), x.data());
        if (!peer.factor(M)) return fail();

        if (!peer.canModifyRows()) {
            row.switchResidual = refactorResidual;
            return;
        }
        // Its own row deletion and addition on the factor of M.
        if (!peer.prepareModification(M)) return fail();
        std::vector<double> offTimes, onTimes;
        bool first = true;
        if (!repeat(settings_, [&] {
                Clock::time_point start = Clock::now();
                if (!peer.switchOff(scalars_)) return false;
                offTimes.push_back(since(start));
                if (first) {
                    if (!peer.solve(b_.data(), x.data())) return false;
                    row.switchResidual = scaledResidual(changedTarget, b_.data(), x.data());
                    first = false;
                }
                start = Clock::now();
                if (!peer.switchOn(M, scalars_)) return false;
                onTimes.push_back(since(start));
                return true;
            }))
            return fail();
        row.switchOff = median(offTimes);
        row.switchOn = median(onTimes);
    }

    const Settings& settings_;
    SceneKind kind_;
    unsigned long target_;
    scenes::BlockProblem problem_;
    unsigned int N_ = 0;
    ScalarMatrix A_, changed_;
    std::vector<double> b_;
    std::vector<std::pair<unsigned int, unsigned int>> blocks_;  // switched equations: (user block, local)
    std::vector<int> scalars_;                                   // the same as scalar indices
    Analysis::Analyzer analyzer_;
    TamberData<double> data_;
    Tamber tamber_;
    std::vector<unsigned int> order_;
    std::vector<int> scalarOrder_;
    std::vector<Row> multifrontal_;
};

// ---------------------------------------------------------------------------------------------------------
// Tables, CSV and plot
// ---------------------------------------------------------------------------------------------------------

struct Summary {
    std::string scene;
    unsigned long target = 0, blocks = 0, N = 0;
    double serial = notMeasured, mf1 = notMeasured, mfN = notMeasured;
    std::string fastestGiven, fastestAmd, fastestSolve, fastestRefactor;
    double fastestGivenTime = notMeasured, fastestAmdTime = notMeasured, superGiven = notMeasured;
    double solve = notMeasured, fastestSolveTime = notMeasured;
    double rankMod = notMeasured, fastestRefactorTime = notMeasured, cholmodRows = notMeasured;
    // Serial factorization and switching in the centroid order (forest scenes only).
    double serialCentroid = notMeasured, rankModCentroid = notMeasured;
    // The faster of the two switching times, and "" or " (centroid order)" for the order it was measured in.
    double bestRankMod() const {
        return std::isfinite(rankModCentroid) && !(rankModCentroid >= rankMod) ? rankModCentroid : rankMod;
    }
    std::string bestRankModOrder() const {
        return bestRankMod() == rankModCentroid && std::isfinite(rankModCentroid) ? " (centroid order)" : "";
    }
    double residual = notMeasured, cholmodResidual = notMeasured, bestAmdResidual = notMeasured;
    std::string bestAmdResidualPeer;
    // From the paired phase (see SceneRun::runPaired): medians of per-round ratios peer / ours.
    double pairedGiven = notMeasured, pairedAmd = notMeasured, pairedSolve = notMeasured;
    double refinePerSolve = notMeasured;
    int pairedRounds = 0;
};

void keepMin(double value, const std::string& who, double& best, std::string& bestWho) {
    if (!std::isfinite(value)) return;
    if (!std::isfinite(best) || value < best) {
        best = value;
        bestWho = who;
    }
}

std::vector<Summary> summarise(const std::vector<Row>& rows) {
    std::vector<Summary> out;
    for (const Row& row : rows) {
        if (out.empty() || out.back().scene != row.scene || out.back().blocks != row.blocks) {
            out.emplace_back();
            out.back().scene = row.scene;
            out.back().target = row.target;
            out.back().blocks = row.blocks;
            out.back().N = row.N;
        }
        Summary& s = out.back();
        if (row.tag == "ours") {
            s.serial = row.factor;
            s.solve = row.solve;
            s.pairedGiven = row.pairedGiven;
            s.pairedAmd = row.pairedAmd;
            s.pairedSolve = row.pairedSolve;
            s.refinePerSolve = row.refinePerSolve;
            s.pairedRounds = row.pairedRounds;
            s.residual = row.residual;
            if (std::isfinite(row.switchOff)) s.rankMod = std::max(row.switchOff, row.switchOn);
        } else if (row.tag == "ours centroid") {
            if (std::isfinite(row.switchOff)) s.rankModCentroid = std::max(row.switchOff, row.switchOn);
            s.serialCentroid = row.factor;
        } else if (row.tag == "ours MF1") {
            s.mf1 = row.factor;
        } else if (row.ours) {
            s.mfN = row.factor;
        } else {
            keepMin(row.factor, row.tag, row.given ? s.fastestGivenTime : s.fastestAmdTime,
                    row.given ? s.fastestGiven : s.fastestAmd);
            if (row.given) keepMin(row.solve, row.tag, s.fastestSolveTime, s.fastestSolve);
            keepMin(row.refactor, row.tag + (row.given ? "" : " AMD"), s.fastestRefactorTime,
                    s.fastestRefactor);
            if (row.twin && row.given) s.superGiven = row.factor;
            if (row.tag == "CHOLMOD simp" && row.given) {
                s.cholmodResidual = row.residual;
                if (std::isfinite(row.switchOff)) s.cholmodRows = std::max(row.switchOff, row.switchOn);
            }
            if (!row.given && !row.twin) {
                const double r =
                    std::isnan(row.residual) ? HUGE_VAL : row.residual;  // a failure counts as worst
                if (std::isnan(s.bestAmdResidual) || r < s.bestAmdResidual) {
                    s.bestAmdResidual = r;
                    s.bestAmdResidualPeer = row.tag;
                }
            }
        }
    }
    return out;
}

std::string peerCell(double time, const std::string& who, double ours) {
    if (!std::isfinite(time)) return "—";
    return ms(time) + (who.empty() ? "" : " " + who) + " (" + ratio(time, ours) + ")";
}

std::string fullTable(const std::vector<Row>& rows) {
    std::string t =
        "| scene | blocks | N | solver | order | nnz(L) | analyze | factor | assembly | ×ours | solve | "
        "refine "
        "| residual | refactor | switch off | switch on | switched residual | runs |\n"
        "|---|---:|---:|---|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
    const Row* ours = nullptr;
    for (const Row& row : rows) {
        if (row.tag == "ours") ours = &row;
        char entries[32] = "—";
        if (std::isfinite(row.entries)) std::snprintf(entries, sizeof(entries), "%.3g", row.entries);
        const std::string relative = row.tag == "ours" || !ours ? "—" : ratio(row.factor, ours->factor);
        t += "| " + row.scene + " | " + std::to_string(row.blocks) + " | " + std::to_string(row.N) + " | " +
             row.solver + " | " + row.ordering + " | " + entries + " | " + ms(row.analyze) + " | " +
             ms(row.factor) + " | " + ms(row.assembly) + " | " + relative + " | " + ms(row.solve) + " | " +
             ms(row.refine) + " | " + sci(row.residual) + " | " + ms(row.refactor) + " | " +
             ms(row.switchOff) + " | " + ms(row.switchOn) + " | " + sci(row.switchResidual) + " | " +
             std::to_string(row.runs) + " |" + (row.note.empty() ? "" : " " + row.note) + "\n";
    }
    return t;
}

std::string summaryTable(const std::vector<Summary>& summaries, unsigned int threads, unsigned int switched) {
    const std::string mf = "ours MF " + std::to_string(threads) + " thr";
    std::string t =
        "| scene | blocks | ours serial | fastest peer, our order | fastest peer, own AMD | CHOLMOD "
        "super, our order | " +
        mf + " | solve ours | fastest solve, our order | RankMod " + std::to_string(switched) +
        " eq. | fastest refactor | CHOLMOD rowdel/add | residual ours | CHOLMOD same order | "
        "best own AMD |\n"
        "|---|---:|---:|---|---|---|---|---:|---|---:|---|---|---:|---:|---|\n";
    for (const Summary& s : summaries) {
        std::string mfCell = ms(s.mfN);
        if (std::isfinite(s.mfN) && std::isfinite(s.superGiven))
            mfCell += " (" + ratio(s.superGiven, s.mfN) + ")";
        std::string bestAmd = sci(s.bestAmdResidual);
        if (!s.bestAmdResidualPeer.empty()) bestAmd += " " + s.bestAmdResidualPeer;
        t += "| " + s.scene + " | " + std::to_string(s.blocks) + " | " + ms(s.serial) + " | " +
             peerCell(s.fastestGivenTime, s.fastestGiven, s.serial) + " | " +
             peerCell(s.fastestAmdTime, s.fastestAmd, s.serial) + " | " +
             peerCell(s.superGiven, "", s.serial) + " | " + mfCell + " | " + ms(s.solve) + " | " +
             peerCell(s.fastestSolveTime, s.fastestSolve, s.solve) + " | " + ms(s.bestRankMod()) +
             s.bestRankModOrder() + " | " +
             peerCell(s.fastestRefactorTime, s.fastestRefactor, s.bestRankMod()) + " | " +
             peerCell(s.cholmodRows, "", s.bestRankMod()) + " | " + sci(s.residual) + " | " +
             sci(s.cholmodResidual) + " | " + bestAmd + " |\n";
    }
    return t;
}

// "✓" or "✗" with the measured figure.
std::string verdict(bool met, const std::string& figure) {
    return std::string(met ? "✓ " : "✗ ") + figure;
}

// The goals set for this comparison, per scene and size, with the measured figure. Factor (assembly of the
// values included): small scenes of about 1,000 blocks faster than the fastest peer; tree-like scenes from
// 10,000 blocks at least 2× faster than the fastest peer in our order and than the fastest in its own order;
// high-fill scenes from 10,000 blocks at least 1.5× faster than the fastest peer in its best setting.
// Multifrontal on N threads faster than CHOLMOD's supernodal in our order (from 10,000 blocks). Solve at
// least 1.2× faster than the fastest peer's in our order; one refinement step at most 1.5 solves. RankMod at
// least 10× faster than the fastest refactorization. Refined residual within 10× of CHOLMOD's in our order
// and below every own-AMD peer's. The factor and solve ratios are the paired ones (medians of per-round
// ratios, interleaved) when the paired phase ran, the ratios of the medians otherwise.
std::string targetTable(const std::vector<Summary>& summaries, unsigned int threads) {
    std::string t = "| scene | blocks | factor | MF " + std::to_string(threads) +
                    " thr vs CHOLMOD super | solve | refinement step | RankMod vs refactor | residual |\n"
                    "|---|---:|---|---|---|---|---|---|\n";
    auto r = [](double a, double b) {
        return std::isfinite(a) && std::isfinite(b) && b > 0 ? a / b : notMeasured;
    };
    auto times = [](double v) {
        if (!std::isfinite(v)) return std::string("—");
        char text[32];
        std::snprintf(text, sizeof(text), "%.2f×", v);
        return std::string(text);
    };
    for (const Summary& s : summaries) {
        const bool treeLike = s.scene == "chain" || s.scene == "ragdolls";
        const bool large = s.target >= 10000, small = s.target <= 2000;
        const double given = std::isfinite(s.pairedGiven) ? s.pairedGiven : r(s.fastestGivenTime, s.serial);
        const double amd = std::isfinite(s.pairedAmd) ? s.pairedAmd : r(s.fastestAmdTime, s.serial);
        const double worst = std::fmin(given, amd);  // against the faster of the two settings
        std::string factor = "—", mf = "—";
        if (std::isfinite(worst) && small) {
            factor = verdict(worst > 1.0, "fastest peer / ours " + times(worst));
        } else if (std::isfinite(worst) && large && treeLike) {
            factor = verdict(given >= 2.0 && amd >= 2.0, "fastest peer / ours: our order " + times(given) +
                                                             ", own AMD " + times(amd) + " (goal ≥ 2×)");
        } else if (std::isfinite(worst) && large) {
            factor =
                verdict(worst >= 1.5, "fastest peer, best setting / ours " + times(worst) + " (goal ≥ 1.5×)");
        }
        if (large && std::isfinite(s.superGiven))
            mf = verdict(r(s.superGiven, s.mfN) > 1.0, "super / MF " + ratio(s.superGiven, s.mfN));
        std::string solve = "—", refine = "—", update = "—", residual = "—";
        const double solveRatio =
            std::isfinite(s.pairedSolve) ? s.pairedSolve : r(s.fastestSolveTime, s.solve);
        if (std::isfinite(solveRatio))
            solve = verdict(solveRatio >= 1.2, "fastest peer / ours " + times(solveRatio) + " (goal ≥ 1.2×)");
        if (std::isfinite(s.refinePerSolve))
            refine = verdict(s.refinePerSolve <= 1.5, times(s.refinePerSolve) + " a solve (goal ≤ 1.5×)");
        if (std::isfinite(s.fastestRefactorTime))
            update = verdict(r(s.fastestRefactorTime, s.bestRankMod()) >= 10.0,
                             "refactor / RankMod " + ratio(s.fastestRefactorTime, s.bestRankMod()) +
                                 " (goal ≥ 10×)" + s.bestRankModOrder());
        if (std::isfinite(s.cholmodResidual) && !std::isnan(s.bestAmdResidual))
            residual =
                verdict(s.residual <= 10.0 * s.cholmodResidual && s.residual < s.bestAmdResidual,
                        sci(s.residual) + " vs " + sci(s.cholmodResidual) + " and " + sci(s.bestAmdResidual));
        t += "| " + s.scene + " | " + std::to_string(s.blocks) + " | " + factor + " | " + mf + " | " + solve +
             " | " + refine + " | " + update + " | " + residual + " |\n";
    }
    return t;
}

void writeFullCsv(const std::string& path, const std::vector<Row>& rows) {
    std::ofstream out(path);
    out << "scene,blocks,N,solver,order,nnz_L,analyze_ms,factor_ms,assembly_ms,factor_vs_ours,solve_ms,"
           "refine_ms,"
           "residual_solve,residual_refined,refactor_ms,switch_off_ms,switch_on_ms,switched_residual,runs,"
           "note\n";
    const Row* ours = nullptr;
    for (const Row& row : rows) {
        if (row.tag == "ours") ours = &row;
        const double relative = ours && row.tag != "ours" ? row.factor / ours->factor : notMeasured;
        out << row.scene << ',' << row.blocks << ',' << row.N << ',' << csvText(row.solver) << ','
            << csvText(row.ordering) << ',' << csvNumber(row.entries) << ',' << csvNumber(row.analyze * 1e3)
            << ',' << csvNumber(row.factor * 1e3) << ',' << csvNumber(row.assembly * 1e3) << ','
            << csvNumber(relative) << ',' << csvNumber(row.solve * 1e3) << ',' << csvNumber(row.refine * 1e3)
            << ',' << csvNumber(row.residualSolve) << ',' << csvNumber(row.residual) << ','
            << csvNumber(row.refactor * 1e3) << ',' << csvNumber(row.switchOff * 1e3) << ','
            << csvNumber(row.switchOn * 1e3) << ',' << csvNumber(row.switchResidual) << ',' << row.runs << ','
            << csvText(row.note) << '\n';
    }
}

void writeSummaryCsv(const std::string& path, const std::vector<Summary>& summaries) {
    std::ofstream out(path);
    out << "scene,blocks,N,ours_serial_ms,ours_mf1_ms,ours_mfN_ms,fastest_peer_our_order,"
           "fastest_peer_our_order_ms,fastest_peer_own_amd,fastest_peer_own_amd_ms,cholmod_super_our_order_"
           "ms,"
           "ours_solve_ms,fastest_solve_our_order,fastest_solve_our_order_ms,rankmod_switch_ms,fastest_"
           "refactor,"
           "fastest_refactor_ms,cholmod_rowdel_rowadd_ms,ours_residual,cholmod_same_order_residual,"
           "best_own_amd_residual,ours_serial_centroid_ms,rankmod_switch_centroid_ms,paired_factor_our_order,"
           "paired_factor_own_amd,paired_solve_our_order,paired_rounds,ours_refine_per_solve\n";
    for (const Summary& s : summaries)
        out << s.scene << ',' << s.blocks << ',' << s.N << ',' << csvNumber(s.serial * 1e3) << ','
            << csvNumber(s.mf1 * 1e3) << ',' << csvNumber(s.mfN * 1e3) << ',' << csvText(s.fastestGiven)
            << ',' << csvNumber(s.fastestGivenTime * 1e3) << ',' << csvText(s.fastestAmd) << ','
            << csvNumber(s.fastestAmdTime * 1e3) << ',' << csvNumber(s.superGiven * 1e3) << ','
            << csvNumber(s.solve * 1e3) << ',' << csvText(s.fastestSolve) << ','
            << csvNumber(s.fastestSolveTime * 1e3) << ',' << csvNumber(s.rankMod * 1e3) << ','
            << csvText(s.fastestRefactor) << ',' << csvNumber(s.fastestRefactorTime * 1e3) << ','
            << csvNumber(s.cholmodRows * 1e3) << ',' << csvNumber(s.residual) << ','
            << csvNumber(s.cholmodResidual) << ',' << csvNumber(s.bestAmdResidual) << ','
            << csvNumber(s.serialCentroid * 1e3) << ',' << csvNumber(s.rankModCentroid * 1e3) << ','
            << csvNumber(s.pairedGiven) << ',' << csvNumber(s.pairedAmd) << ',' << csvNumber(s.pairedSolve)
            << ',' << s.pairedRounds << ',' << csvNumber(s.refinePerSolve) << '\n';
}

bool commandWorks(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// Factor time against blocks, one panel per scene and one line per solver and setting. Returns the message
// to print.
std::string plot(const std::string& dir, const std::vector<Row>& rows) {
    // Series in first-seen order; per scene a data file with one column per series.
    std::vector<std::string> series, sceneNames;
    std::map<std::string, std::map<unsigned long, std::map<std::string, double>>> times;
    for (const Row& row : rows) {
        const std::string name = row.ours ? row.solver : row.tag + " (" + row.ordering + ")";
        if (std::find(series.begin(), series.end(), name) == series.end()) series.push_back(name);
        if (std::find(sceneNames.begin(), sceneNames.end(), row.scene) == sceneNames.end())
            sceneNames.push_back(row.scene);
        times[row.scene][row.blocks][name] = row.factor * 1e3;
    }
    for (const std::string& scene : sceneNames) {
        std::ofstream out(dir + "/factor-" + scene + ".dat");
        out << "blocks";
        for (const std::string& s : series) out << " \"" << s << '"';
        out << '\n';
        for (const auto& bySize : times[scene]) {
            out << bySize.first;
            for (const std::string& s : series) {
                const auto it = bySize.second.find(s);
                out << ' '
                    << (it == bySize.second.end() || !std::isfinite(it->second) ? std::string("NaN")
                                                                                : csvNumber(it->second));
            }
            out << '\n';
        }
    }
    const std::string png = dir + "/factor-times.png";
    if (commandWorks("command -v gnuplot")) {
        std::ofstream gp(dir + "/factor-times.gp");
        gp << "if (strstrt(GPVAL_TERMINALS, 'pngcairo') > 0) { set terminal pngcairo size 1400,1000 font "
              "',10' } "
              "else { set terminal png size 1400,1000 }\n"
           << "set output '" << png << "'\nset datafile missing 'NaN'\nset logscale xy\nset grid\n"
           << "set key bottom right font ',8'\nset xlabel 'blocks'\nset ylabel 'factor time (ms, median)'\n"
           << "set multiplot layout 2,2 title 'Factor time against size'\n";
        for (const std::string& scene : sceneNames) {
            gp << "set title '" << scene << "'\nplot ";
            for (std::size_t c = 0; c < series.size(); ++c) {
                const bool ours = series[c].compare(0, 9, "kivTamber") == 0;
                const bool amd = series[c].find("own AMD") != std::string::npos;
                gp << (c ? ", " : "") << "'" << dir << "/factor-" << scene << ".dat' using 1:" << c + 2
                   << " with linespoints lw " << (ours ? 3 : 1.5) << " dt " << (amd ? 2 : 1)
                   << " title columnheader(" << c + 2 << ")";
            }
            gp << "\n";
        }
        gp << "unset multiplot\n";
        gp.close();
        if (commandWorks("gnuplot '" + dir + "/factor-times.gp'")) return "plot: " + png + " (gnuplot)";
        return "plot failed: gnuplot could not run " + dir + "/factor-times.gp";
    }
    for (const char* python : {"/usr/bin/python3", "python3"}) {
        if (!commandWorks(std::string(python) + " -c 'import matplotlib'")) continue;
        std::ofstream py(dir + "/factor-times.py");
        py << "import matplotlib\nmatplotlib.use('Agg')\nimport matplotlib.pyplot as plt\nimport shlex, "
              "math\n"
           << "scenes = [";
        for (const std::string& scene : sceneNames) py << "'" << scene << "', ";
        py << "]\nfig, axes = plt.subplots(2, 2, figsize=(14, 10))\n"
           << "for ax, scene in zip(axes.flat, scenes):\n"
           << "    lines = open('" << dir << "/factor-' + scene + '.dat').read().splitlines()\n"
           << "    names = shlex.split(lines[0])[1:]\n"
           << "    data = [[float(v) for v in l.split()] for l in lines[1:]]\n"
           << "    for c, name in enumerate(names):\n"
           << "        pts = [(r[0], r[c + 1]) for r in data if not math.isnan(r[c + 1])]\n"
           << "        if pts:\n"
           << "            ax.loglog(*zip(*pts), marker='o', label=name,\n"
           << "                      linewidth=3 if name.startswith('kivTamber') else 1.5,\n"
           << "                      linestyle='--' if 'own AMD' in name else '-')\n"
           << "    ax.set_title(scene); ax.set_xlabel('blocks'); ax.set_ylabel('factor time (ms, median)')\n"
           << "    ax.grid(True, which='both', alpha=0.3); ax.legend(fontsize=7, loc='lower right')\n"
           << "fig.suptitle('Factor time against size')\nfig.tight_layout()\nfig.savefig('" << png << "')\n";
        py.close();
        if (commandWorks(std::string(python) + " '" + dir + "/factor-times.py'"))
            return "plot: " + png + " (python3-matplotlib)";
        return "plot failed: " + std::string(python) + " could not run " + dir + "/factor-times.py";
    }
    return "plot skipped: neither gnuplot nor python3-matplotlib is installed (Debian packages gnuplot-nox, "
           "python3-matplotlib)";
}

void usage() {
    std::printf(
        "Usage: tamber-bench [options]\n"
        "  --sizes LIST     block counts per scene, comma separated (default 1000,10000,50000)\n"
        "  --scenes LIST    chain,ragdolls,cloth,boxwall (default all)\n"
        "  --runs N         repetitions per measurement, the median is reported (default 7)\n"
        "  --budget S       seconds after which a measurement stops repeating (default 2)\n"
        "  --threads N      threads of the second multifrontal column (default 2)\n"
        "  --switch N       constraint equations switched in the update phase (default 10)\n"
        "  --out DIR        folder of the Markdown, CSV and plot files (default bench-results)\n"
        "  --no-peers       run our columns only\n"
        "  --no-plot        do not draw the plot\n");
}

bool parseArguments(int argc, char** argv, Settings& s) {
    for (int a = 1; a < argc; ++a) {
        const std::string arg = argv[a];
        const bool hasValue = a + 1 < argc;
        if (arg == "--no-peers") {
            s.peers = false;
        } else if (arg == "--no-plot") {
            s.plot = false;
        } else if (arg == "--help" || arg == "-h") {
            usage();
            std::exit(0);
        } else if (!hasValue) {
            std::fprintf(stderr, "tamber-bench: unknown option or missing value: %s\n", arg.c_str());
            return false;
        } else {
            const std::string value = argv[++a];
            if (arg == "--sizes") {
                s.sizes.clear();
                for (const std::string& v : split(value, ','))
                    s.sizes.push_back(std::strtoul(v.c_str(), nullptr, 10));
            } else if (arg == "--scenes") {
                s.scenes.clear();
                for (const std::string& v : split(value, ',')) {
                    SceneKind kind;
                    if (!parseScene(v, kind)) {
                        std::fprintf(stderr, "tamber-bench: unknown scene %s\n", v.c_str());
                        return false;
                    }
                    s.scenes.push_back(kind);
                }
            } else if (arg == "--runs") {
                s.runs = std::max(1, std::atoi(value.c_str()));
            } else if (arg == "--budget") {
                s.budget = std::max(0.0, std::atof(value.c_str()));
            } else if (arg == "--threads") {
                s.threads = static_cast<unsigned int>(std::max(1, std::atoi(value.c_str())));
            } else if (arg == "--switch") {
                s.switchCount = static_cast<unsigned int>(std::max(1, std::atoi(value.c_str())));
            } else if (arg == "--out") {
                s.outDir = value;
            } else {
                std::fprintf(stderr, "tamber-bench: unknown option %s\n", arg.c_str());
                return false;
            }
        }
    }
    for (unsigned long size : s.sizes)
        if (size == 0) {
            std::fprintf(stderr, "tamber-bench: sizes must be positive block counts\n");
            return false;
        }
    return !s.sizes.empty() && !s.scenes.empty();
}

}  // namespace

int main(int argc, char** argv) {
    Settings settings;
    if (!parseArguments(argc, argv, settings)) {
        usage();
        return 2;
    }
    std::sort(settings.sizes.begin(), settings.sizes.end());
    mkdir(settings.outDir.c_str(), 0755);

    std::string header = "## tamber-bench\n\n";
    header += "Machine: " + cpuModel() + ", " + std::to_string(std::thread::hardware_concurrency()) +
              " logical processors. Compiler: " + std::string(__VERSION__) +
#ifdef NDEBUG
              ", optimised build.\n";
#else
              ", NOT an optimised build: the times are not representative.\n";
#endif
    const std::vector<std::string> missing = missingPeerLibraries();
    const std::vector<std::string> available = availablePeerLibraries();
    if (!settings.peers) {
        std::string names;
        for (const std::string& n : available) names += (names.empty() ? "" : ", ") + n;
        header += "Peers switched off by --no-peers" + (names.empty() ? std::string() : " (" + names + ")") +
                  ": our columns only.\n";
    }
    if (!missing.empty()) {
        std::string names;
        for (const std::string& n : missing) names += (names.empty() ? "" : ", ") + n;
        header += "Peers missing from this build: " + names + ". Install them and rebuild to compare.\n";
    }
    if (settings.peers && !available.empty()) {
        const std::string blas = blasLibrary();
        if (!blas.empty()) header += "BLAS under CHOLMOD's supernodal factorization: " + blas + ".\n";
    }
    header += "Load average (1 min) at the start: " + loadAverage() + ".\n";
    std::printf("%s", header.c_str());
    std::fflush(stdout);

    std::vector<Row> rows;
    std::vector<std::string> notes;
    const Clock::time_point start = Clock::now();
    bool firstScene = true, allAnalysed = true;
    for (SceneKind kind : settings.scenes)
        for (unsigned long size : settings.sizes) {
            SceneRun sceneRun(settings, kind, size);
            allAnalysed = sceneRun.run(rows, notes, firstScene) && allAnalysed;
            firstScene = false;
        }
    const double total = since(start);

    const std::vector<Summary> summaries = summarise(rows);
    std::string text = header;
    char line[256];
    std::snprintf(
        line, sizeof(line),
        "Load average (1 min) at the end: %s.\n\nMedian times in milliseconds (up to %d runs each), %u "
        "equations switched, run time %.0f s.\n\n",
        loadAverage().c_str(), settings.runs, settings.switchCount, total);
    text += line;
    text += "### Summary\n\n" + summaryTable(summaries, settings.threads, settings.switchCount);
    text +=
        "\nPeer cells: time, the fastest peer, and (peer time / ours): above 1× we are faster. The MF cell's "
        "ratio is CHOLMOD supernodal (our order) / ours MF. The residual is ‖A·x − b‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞) "
        "after one step of iterative refinement, against the saddle-point matrix (also for the regularised "
        "copies).\n";
    if (settings.peers && !available.empty())
        text +=
            "\n### Goals\n\n" + targetTable(summaries, settings.threads) +
            "\nFactor goal (assembly of the values included): about 1,000 blocks, faster than the fastest "
            "peer; chain and ragdolls from 10,000 blocks, at least 2× faster than the fastest peer in our "
            "order and than the fastest in its own order; cloth and box wall from 10,000 blocks, at least "
            "1.5× faster than the fastest peer in its best setting. Solve goal: at least 1.2× faster than "
            "the fastest peer in our order; a refinement step at most 1.5 solves (ours). The factor, solve "
            "and refinement ratios here are paired: after the rows below, our step (factorization, solve, "
            "one refinement step, a second solve to compare it with) and the fastest peers' run in "
            "interleaved rounds (the order rotating) and "
            "each figure is the median of the per-round ratios, "
            "so that the machine's speed swings fall on both sides alike. Residual: ours vs CHOLMOD "
            "simplicial in our order (goal: within 10×) and vs the best own-AMD peer (goal: below).\n";
    text += "\n### Every solver\n\n" + fullTable(rows);
    text +=
        "\nOrders: \"ours\" is our analysis's elimination order expanded to scalars, on the saddle-point "
        "matrix; our rows analyse with block merging (Analysis::Options::mergeBlocks), so our nnz(L) counts "
        "the explicit zeros of merged blocks; "
        "\"own AMD, −1e-8\" is the peer's AMD on a copy with −1e-8 on the constraint diagonal; the SPD twin "
        "(off-diagonals of A, diagonal 1 + row sum) is for CHOLMOD's supernodal L·Lᵀ, which cannot factor a "
        "saddle-point matrix. \"centroid\" (scenes whose bodies form a forest) is "
        "Analysis::Ordering::centroid, "
        "a shallow order for equation switching; the summary's RankMod cell takes the faster of the two "
        "orders and says so. Our factor time includes the assembly of the values into the factor's order "
        "(setBlocksAndFactor: each block column written just before it is factored; the assembly column is "
        "setBlocks alone, timed apart); the multifrontal rows' analyze column is their one-time preparation; "
        "our solve "
        "includes the "
        "permutations of b and x. Refactor: the peer's numeric factorization of the matrix with the switched "
        "equations replaced by unit equations; switch off/on: RankMod (batched) for us, cholmod_rowdel / "
        "cholmod_rowadd for CHOLMOD's simplicial factor; switched residual: a solve with the modified factor "
        "against the changed matrix. CHOLMOD post-orders the elimination tree of the order it is given (its "
        "default; the same factor entries).\n";
    for (const std::string& note : notes) text += "\nNote: " + note + ".\n";
    if (!allAnalysed) text += "\nSome scenes could not be analysed (see the messages above).\n";

    std::printf("%s", text.substr(header.size()).c_str());
    std::ofstream(settings.outDir + "/tamber-bench.md") << text;
    writeFullCsv(settings.outDir + "/tamber-bench.csv", rows);
    writeSummaryCsv(settings.outDir + "/tamber-bench-summary.csv", summaries);
    std::printf("\nWritten: %s/tamber-bench.md, %s/tamber-bench.csv, %s/tamber-bench-summary.csv\n",
                settings.outDir.c_str(), settings.outDir.c_str(), settings.outDir.c_str());
    if (settings.plot) std::printf("%s\n", plot(settings.outDir, rows).c_str());
    return allAnalysed ? 0 : 1;
}
