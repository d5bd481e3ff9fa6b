#include "demo/DemoSupport.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace kivTamber {
namespace demo {

namespace {

struct SceneName {
    const char* name;
    scenes::SceneKind kind;
};

const SceneName kSceneNames[] = {{"boxes", scenes::SceneKind::boxWall},
                                 {"chain", scenes::SceneKind::chain},
                                 {"ragdolls", scenes::SceneKind::ragdolls},
                                 {"cloth", scenes::SceneKind::cloth}};

std::string format(const char* fmt, double v) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), fmt, v);
    return buffer;
}

// A whole number in [lo, hi], all of `text`; false otherwise.
bool parseNumber(const char* text, unsigned long lo, unsigned long hi, unsigned long& value) {
    if (text == nullptr || *text < '0' || *text > '9') return false;
    errno = 0;
    char* end = nullptr;
    const unsigned long v = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi) return false;
    value = v;
    return true;
}

}  // namespace

const char* sceneOptionName(scenes::SceneKind kind) {
    for (const SceneName& s : kSceneNames)
        if (s.kind == kind) return s.name;
    return "?";
}

unsigned int defaultSize(scenes::SceneKind kind) {
    switch (kind) {
        case scenes::SceneKind::boxWall:
            return 60;
        case scenes::SceneKind::chain:
            return 10000;
        case scenes::SceneKind::ragdolls:
            return 1000;
        case scenes::SceneKind::cloth:
            return 40;
    }
    return 1;
}

unsigned int maxSize(scenes::SceneKind kind) {
    switch (kind) {
        case scenes::SceneKind::boxWall:
            return 1000;
        case scenes::SceneKind::chain:
            return 2000000;
        case scenes::SceneKind::ragdolls:
            return 100000;
        case scenes::SceneKind::cloth:
            return 1000;
    }
    return 1;
}

unsigned int defaultThreads() {
    const unsigned int cores = std::thread::hardware_concurrency();
    return cores == 0 ? 1u : std::min(cores, 8u);
}

bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error) {
    bool sizeGiven = false;
    for (int a = 1; a < argc; ++a) {
        std::string arg = argv[a];
        if (arg.size() < 3 || arg.compare(0, 2, "--") != 0) {
            error = "tamber-demo: unexpected argument '" + arg + "' (see --help)";
            return false;
        }
        std::string value;
        bool hasValue = false;
        const std::string::size_type eq = arg.find('=');
        if (eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg.resize(eq);
            hasValue = true;
        }
        const bool takesValue = arg == "--scene" || arg == "--size" || arg == "--threads" ||
                                arg == "--steps" || arg == "--switch";
        const bool isFlag =
            arg == "--float" || arg == "--double" || arg == "--quiet" || arg == "--help" || arg == "-h";
        if (!takesValue && !isFlag) {
            error = "tamber-demo: unknown option '" + arg + "' (see --help)";
            return false;
        }
        if (isFlag) {
            if (hasValue) {
                error = "tamber-demo: option '" + arg + "' takes no value (see --help)";
                return false;
            }
            if (arg == "--float") options.useFloat = true;
            if (arg == "--double") options.useFloat = false;
            if (arg == "--quiet") options.quiet = true;
            if (arg == "--help") options.help = true;
            continue;
        }
        if (!hasValue) {
            if (a + 1 >= argc) {
                error = "tamber-demo: option '" + arg + "' needs a value (see --help)";
                return false;
            }
            value = argv[++a];
        }
        if (arg == "--scene") {
            bool found = false;
            for (const SceneName& s : kSceneNames) {
                if (value == s.name) {
                    options.scene = s.kind;
                    found = true;
                }
            }
            if (!found) {
                error = "tamber-demo: unknown scene '" + value +
                        "': choose boxes, chain, ragdolls or cloth (see --help)";
                return false;
            }
            continue;
        }
        unsigned long lo = 0, hi = 0;
        if (arg == "--size") lo = 1, hi = 2000000;
        if (arg == "--threads") lo = 0, hi = 256;
        if (arg == "--steps") lo = 2, hi = 100000;
        if (arg == "--switch") lo = 0, hi = 1000000;
        unsigned long v = 0;
        if (!parseNumber(value.c_str(), lo, hi, v)) {
            error = "tamber-demo: option '" + arg + "' expects a whole number from " + std::to_string(lo) +
                    " to " + std::to_string(hi) + ", got '" + value + "' (see --help)";
            return false;
        }
        if (arg == "--size") options.size = static_cast<unsigned int>(v), sizeGiven = true;
        if (arg == "--threads") options.threads = static_cast<unsigned int>(v);
        if (arg == "--steps") options.steps = static_cast<unsigned int>(v);
        if (arg == "--switch") options.switchEquations = static_cast<unsigned int>(v);
    }
    if (sizeGiven && options.size > maxSize(options.scene)) {
        error = "tamber-demo: --size " + std::to_string(options.size) + " is too large for the " +
                sceneOptionName(options.scene) + " scene (at most " + std::to_string(maxSize(options.scene)) +
                ")";
        return false;
    }
    if (!sizeGiven) options.size = defaultSize(options.scene);
    return true;
}

