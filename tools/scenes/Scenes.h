// Saddle-point block systems of small physics scenes, and the glue that loads them into the solver.
//
// Each time step a constraint solver assembles the symmetric matrix
//
//        [ M  Jᵀ ]      M: block diagonal, one SPD block per body (6×6 for a rigid body: mass·I3 and the
//    A = [       ]         world inertia R·I_body·Rᵀ; 3×3 mass·I3 for a particle),
//        [ J  0  ]      J: one block row per constraint, coupling it to one or two bodies,
//
// in block form, in the user's numbering: the bodies are blocks 0 … firstConstraint−1, the constraints
// blocks firstConstraint … n−1, each with a zero diagonal block. A `BlockProblem` holds such a matrix
// (pattern and values); the scene classes below produce one per step from bodies that move along a scripted
// motion, so that the values change from step to step while the pattern stays put (the box wall also
// switches contacts on and off). Every scene keeps A symmetric, its constraint diagonal blocks exactly zero,
// its body blocks SPD and J of full row rank.
//
// The loader turns a problem and an elimination order into a `TamberData<T>` ready for
// Tamber::estimateWork and the factorizations:
//
//     BlockProblem problem;  Permutation order;  TamberData<double> data;  Tamber tamber;
//     scene.build(problem);
//     naturalSafeOrder(problem, order);
//     loadIntoData(problem, order, data);              // permutation, filled skeleton, tree, matrix
//     tamber.estimateWork(data, nullptr);
//     tamber.factorSerial(data);
//     permuteVector(problem, data.permutation, b, x);   // b in user numbering → x in factor order
//     tamber.solve(data, x);
//     unpermuteVector(problem, data.permutation, x, y); // solution in user numbering
//     scene.step(dt);  scene.build(problem);           // next step, same pattern:
//     refreshValues(problem, data);                    // new values only; then factor and solve again
//
// Storage is grown, never shrunk: rebuilding a problem of the same structure, loading it again, refreshing
// its values and permuting vectors allocate nothing after the first call.
#ifndef KIVTAMBER_TOOLS_SCENES_H
#define KIVTAMBER_TOOLS_SCENES_H

#include <kiv/VectorPOD.h>

#include <memory>
#include <string>

#include "Analysis.h"
#include "Permutation.h"
#include "Tamber.h"

namespace kivTamber {
namespace scenes {

// "No block" / "no body": a world anchor, an unused slot.
constexpr unsigned int noBlock = 0xFFFFFFFFu;

// ---------------------------------------------------------------------------------------------------------
// Block problem
// ---------------------------------------------------------------------------------------------------------

// A symmetric block matrix in the user's numbering: n blocks of sizes s_j, blocks below `firstConstraint`
// bodies and the others constraints.
//
// Pattern (the list form of SkeletonMatrix): the entries colPointers[j] … colPointers[j+1]−1 of rowIndices
// are the blocks i ≤ j coupled to block j, ascending, the last one j itself. Entry e = (i, j) carries the
// block A(i, j) as a dense s_i × s_j row-major array at values[valuePointers[e]] (element (r, c) at r·s_j +
// c); the block A(j, i) = A(i, j)ᵀ is implied. A diagonal block is stored in full and is symmetric.
//
// Built with reset → blockSizes[j] = s_j for every j → addEntry per entry, columns ascending and the entries
// of a column ascending → finish. All members are growable vectors that keep their storage: rebuilding a
// problem of the same (or a smaller) structure allocates nothing.
class BlockProblem {
public:
    unsigned int numBlocks = 0;                   // n
    unsigned int firstConstraint = 0;             // blocks at or above it are constraints
    kiv::VectorPOD<unsigned int> blockSizes;      // [n] s_j
    kiv::VectorPOD<unsigned int> blockOffsets;    // [n + 1] scalar offset of block j; blockOffsets[n] = N
    kiv::VectorPOD<unsigned int> colPointers;     // [n + 1] start of each block's list
    kiv::VectorPOD<unsigned int> rowIndices;      // [entries] block i of each entry
    kiv::VectorPOD<unsigned long> valuePointers;  // [entries + 1] start of each entry's values
    kiv::VectorPOD<double> values;                // the blocks, row-major, back to back

