// Elimination tree of a random block pattern: TreeUpdate::computeTree (skeleton form), then
// Tree::computeTreeStructure and Tree::computePostOrder on its result. Prints the pattern sizes and the
// median, minimum and maximum of repeated runs of each step.
//
// Usage: TreeBench [blocks [entries per column [runs]]]   (defaults 1000000 5 7)
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "EliminationTree.h"
#include "SkeletonMatrix.h"
#include "TreeUpdate.h"

using namespace kivTamber;

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Stats {
    double median, min, max;
};

Stats summarize(std::vector<double> t) {
    std::sort(t.begin(), t.end());
    return {t[t.size() / 2], t.front(), t.back()};
}

void report(const char* what, const Stats& s) {
    std::printf("%-24s median %9.3f ms   min %9.3f ms   max %9.3f ms\n", what, 1e3 * s.median, 1e3 * s.min,
                1e3 * s.max);
}

// Column j holds up to perColumn - 1 distinct random blocks i < j, ascending, then j itself.
void randomPattern(SkeletonMatrix& S, unsigned int n, unsigned int perColumn, unsigned int seed) {
    std::mt19937 rng(seed);
    std::vector<unsigned int> colPointers(n + 1, 0), rows;
    rows.reserve(static_cast<size_t>(n) * perColumn);
    std::vector<unsigned int> pick;
    for (unsigned int j = 0; j < n; ++j) {
        colPointers[j] = static_cast<unsigned int>(rows.size());
        pick.clear();
        const unsigned int want = std::min(perColumn - 1, j);
        while (pick.size() < want) {
            const unsigned int i = static_cast<unsigned int>(rng() % j);
            if (std::find(pick.begin(), pick.end(), i) == pick.end()) pick.push_back(i);
        }
        std::sort(pick.begin(), pick.end());
        rows.insert(rows.end(), pick.begin(), pick.end());
        rows.push_back(j);
    }
    colPointers[n] = static_cast<unsigned int>(rows.size());
    S.resize(n, rows.size(), false);
    std::copy(colPointers.begin(), colPointers.end(), S.colPointers);
    std::copy(rows.begin(), rows.end(), S.rowIndices);
}

}  // namespace

int main(int argc, char** argv) {
    const unsigned int n =
        argc > 1 ? static_cast<unsigned int>(std::strtoul(argv[1], nullptr, 10)) : 1000000u;
    const unsigned int perColumn =
        argc > 2 ? static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10)) : 5u;
    const int runs = argc > 3 ? std::atoi(argv[3]) : 7;
    if (n == 0 || perColumn == 0 || runs <= 0) {
        std::fprintf(stderr, "usage: TreeBench [blocks >= 1 [entries per column >= 1 [runs >= 1]]]\n");
        return 1;
    }

    SkeletonMatrix S;
    randomPattern(S, n, perColumn, 12345u);
    std::vector<unsigned int> active(n, 1u);
    EliminationTree tree;
    tree.allocateMemory(n);
    tree.numNodes = n;

    std::vector<double> tBuild, tStructure, tPost;
    for (int r = 0; r < runs; ++r) {
        Clock::time_point t0 = Clock::now();
        TreeUpdate::computeTree(&tree, S, active.data());
        tBuild.push_back(secondsSince(t0));

        t0 = Clock::now();
        tree.computeTreeStructure();
        tStructure.push_back(secondsSince(t0));

        t0 = Clock::now();
        tree.computePostOrder();
        tPost.push_back(secondsSince(t0));
    }

    // Shape of the result, so that the figures can be judged.
    unsigned long height = 0;
    std::vector<unsigned int> depth(n, 0);
    for (unsigned int x = n; x-- > 0;) {
        const unsigned int p = tree.parent[x];
        depth[x] = p == x ? 0 : depth[p] + 1;  // parents have larger indices
        height = std::max<unsigned long>(height, depth[x]);
    }
    unsigned long rootCount = 0;
    for (unsigned int x = 0; x < n; ++x) rootCount += tree.parent[x] == x;

    std::printf("blocks %u, stored entries %lu (%.2f per column), runs %d\n", n, S.numEntries(),
                static_cast<double>(S.numEntries()) / n, runs);
    std::printf("tree: %lu roots, height %lu\n", rootCount, height);
    report("computeTree (skeleton)", summarize(tBuild));
    report("computeTreeStructure", summarize(tStructure));
    report("computePostOrder", summarize(tPost));
    return 0;
}