std::string helpText() {
    const Options defaults;
    std::string text;
    text +=
        "Usage: tamber-demo [options]\n"
        "\n"
        "Moves a physics scene for some dozens of time steps and solves its constraint system with kivTamber "
        "at\n"
        "every step, then prints the median time of every stage with its spread (minimum and maximum over "
        "the\n"
        "steps), the residuals, and the allocations made per step after the first (which should all be 0).\n"
        "\n"
        "Everything goes through one kivTamber::Solver per system, in the scene's own numbering:\n"
        "  1. analysis, once: Solver::analyze orders the blocks, merges them where that pays and lays out\n"
        "     the factor; its report names the ordering, the merge groups, the fill and the flops\n"
        "  2. time steps: the scene fills its arrays (bodies, Jacobians as the physics holds them),\n"
        "     Solver::setValues, Solver::factor, Solver::solve with one step of refinement\n"
        "  3. switching: the pose is held and constraint equations switch off and on at every step\n"
        "     (Solver::setActive); the Solver updates its factor in place or factors again, whichever it\n"
        "     predicts cheaper, compared with a second Solver that factors again (always in double).\n"
        "\n"
        "Options:\n"
        "  --scene NAME   boxes: a wall of N×N boxes with 3-row contacts that come and go (default)\n"
        "                 chain: a hanging chain of N links joined by ball joints\n"
        "                 ragdolls: N ragdolls of 10 to 15 bodies each\n"
        "                 cloth: N×N particles joined by distance constraints\n";
    text += "  --size N       scene size (defaults: boxes " +
            std::to_string(defaultSize(scenes::SceneKind::boxWall)) + ", chain " +
            std::to_string(defaultSize(scenes::SceneKind::chain)) + ", ragdolls " +
            std::to_string(defaultSize(scenes::SceneKind::ragdolls)) + ", cloth " +
            std::to_string(defaultSize(scenes::SceneKind::cloth)) + ")\n";
    text +=
        "  --threads N    0: the Solver decides (small systems stay serial); 1: serial factorization;\n"
        "                 N >= 2: multifrontal on N worker threads (default 0; this machine has " +
        std::to_string(defaultThreads()) + ")\n";
    text +=
        "  --float        single precision in phases 1 and 2 (a Solver<float>)\n"
        "  --double       double precision (default)\n";
    text += "  --steps N      time steps of each phase, at least 2 (default " +
            std::to_string(defaults.steps) + ")\n";
    text += "  --switch N     constraint equations switched per step in phase 3; 0 skips phase 3 (default " +
            std::to_string(defaults.switchEquations) + ")\n";
    text +=
        "  --quiet        no progress line\n"
        "  --help         this text\n"
        "\n"
        "Values may also follow an '=' (--size=20). A bad option ends the program with status 2.\n";
    return text;
}