    // Starts a new problem of n blocks (sizes zero, no entries), keeping every allocation.
    void reset(unsigned int n, unsigned int firstConstraintBlock);

    // Appends entry (i, j), i ≤ j, to the list of block j and returns its s_i × s_j row-major values, zeroed.
    // The pointer is valid until the next addEntry. Preconditions (unchecked): blockSizes[i] and
    // blockSizes[j] are set; j is not smaller than the column of the previous entry; within a column i
    // ascends and the diagonal comes last.
    double* addEntry(unsigned int i, unsigned int j);

    // Closes the remaining columns and computes blockOffsets.
    void finish();

    // Number of stored entries.
    unsigned long numEntries() const { return rowIndices.size(); }
    // Scalar dimension N (0 for an empty problem).
    unsigned int scalarSize() const { return numBlocks == 0 ? 0u : blockOffsets[numBlocks]; }

    // The pattern as the analysis reads it (a view: valid while this problem keeps its structure).
    Analysis::Problem pattern() const {
        return {numBlocks, firstConstraint, colPointers.data(), rowIndices.data(), blockSizes.data()};
    }
    // Values of entry e (s_i × s_j, row-major).
    const double* entryValues(unsigned long e) const { return values.data() + valuePointers[e]; }
    double* entryValues(unsigned long e) { return values.data() + valuePointers[e]; }

    // True when `other` has the same block count, firstConstraint, block sizes and pattern (values may
    // differ): a problem with the same structure can be refreshed instead of loaded.
    bool sameStructure(const BlockProblem& other) const;

private:
    unsigned int openColumn_ = 0;  // the column addEntry is filling
};

// Checks a problem that was filled by hand: array lengths, block sizes ≥ 1 and a 32-bit scalar dimension,
// firstConstraint ≤ n, every list ascending with entries i ≤ j and its diagonal last, value pointers
// consistent with the sizes, finite values, symmetric diagonal blocks, zero constraint diagonal blocks.
// Returns true, or false with `message` naming the first offending block or entry and the values involved.
bool checkProblem(const BlockProblem& problem, std::string& message);

// The dense symmetric N × N matrix of the problem, row-major, in user numbering.
// dense: out, N·N doubles (every element is written).
void assembleDense(const BlockProblem& problem, double* dense);

// ---------------------------------------------------------------------------------------------------------
// Scenes
// ---------------------------------------------------------------------------------------------------------

// A scene: bodies moving along a scripted motion and the constraints between them. Positions are functions
// of the scene time; the box wall also keeps a per-step contact state. Body b is block b of the problems the
// scene builds.
class Scene {
public:
    virtual ~Scene() = default;

    // Short name ("chain", "ragdolls", "cloth", "boxwall").
    virtual const char* name() const = 0;

    // Current scene time.
    double time() const { return time_; }

    // Moves every body to its pose at time t. Contact states are left alone.
    virtual void setTime(double t) = 0;

    // Advances one step: setTime(time() + dt) (the box wall first switches some contacts on or off).
    virtual void step(double dt) { setTime(time_ + dt); }

    // The matrix of the current step into `problem` (reset, filled, finished). Allocation-free when the
    // problem already held one of the same structure.
    virtual void build(BlockProblem& problem) const = 0;

    // Number of bodies (the first blocks of every problem the scene builds).
    virtual unsigned int numBodies() const = 0;

    // Degrees of freedom of body b: 6 for a rigid body (velocity, then angular velocity, world frame),
    // 3 for a particle.
    virtual unsigned int bodySize(unsigned int body) const = 0;

    // Pose of body b: position (3 doubles) and body-to-world rotation (9 doubles, row-major; the identity
    // for a particle). Both are out.
    virtual void bodyPose(unsigned int body, double* position, double* rotation) const = 0;

protected:
    double time_ = 0.0;
};

// Position, orientation and mass properties of a set of rigid bodies.
class RigidBodies {
public:
    kiv::VectorPOD<double> position;  // 3 per body, world frame
    kiv::VectorPOD<double> rotation;  // 9 per body, body to world, row-major
    kiv::VectorPOD<double> mass;      // 1 per body
    kiv::VectorPOD<double> inertia;   // 3 per body: principal moments in the body frame

