// Scalar Matrix Market files factored as block problems: the blocks found by Analysis::detectBlocks against
// uniform blocks of a hand-given size (1, 2, 3, 4, 6, 8 rows; bodies and constraints grouped apart, as a
// blocks file names them). For each partition: blocks, the analysis time (default options: merging on),
// the median serial factorization time (setBlocks included) over `runs`, nnz(L) and the scaled residual of a
// solve. The first constraint row comes from the matrix's .blocks file (n1) when there is one, else all rows
// are bodies. Then the peers' simplicial LDLᵀ factorizations (tools/bench/Peers.h) in the scalar order of
// the detected run, on the same matrix (median factorization time over `runs`).
//
// Usage: ScalarBlocksBench [runs (default 5)] file.mtx[.gz] ...
#include <kiv/Timer.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Analysis.h"
#include "ScalarBlocks.h"
#include "Tamber.h"
#include "bench/Peers.h"

using namespace kivTamber;

namespace {

double seconds(std::uint64_t start) {
    return kiv::Timer::seconds(start, kiv::Timer::ticks());
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// The lower triangle of a `coordinate real symmetric` file as CSC (rows ascending, duplicates summed).
struct Matrix {
    unsigned int n = 0;
    std::vector<unsigned int> cp, ri;
    std::vector<double> values;
};

bool readMatrix(const std::string& path, Matrix& m) {
    const bool gz = path.size() > 3 && path.compare(path.size() - 3, 3, ".gz") == 0;
    FILE* f = gz ? popen(("gzip -dc '" + path + "'").c_str(), "r") : std::fopen(path.c_str(), "r");
    if (!f) return false;
    char line[1024];
    bool header = false;
    unsigned long rows = 0, cols = 0, nnz = 0, read = 0;
    std::vector<std::pair<unsigned long, double>> entries;  // (col·n + row, value)
    while (std::fgets(line, sizeof line, f)) {
        if (line[0] == '%') continue;
        if (!header) {
            if (std::sscanf(line, "%lu %lu %lu", &rows, &cols, &nnz) != 3 || rows != cols) break;
            header = true;
            entries.reserve(nnz);
            continue;
        }
        unsigned long i = 0, j = 0;
        double v = 0.0;
        if (std::sscanf(line, "%lu %lu %lf", &i, &j, &v) != 3) break;
        if (i < j) std::swap(i, j);
        entries.emplace_back((j - 1) * rows + (i - 1), v);
        ++read;
    }
    if (gz)
        pclose(f);
    else
        std::fclose(f);
    if (!header || read != nnz) return false;
    std::sort(entries.begin(), entries.end());
    m.n = static_cast<unsigned int>(rows);
    m.cp.assign(m.n + 1, 0);
    m.ri.clear();
    m.values.clear();
    for (std::size_t k = 0; k < entries.size(); ++k) {
        const unsigned int i = static_cast<unsigned int>(entries[k].first % rows);
        const unsigned int j = static_cast<unsigned int>(entries[k].first / rows);
        if (k > 0 && entries[k].first == entries[k - 1].first) {
            m.values.back() += entries[k].second;
            continue;
        }
        m.ri.push_back(i);
        m.values.push_back(entries[k].second);
        ++m.cp[j + 1];
    }
    for (unsigned int j = 0; j < m.n; ++j) m.cp[j + 1] += m.cp[j];
    return true;
}

unsigned int bodyRows(const std::string& mtx, unsigned int n) {
    std::string path = mtx;
    for (const char* ext : {".gz", ".mtx"})
        if (path.size() > std::strlen(ext) &&
            path.compare(path.size() - std::strlen(ext), std::strlen(ext), ext) == 0)
            path.resize(path.size() - std::strlen(ext));
    FILE* f = std::fopen((path + ".blocks").c_str(), "r");
    if (!f) return n;
    char line[256];
    unsigned int n1 = n;
    while (std::fgets(line, sizeof line, f)) {
        unsigned long v = 0;
        if (std::sscanf(line, "n1 %lu", &v) == 1)
            n1 = static_cast<unsigned int>(std::min<unsigned long>(v, n));
    }
    std::fclose(f);
    return n1;
}

// y = A·x for the symmetric matrix stored by its lower triangle.
void multiply(const Matrix& m, const std::vector<double>& x, std::vector<double>& y) {
    y.assign(m.n, 0.0);
    for (unsigned int j = 0; j < m.n; ++j) {
        for (unsigned int e = m.cp[j]; e < m.cp[j + 1]; ++e) {
            const unsigned int i = m.ri[e];
            y[i] += m.values[e] * x[j];
            if (i != j) y[j] += m.values[e] * x[i];
        }
    }
}

void run(const char* name, const Matrix& m, unsigned int firstConstraintRow, const char* label,
         const std::vector<unsigned int>& sizes, bool peel, int runs,
         std::vector<int>* scalarOrder = nullptr) {
    Analysis::ScalarProblem sp;
    std::string message;
    if (!sp.build(m.n, firstConstraintRow, m.cp.data(), m.ri.data(), static_cast<unsigned int>(sizes.size()),
                  sizes.data(), &message)) {
        std::printf("%-24s %-10s %s\n", name, label, message.c_str());
        return;
    }
    std::vector<double> blockValues(sp.numValues());
    sp.scatter(m.values.data(), blockValues.data());
    Analysis::Analyzer analyzer;
    Analysis::Options options;
    options.peel = peel;
    TamberData<double> data;
    Tamber tamber;
    std::vector<double> analysis, estimate, factor;
    Analysis::Report r;
    for (int k = 0; k < runs; ++k) {
        const std::uint64_t t = kiv::Timer::ticks();
        r = analyzer.analyze(sp.problem(), options, data);
        if (!r.ok) break;
        analysis.push_back(seconds(t));
        const std::uint64_t t2 = kiv::Timer::ticks();
        tamber.estimateWork(data, nullptr);
        estimate.push_back(seconds(t2));
    }
    if (!r.ok) {
        std::printf("%-24s %-10s analysis failed: %s\n", name, label, r.message.c_str());
        return;
    }
    for (int k = 0; k < runs; ++k) {
        const std::uint64_t t = kiv::Timer::ticks();
        analyzer.setBlocks(data, blockValues.data(), sp.valuePointers().data());
        tamber.factorSerial(data);
        factor.push_back(seconds(t));
    }
    if (scalarOrder) {
        scalarOrder->clear();
        for (unsigned int k = 0; k < sp.numBlocks(); ++k) {
            const unsigned int b = analyzer.order()[k];
            for (unsigned int q = sp.blockOffsets()[b]; q < sp.blockOffsets()[b + 1]; ++q)
                scalarOrder->push_back(static_cast<int>(q));
        }
    }
    std::vector<double> ones(m.n, 1.0), b, bp(m.n), xp(m.n), x(m.n), Ax;
    multiply(m, ones, b);
    analyzer.permuteVector(b.data(), bp.data());
    tamber.solve(data, bp.data(), xp.data());
    analyzer.unpermuteVector(xp.data(), x.data());
    multiply(m, x, Ax);
    double res = 0.0, bn = 0.0;
    for (unsigned int i = 0; i < m.n; ++i) {
        const double d = std::fabs(Ax[i] - b[i]);
        res = d > res || d != d ? d : res;  // a NaN stays
        bn = std::max(bn, std::fabs(b[i]));
    }
    std::printf("%-24s %-10s %7u %7lu %9.2f %9.2f %9.2f %11lu %9.1e  %s\n", name, label, sp.numBlocks(),
                r.mergedBlocks, 1e3 * median(analysis), 1e3 * median(estimate), 1e3 * median(factor),
                r.cost.scalarEntries, res / bn, r.usedNestedDissection ? "nd" : "md");
    std::printf("    check %.2f order %.2f symbolic %.2f layout %.2f ms; md %.3g nd %.3g model flops\n",
                1e3 * r.checkSeconds, 1e3 * r.orderSeconds, 1e3 * r.symbolicSeconds, 1e3 * r.layoutSeconds,
                r.minimumDegreeCost.modelFlops(), r.nestedDissectionCost.modelFlops());
    std::fflush(stdout);
}

// The peers' factorizations in the given scalar order, on the upper triangle with every diagonal stored.
void peers(const char* name, const Matrix& m, const std::vector<int>& order, int runs) {
    bench::ScalarMatrix A;
    A.n = static_cast<int>(m.n);
    std::vector<std::vector<std::pair<int, double>>> columns(m.n);  // upper: column i holds row j <= i
    for (unsigned int j = 0; j < m.n; ++j)
        for (unsigned int e = m.cp[j]; e < m.cp[j + 1]; ++e)
            columns[m.ri[e]].emplace_back(static_cast<int>(j), m.values[e]);
    A.colPointers.assign(1, 0);
    for (unsigned int i = 0; i < m.n; ++i) {
        std::vector<std::pair<int, double>>& c = columns[i];
        std::sort(c.begin(), c.end());
        if (c.empty() || c.back().first != static_cast<int>(i)) c.emplace_back(static_cast<int>(i), 0.0);
        for (const auto& rv : c) {
            A.rowIndices.push_back(rv.first);
            A.values.push_back(rv.second);
        }
        A.colPointers.push_back(static_cast<int>(A.rowIndices.size()));
    }
    for (bench::PeerEntry& p : bench::makePeers()) {
        if (p.positiveDefiniteOnly) continue;
        if (!p.peer->analyze(A, bench::PeerOrdering::given, order.data())) {
            std::printf("%-24s %-24s analysis failed: %s\n", name, p.peer->name(),
                        p.peer->lastError().c_str());
            continue;
        }
        std::vector<double> times;
        bool ok = true;
        for (int k = 0; k < runs && ok; ++k) {
            const std::uint64_t t = kiv::Timer::ticks();
            ok = p.peer->factor(A);
            times.push_back(seconds(t));
        }
        std::printf("%-24s %-24s %29s %9.2f %11.0f%s\n", name, p.peer->name(), "", 1e3 * median(times),
                    p.peer->factorEntries(), ok ? "" : " (failed)");
    }
}

std::vector<unsigned int> uniform(unsigned int n, unsigned int firstConstraintRow, unsigned int k) {
    std::vector<unsigned int> sizes;
    for (unsigned int r = 0; r < firstConstraintRow; r += k)
        sizes.push_back(std::min(k, firstConstraintRow - r));
    for (unsigned int r = firstConstraintRow; r < n; r += k) sizes.push_back(std::min(k, n - r));
    return sizes;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1, runs = 5;
    if (argc > 1 && std::atoi(argv[1]) > 0) {
        runs = std::atoi(argv[1]);
        first = 2;
    }
    std::printf("%-24s %-10s %7s %7s %9s %9s %9s %11s %9s  order\n", "matrix", "blocks", "blocks", "groups",
                "analyse", "estimate", "factor", "nnz(L)", "residual");
    for (int a = first; a < argc; ++a) {
        Matrix m;
        if (!readMatrix(argv[a], m)) {
            std::printf("%s: cannot read\n", argv[a]);
            continue;
        }
        const char* slash = std::strrchr(argv[a], '/');
        const std::string name = slash ? slash + 1 : argv[a];
        const unsigned int n1 = bodyRows(argv[a], m.n);
        std::string message;
        Analysis::DetectedBlocks found;
        const std::uint64_t t = kiv::Timer::ticks();
        if (!Analysis::detectBlocks(m.n, n1, m.cp.data(), m.ri.data(), found, &message)) {
            std::printf("%s: %s\n", name.c_str(), message.c_str());
            continue;
        }
        const double detectMs = 1e3 * seconds(t);
        std::printf(
            "%-24s detected %u blocks in %.2f ms (largest %u rows, %u of more than one row holding %lu "
            "rows, %u of them constraints)\n",
            name.c_str(), found.numBlocks, detectMs, found.largestBlock, found.multiRowBlocks,
            found.rowsInMultiRowBlocks, found.multiRowConstraintBlocks);
        std::vector<int> order;
        run(name.c_str(), m, n1, "detected", found.blockSizes, found.multiRowConstraintBlocks == 0, runs,
            &order);
        peers(name.c_str(), m, order, runs);
        for (unsigned int k : {1u, 2u, 3u, 4u, 6u, 8u}) {
            char label[16];
            std::snprintf(label, sizeof label, "size %u", k);
            run(name.c_str(), m, n1, label, uniform(m.n, n1, k), true, runs);
        }
    }
    return 0;
}