// ---------------------------------------------------------------------------------------------------------

double Series::median() const {
    if (values_.empty()) return 0.0;
    std::vector<double> v(values_);
    std::sort(v.begin(), v.end());
    const unsigned long n = v.size();
    return n % 2 == 1 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

double Series::min() const {
    return values_.empty() ? 0.0 : *std::min_element(values_.begin(), values_.end());
}

double Series::max() const {
    return values_.empty() ? 0.0 : *std::max_element(values_.begin(), values_.end());
}

std::string withSeparators(unsigned long value) {
    std::string digits = std::to_string(value), out;
    for (std::string::size_type k = 0; k < digits.size(); ++k) {
        if (k > 0 && (digits.size() - k) % 3 == 0) out += ',';
        out += digits[k];
    }
    return out;
}

unsigned long displayWidth(const std::string& text) {
    unsigned long width = 0;
    for (unsigned char c : text)
        width += (c & 0xC0) != 0x80 ? 1 : 0;  // UTF-8 continuation bytes take no column
    return width;
}

std::string padRight(const std::string& text, unsigned long width) {
    const unsigned long w = displayWidth(text);
    return w >= width ? text : text + std::string(width - w, ' ');
}

std::string padLeft(const std::string& text, unsigned long width) {
    const unsigned long w = displayWidth(text);
    return w >= width ? text : std::string(width - w, ' ') + text;
}

std::string tableRow(const char* label, const std::string& median, const std::string& min,
                     const std::string& max, int labelWidth) {
    return "  " + padRight(label, labelWidth) + " " + padLeft(median, 12) + "  " + padLeft(min, 12) + "  " +
           padLeft(max, 12);
}

std::string timeRow(const char* label, const Series& seconds, int labelWidth) {
    const double m = seconds.median();
    double scale = 1e3;
    const char* fmt = "%.3f ms";
    if (m >= 1.0) scale = 1.0, fmt = "%.3f s ";
    if (m < 1e-3) scale = 1e6, fmt = "%.3f µs";
    return tableRow(label, format(fmt, m * scale), format(fmt, seconds.min() * scale),
                    format(fmt, seconds.max() * scale), labelWidth);
}

std::string valueRow(const char* label, const Series& values, const char* fmt, int labelWidth) {
    return tableRow(label, format(fmt, values.median()), format(fmt, values.min()), format(fmt, values.max()),
                    labelWidth);
}

std::string countRow(const char* label, const Series& counts, int labelWidth) {
    auto count = [](double v) { return withSeparators(static_cast<unsigned long>(std::llround(v))); };
    return tableRow(label, count(counts.median()), count(counts.min()), count(counts.max()), labelWidth);
}

// ---------------------------------------------------------------------------------------------------------

double scaledResidual(const scenes::BlockProblem& problem, const double* x, const double* b, double* r,
                      double* rowSums) {
    const unsigned long N = problem.scalarSize();
    for (unsigned long k = 0; k < N; ++k) r[k] = b[k], rowSums[k] = 0.0;
    for (unsigned int j = 0; j < problem.numBlocks; ++j) {
        const unsigned int sj = problem.blockSizes[j], oj = problem.blockOffsets[j];
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
            const unsigned int i = problem.rowIndices[e];
            const unsigned int si = problem.blockSizes[i], oi = problem.blockOffsets[i];
            const double* A = problem.entryValues(e);  // s_i × s_j, row-major
            for (unsigned int p = 0; p < si; ++p) {
                for (unsigned int q = 0; q < sj; ++q) {
                    const double a = A[p * sj + q];
                    r[oi + p] -= a * x[oj + q];  // r_i −= A(i, j)·x_j
                    rowSums[oi + p] += std::fabs(a);
                    if (i != j) {
                        r[oj + q] -= a * x[oi + p];  // r_j −= A(i, j)ᵀ·x_i
                        rowSums[oj + q] += std::fabs(a);
                    }
                }
            }
        }
    }
    double normR = 0.0, normA = 0.0, normX = 0.0, normB = 0.0;
    for (unsigned long k = 0; k < N; ++k) {
        normR = std::max(normR, std::fabs(r[k]));
        normA = std::max(normA, rowSums[k]);
        normX = std::max(normX, std::fabs(x[k]));
        normB = std::max(normB, std::fabs(b[k]));
    }
    const double denominator = normA * normX + normB;
    if (std::isnan(normR)) return normR;
    return denominator > 0.0 ? normR / denominator : 0.0;
}