    // Sizes the arrays for n bodies, every body a unit-mass unit-inertia body at the origin.
    void resize(unsigned int n);
    unsigned int size() const { return static_cast<unsigned int>(mass.size()); }
    // The moments of a solid box of mass m and edge lengths (w, h, d): m/12·(h²+d², w²+d², w²+h²).
    void setBox(unsigned int body, double m, double w, double h, double d);
};

// A joint between rigid body A and rigid body B (or the world when bodyB = noBlock), with anchor points
// fixed in the body frames. A ball joint (3 rows) keeps the anchors together: with r = R·anchor,
//   J_A = [ I3  −[r_A]× ],   J_B = [ −I3  [r_B]× ].
// A hinge (5 rows) adds two angular rows p_kᵀ(ω_A − ω_B) = 0 for the unit vectors p_1, p_2 perpendicular to
// the hinge axis R_A·axisA: J_A = [ 0  p_kᵀ ], J_B = [ 0  −p_kᵀ ].
struct Joint {
    unsigned int bodyA;
    unsigned int bodyB;  // noBlock: anchored to the world
    unsigned int rows;   // 3 (ball) or 5 (hinge)
    double anchorA[3];   // in A's frame
    double anchorB[3];   // in B's frame
    double axisA[3];     // hinge axis in A's frame (unused for a ball joint)
};

// A hanging chain of `numLinks` rigid links (boxes 0.1 × 1 × 0.1, masses 1 … 1.75) joined end to end by
// ball joints; joint 0 holds the top of link 0 at the world origin, joint k joins the bottom of link k−1 to
// the top of link k. The links swing along a scripted pendulum motion that keeps every joint closed.
// Blocks: links 0 … L−1 (6×6), joints L … 2L−1 (3 rows).
class HangingChain : public Scene {
public:
    explicit HangingChain(unsigned int numLinks);
    const char* name() const override { return "chain"; }
    void setTime(double t) override;
    void build(BlockProblem& problem) const override;
    unsigned int numBodies() const override { return bodies_.size(); }
    unsigned int bodySize(unsigned int) const override { return 6; }
    void bodyPose(unsigned int body, double* position, double* rotation) const override;

private:
    RigidBodies bodies_;
    kiv::VectorPOD<Joint> joints_;
};

// `count` ragdolls side by side, each a tree of 10 … 15 rigid boxes (ragdoll k has 10 + k mod 6: pelvis,
// chest, arms, legs, then head, hands, feet) joined to their parents by ball joints (hips, shoulders, neck,
// wrists) and hinges (elbows, knees, ankles). The pelvis is free; every joint angle follows a scripted
// motion and the child poses follow by forward kinematics, so every joint stays closed.
// Blocks: all bodies (ragdoll by ragdoll, parents before children), then all joints in the same order.
class Ragdolls : public Scene {
public:
    explicit Ragdolls(unsigned int count);
    const char* name() const override { return "ragdolls"; }
    void setTime(double t) override;
    void build(BlockProblem& problem) const override;
    unsigned int numBodies() const override { return bodies_.size(); }
    unsigned int bodySize(unsigned int) const override { return 6; }
    void bodyPose(unsigned int body, double* position, double* rotation) const override;

private:
    RigidBodies bodies_;
    kiv::VectorPOD<Joint> joints_;
    kiv::VectorPOD<unsigned int> part_;       // template part of each body
    kiv::VectorPOD<unsigned int> ragdollOf_;  // ragdoll of each body
};

// A cloth of side × side particles (mass blocks m·I3, m = 0.02 … 0.03) on a grid of spacing 0.05, with
// 1-row distance constraints along the grid edges and one diagonal per square (alternating direction):
// J_a = dᵀ, J_b = −dᵀ with d = (x_a − x_b)/|x_a − x_b|. The sheet lies on a curved, slowly breathing and
// rotating surface with a small per-particle ripple (a generic position in space, so the distance rows
// stay independent).
// Blocks: particles row by row, then the constraints in grid order; there are (2·side − 1)² blocks.
class Cloth : public Scene {
public:
    explicit Cloth(unsigned int side);
    const char* name() const override { return "cloth"; }
    void setTime(double t) override;
    void build(BlockProblem& problem) const override;
    unsigned int numBodies() const override { return side_ * side_; }
    unsigned int bodySize(unsigned int) const override { return 3; }
    void bodyPose(unsigned int body, double* position, double* rotation) const override;
    // Particles joined by constraint k (a < b).
    unsigned int constraintA(unsigned int k) const { return edges_[2 * k]; }
    unsigned int constraintB(unsigned int k) const { return edges_[2 * k + 1]; }

private:
    unsigned int side_;
    kiv::VectorPOD<double> position_;     // 3 per particle
    kiv::VectorPOD<double> mass_;         // 1 per particle
    kiv::VectorPOD<unsigned int> edges_;  // 2 per constraint
};

// A wall of columns × rows boxes (1 × 0.5 × 0.5, stacked straight) that wobble in place, with 3-row point
// contacts (normal and two tangents at a contact point with lever arms): each bottom box on the ground, each
// box on the one below it, and each box against its right neighbour. With D = [n t1 t2] in world axes and
// r the lever arms from the body centres to the contact point,
//   J_A = [ Dᵀ  −Dᵀ[r_A]× ],   J_B = [ −Dᵀ  Dᵀ[r_B]× ]   (a ground contact couples to A only).
// The contact points sit at pseudo-random places on the faces (a generic position, so the rows stay
// independent) and slide slowly. Every step each contact switches on or off with `toggleProbability`.
// Blocks: boxes row by row from the bottom, then the constraint of each active contact in contact order (all
// contacts, active or not, when includeInactive is set, so that the structure never changes).
class BoxWall : public Scene {
public:
    // Contact c: body A, body B (noBlock for the ground) and where the contact point lies on A.
    struct Contact {
        unsigned int bodyA;
        unsigned int bodyB;
        unsigned int face;  // 0: A's right face (+x), 1: A's top face (+y), 2: A's bottom face on the ground
        double u, v;        // position of the point on the face, in fractions of the half edges
        double phase;       // phase of the slow sliding motion
    };

