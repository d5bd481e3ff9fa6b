// The parts of tamber-demo that are not about the solver: its command line, the statistics it prints, the
// residual it recomputes on its own, and the active constraint equations of a block problem.
#ifndef KIVTAMBER_TOOLS_DEMO_SUPPORT_H
#define KIVTAMBER_TOOLS_DEMO_SUPPORT_H

#include <kiv/VectorPOD.h>

#include <cstdint>
#include <string>
#include <vector>

#include "scenes/Scenes.h"

namespace kivTamber {
namespace demo {

// ---------------------------------------------------------------------------------------------------------
// Command line
// ---------------------------------------------------------------------------------------------------------

struct Options {
    scenes::SceneKind scene = scenes::SceneKind::boxWall;
    // Scene size parameter (side of the wall or cloth, links, ragdolls); 0 picks the scene's default.
    unsigned int size = 0;
    // Threads the Solver may use: 0 lets it decide by predicted work (small systems stay serial), 1 is the
    // serial factorization, k >= 2 the multifrontal one on k worker threads.
    unsigned int threads = 0;
    bool useFloat = false;
    unsigned int steps = 40;
    // Constraint equations switched per step of the switching phase; 0 skips that phase.
    unsigned int switchEquations = 24;
    bool quiet = false;
    bool help = false;
};

// Exit status of a command line the demo does not accept.
constexpr int badUsage = 2;

// The name of a scene kind on the command line ("boxes", "chain", "ragdolls", "cloth").
const char* sceneOptionName(scenes::SceneKind kind);

// The default size parameter of a scene kind: a system of a few thousand blocks that runs the default 40
// steps of both phases in well under a minute on two cores.
unsigned int defaultSize(scenes::SceneKind kind);

// Largest size parameter accepted for a scene kind (keeps the scalar dimension and the memory in bounds).
unsigned int maxSize(scenes::SceneKind kind);

// The processors of this machine (1 when unknown), at most 8.
unsigned int defaultThreads();

// Reads argv[1 … argc−1] into `options` (which holds the defaults on entry). Values follow their option as
// the next argument or after '=' ("--size 40", "--size=40"). Returns true, or false with `error` holding
// the message to print ("tamber-demo: unknown option '--x' (see --help)" and the like); `options` may then
// be partly written.
bool parseOptions(int argc, const char* const* argv, Options& options, std::string& error);

// The text of --help, with the defaults of this machine filled in.
std::string helpText();

// ---------------------------------------------------------------------------------------------------------
// Statistics and formatting
// ---------------------------------------------------------------------------------------------------------

// The values of one figure over the steps of a phase. Storage is reserved up front, so that adding a value
// during the steps allocates nothing.
class Series {
public:
    void reserve(unsigned long n) { values_.reserve(n); }
    void clear() { values_.clear(); }
    void add(double v) { values_.push_back(v); }
    unsigned long count() const { return values_.size(); }
    // Median (mean of the two middle values for an even count), minimum and maximum; 0 when empty.
    double median() const;
    double min() const;
    double max() const;

private:
    std::vector<double> values_;
};

// "1,234,567".
std::string withSeparators(unsigned long value);

// Columns the text takes on a terminal (UTF-8 code points), and the text padded with blanks to `width`
// columns on the right or on the left.
unsigned long displayWidth(const std::string& text);
std::string padRight(const std::string& text, unsigned long width);
std::string padLeft(const std::string& text, unsigned long width);

// One row of a phase table: the label in a column of `labelWidth`, then the median, minimum and maximum of a
// duration series in one unit chosen by the median (s, ms or µs), e.g.
// "  factor (serial)                 12.35 ms     11.90 ms     14.02 ms".
std::string timeRow(const char* label, const Series& seconds, int labelWidth);

// The same for a dimensionless series: `format` is a printf conversion for one double ("%.1e", "%.0f", ...).
std::string valueRow(const char* label, const Series& values, const char* format, int labelWidth);

// The same for a series of counts, printed as whole numbers with separators (a median between two counts is
// rounded).
std::string countRow(const char* label, const Series& counts, int labelWidth);

// ---------------------------------------------------------------------------------------------------------
// Numerics in the user's numbering
// ---------------------------------------------------------------------------------------------------------

// r = b − A·x for the symmetric block matrix of `problem` (each stored entry (i, j), i < j, also acts as
// A(j, i) = A(i, j)ᵀ) and the scaled residual ‖r‖∞ / (‖A‖∞·‖x‖∞ + ‖b‖∞), which is returned (0 when the
// denominator is 0). x, b: in, N values each; r: out, N values; rowSums: workspace, N values (ends as the
// absolute row sums of A). Independent of the solver's data structures on purpose: it checks them.
double scaledResidual(const scenes::BlockProblem& problem, const double* x, const double* b, double* r,
                      double* rowSums);

// ‖x − y‖₂ / ‖y‖₂ (‖x − y‖₂ when y = 0) over n values.
double relativeDifference(const double* x, const double* y, unsigned long n);

// Fills b[0 … n−1] with pseudo-random values in [−1, 1) that depend only on `seed`.
void randomVector(std::uint64_t seed, double* b, unsigned long n);

// ---------------------------------------------------------------------------------------------------------
// Active and inactive constraint equations
// ---------------------------------------------------------------------------------------------------------

// A flag per scalar equation of a problem in the user's numbering (1 active, 0 inactive), and the rewriting
// of a problem that replaces every inactive equation k by a unit equation: row and column k of A become
// those of the identity. That is the system the Solver solves when those equations are switched off, so the
// masked problem is the reference for its solutions. Sized once; nothing allocates afterwards.
class EquationMask {
public:
    // Sizes the flags for `problem` and makes every equation active.
    void reset(const scenes::BlockProblem& problem);

    unsigned long size() const { return active_.size(); }
    bool isActive(unsigned long k) const { return active_[k] != 0; }
    void set(unsigned long k, bool on) { active_[k] = on ? 1 : 0; }
    const unsigned char* flags() const { return active_.data(); }
    // Number of active equations in the constraint blocks (blocks ≥ firstConstraint).
    unsigned long activeConstraintEquations(const scenes::BlockProblem& problem) const;

    // The box wall's contact states: every equation of an inactive contact's block is inactive. The wall must
    // have been built with includeInactive (constraint block firstConstraint + c is contact c).
    void fromContacts(const scenes::BlockProblem& problem, const scenes::BoxWall& wall);

    // Rewrites `problem` (the one the mask was sized for, or one of the same structure) as described above.
    void apply(scenes::BlockProblem& problem);

private:
    kiv::VectorPOD<unsigned char> active_;       // [N]
    kiv::VectorPOD<unsigned char> blockMasked_;  // [n] 1 when the block holds an inactive equation
};

}  // namespace demo
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_DEMO_SUPPORT_H