double relativeDifference(const double* x, const double* y, unsigned long n) {
    double d = 0.0, s = 0.0;
    for (unsigned long k = 0; k < n; ++k) {
        d += (x[k] - y[k]) * (x[k] - y[k]);
        s += y[k] * y[k];
    }
    return s > 0.0 ? std::sqrt(d / s) : std::sqrt(d);
}

void randomVector(std::uint64_t seed, double* b, unsigned long n) {
    std::uint64_t state = seed * 0x9E3779B97F4A7C15ull + 0x632BE59BD9B4E019ull;
    for (unsigned long k = 0; k < n; ++k) {
        // splitmix64
        std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        z ^= z >> 31;
        b[k] = static_cast<double>(z >> 11) * (2.0 / 9007199254740992.0) - 1.0;
    }
}

// ---------------------------------------------------------------------------------------------------------

void EquationMask::reset(const scenes::BlockProblem& problem) {
    const unsigned long N = problem.scalarSize();
    active_.resize(N);
    if (N > 0) std::memset(active_.data(), 1, N);
    blockMasked_.resize(problem.numBlocks);
}

unsigned long EquationMask::activeConstraintEquations(const scenes::BlockProblem& problem) const {
    unsigned long count = 0;
    const unsigned long first = problem.numBlocks == 0 ? 0 : problem.blockOffsets[problem.firstConstraint];
    for (unsigned long k = first; k < active_.size(); ++k) count += active_[k];
    return count;
}

void EquationMask::fromContacts(const scenes::BlockProblem& problem, const scenes::BoxWall& wall) {
    for (unsigned int c = 0; c < wall.numContacts(); ++c) {
        const unsigned int block = problem.firstConstraint + c;
        const unsigned char on = wall.isActive(c) ? 1 : 0;
        for (unsigned int k = 0; k < problem.blockSizes[block]; ++k)
            active_[problem.blockOffsets[block] + k] = on;
    }
}

void EquationMask::apply(scenes::BlockProblem& problem) {
    const unsigned int n = problem.numBlocks;
    for (unsigned int b = 0; b < n; ++b) {
        unsigned char masked = 0;
        for (unsigned int k = 0; k < problem.blockSizes[b]; ++k)
            masked |= active_[problem.blockOffsets[b] + k] ^ 1;
        blockMasked_[b] = masked;
    }
    for (unsigned int j = 0; j < n; ++j) {
        const unsigned int sj = problem.blockSizes[j], oj = problem.blockOffsets[j];
        for (unsigned int e = problem.colPointers[j]; e < problem.colPointers[j + 1]; ++e) {
            const unsigned int i = problem.rowIndices[e];
            if (!blockMasked_[i] && !blockMasked_[j]) continue;
            const unsigned int si = problem.blockSizes[i], oi = problem.blockOffsets[i];
            double* A = problem.entryValues(e);  // s_i × s_j, row-major
            for (unsigned int p = 0; p < si; ++p)
                for (unsigned int q = 0; q < sj; ++q)
                    if (!active_[oi + p] || !active_[oj + q]) A[p * sj + q] = 0.0;
            if (i == j)
                for (unsigned int p = 0; p < si; ++p)
                    if (!active_[oi + p]) A[p * sj + p] = 1.0;  // the unit equation
        }
    }
}

}  // namespace demo
}  // namespace kivTamber