    // seed: drives the contact places, the motion phases and the switching.
    BoxWall(unsigned int columns, unsigned int rows, unsigned int seed = 1);
    const char* name() const override { return "boxwall"; }
    void setTime(double t) override;
    // Switches each contact with probability toggleProbability (remembering the previous states), then
    // moves the boxes.
    void step(double dt) override;
    void build(BlockProblem& problem) const override;
    unsigned int numBodies() const override { return bodies_.size(); }
    unsigned int bodySize(unsigned int) const override { return 6; }
    void bodyPose(unsigned int body, double* position, double* rotation) const override;

    unsigned int numContacts() const { return static_cast<unsigned int>(contacts_.size()); }
    const Contact& contact(unsigned int c) const { return contacts_[c]; }
    bool isActive(unsigned int c) const { return active_[c] != 0; }
    void setActive(unsigned int c, bool on) { active_[c] = on ? 1 : 0; }
    // The contacts whose state differs from the one before the last step, ascending. changed: out (cleared
    // first; allocation-free once it has held that many).
    void changedContacts(kiv::VectorPOD<unsigned int>& changed) const;
    // The contact behind each constraint of the problems build() makes now: contactOf[k] is the contact of
    // block firstConstraint + k. contactOf: out.
    void constraintContacts(kiv::VectorPOD<unsigned int>& contactOf) const;

    // Probability that a contact switches in one step (default 0.05).
    double toggleProbability = 0.05;
    // Build every contact, active or not, so that the pattern stays the same from step to step.
    bool includeInactive = false;

private:
    unsigned int seed_;
    unsigned long stepCount_ = 0;
    RigidBodies bodies_;
    kiv::VectorPOD<double> rest_;  // 3 per box: rest position
    kiv::VectorPOD<Contact> contacts_;
    kiv::VectorPOD<unsigned char> active_;
    kiv::VectorPOD<unsigned char> previous_;
};

// The scene kinds, for benchmarks and tools that pick a scene by name.
enum class SceneKind { chain, ragdolls, cloth, boxWall };

// A scene of the given kind and size parameter: links of the chain, number of ragdolls, side of the cloth,
// side of the (square) box wall.
std::unique_ptr<Scene> makeScene(SceneKind kind, unsigned int size);

// The size parameter whose scene has about `blocks` blocks (at least 1).
unsigned int sizeForBlockCount(SceneKind kind, unsigned long blocks);

// ---------------------------------------------------------------------------------------------------------
// Ordering and loading
// ---------------------------------------------------------------------------------------------------------

// A valid elimination order without any fill reduction: the bodies in user order, each constraint placed
// right after the last (highest-placed) body it couples to, constraints with the same last body in user
// order, a constraint coupled to no body at the end. Every constraint's pivot block is then
// −J_c·M⁻¹·J_cᵀ updated by earlier constraints, non-singular when J has full row rank.
// order: out, forward[k] = user block placed k-th, inverse filled. Allocation-free once `order` has held n
// entries.
void naturalSafeOrder(const BlockProblem& problem, Permutation& order);

// Loads the problem in the elimination order `order` (forward[k] = user block placed k-th) into `data`:
//  - data.permutation = order (with its inverse);
//  - data.etree: the elimination tree of the permuted pattern (all blocks active), with child lists, roots
//    and a post order;
//  - data.skeleton: the filled pattern of L (fill entries flagged);
//  - data.matrix: the permuted matrix in upper form, block column k holding the blocks (i, k), i ≤ k
//    ascending with the diagonal last, on the permuted pattern of the problem (not the filled one); a block
//    that the permutation moves across the diagonal is transposed;
//  - data.isFactored = 0.
// The permuted pattern is built in data.scratchPad (int slots loaderSlot … loaderSlot + 5, uchar slot
// loaderSlot); the filled pattern uses its int slot 0.
// Returns false, with `data` unchanged, when order.size differs from the problem's block count. Its own work
// is allocation-free after the first call for a structure of that size (the library's tree routines it
// calls aside).
template <typename T>
bool loadIntoData(const BlockProblem& problem, const Permutation& order, TamberData<T>& data);

// Rewrites the values of data.matrix from `problem` (same structure as at the last loadIntoData, same
// data.permutation) and clears data.isFactored. Allocates nothing. Returns false, writing nothing, when the
// problem's pattern does not match the loaded matrix.
template <typename T>
bool refreshValues(const BlockProblem& problem, TamberData<T>& data);

// Scratch-pad slots used by loadIntoData (above those of the library).
constexpr unsigned long loaderSlot = 0x200000;

// permuted = P·user: the slice of user block forward[k] goes to the k-th place. Both N values.
template <typename T>
void permuteVector(const BlockProblem& problem, const Permutation& order, const T* user, T* permuted);

// user = Pᵀ·permuted, the inverse of permuteVector. Both N values.
template <typename T>
void unpermuteVector(const BlockProblem& problem, const Permutation& order, const T* permuted, T* user);

extern template bool loadIntoData<float>(const BlockProblem&, const Permutation&, TamberData<float>&);
extern template bool loadIntoData<double>(const BlockProblem&, const Permutation&, TamberData<double>&);
extern template bool refreshValues<float>(const BlockProblem&, TamberData<float>&);
extern template bool refreshValues<double>(const BlockProblem&, TamberData<double>&);
extern template void permuteVector<float>(const BlockProblem&, const Permutation&, const float*, float*);
extern template void permuteVector<double>(const BlockProblem&, const Permutation&, const double*, double*);
extern template void unpermuteVector<float>(const BlockProblem&, const Permutation&, const float*, float*);
extern template void unpermuteVector<double>(const BlockProblem&, const Permutation&, const double*, double*);

}  // namespace scenes
}  // namespace kivTamber

#endif  // KIVTAMBER_TOOLS_SCENES_H
