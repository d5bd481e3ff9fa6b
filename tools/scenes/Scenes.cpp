// The scene builders: scripted motion of the bodies and assembly of [M Jᵀ; J 0] per step.
#include "scenes/Scenes.h"

#include <cmath>
#include <cstring>

#include "scenes/SceneMath.h"

namespace kivTamber {
namespace scenes {

using math::Mat3;
using math::Vec3;

namespace {

constexpr double kTwoPi = 6.283185307179586;

Vec3 load3(const double* v) {
    return math::vec(v[0], v[1], v[2]);
}

Vec3 positionOf(const RigidBodies& bodies, unsigned int b) {
    return load3(&bodies.position[3 * b]);
}

Mat3 rotationOf(const RigidBodies& bodies, unsigned int b) {
    Mat3 r;
    std::memcpy(r.m, &bodies.rotation[9 * b], sizeof(r.m));
    return r;
}

void setPose(RigidBodies& bodies, unsigned int b, const Vec3& x, const Mat3& R) {
    bodies.position[3 * b] = x.x;
    bodies.position[3 * b + 1] = x.y;
    bodies.position[3 * b + 2] = x.z;
    std::memcpy(&bodies.rotation[9 * b], R.m, sizeof(R.m));
}

void copyPose(const RigidBodies& bodies, unsigned int b, double* position, double* rotation) {
    std::memcpy(position, &bodies.position[3 * b], 3 * sizeof(double));
    std::memcpy(rotation, &bodies.rotation[9 * b], 9 * sizeof(double));
}

// The 6×6 mass block diag(m·I3, R·I_body·Rᵀ), row-major. The inertia is formed on the upper triangle and
// mirrored, so the block is exactly symmetric.
void writeMassBlock(const RigidBodies& bodies, unsigned int b, double* block) {
    const double m = bodies.mass[b];
    const double* I = &bodies.inertia[3 * b];
    const Mat3 R = rotationOf(bodies, b);
    for (int k = 0; k < 3; ++k) block[6 * k + k] = m;
    for (int r = 0; r < 3; ++r)
        for (int c = r; c < 3; ++c) {
            const double v = R(r, 0) * I[0] * R(c, 0) + R(r, 1) * I[1] * R(c, 1) + R(r, 2) * I[2] * R(c, 2);
            block[6 * (3 + r) + 3 + c] = v;
            block[6 * (3 + c) + 3 + r] = v;
        }
}

// Writes the s_b × rows block Jᵀ (row-major) of a constraint whose rows on body b are J (rows × width).
void writeTransposed(const double (*J)[6], unsigned int rows, unsigned int width, double* block) {
    for (unsigned int q = 0; q < width; ++q)
        for (unsigned int r = 0; r < rows; ++r) block[q * rows + r] = J[r][q];
}

// Rows of joint `joint` on its two bodies (see Joint). JB is left untouched for a world joint.
void jointRows(const RigidBodies& bodies, const Joint& joint, double (*JA)[6], double (*JB)[6]) {
    const Mat3 RA = rotationOf(bodies, joint.bodyA);
    const Mat3 skewA = math::skew(RA * load3(joint.anchorA));
    for (int q = 0; q < 3; ++q)
        for (int c = 0; c < 3; ++c) {
            JA[q][c] = q == c ? 1.0 : 0.0;  // I3
            JA[q][3 + c] = -skewA(q, c);    // −[r_A]×
        }
    if (joint.bodyB != noBlock) {
        const Mat3 skewB = math::skew(rotationOf(bodies, joint.bodyB) * load3(joint.anchorB));
        for (int q = 0; q < 3; ++q)
            for (int c = 0; c < 3; ++c) {
                JB[q][c] = q == c ? -1.0 : 0.0;  // −I3
                JB[q][3 + c] = skewB(q, c);      // [r_B]×
            }
    }
    if (joint.rows == 5) {
        Vec3 p[2];
        math::tangents(math::normalized(RA * load3(joint.axisA)), p[0], p[1]);
        for (int k = 0; k < 2; ++k) {
            const double pk[3] = {p[k].x, p[k].y, p[k].z};
            for (int c = 0; c < 3; ++c) {
                JA[3 + k][c] = 0.0;
                JA[3 + k][3 + c] = pk[c];  // p_kᵀ ω_A
                JB[3 + k][c] = 0.0;
                JB[3 + k][3 + c] = -pk[c];  // −p_kᵀ ω_B
            }
        }
    }
}

// [M Jᵀ; J 0] of rigid bodies and joints: bodies 0 … B−1, joint k as block B + k.
void buildJointProblem(const RigidBodies& bodies, const kiv::VectorPOD<Joint>& joints,
                       BlockProblem& problem) {
    const unsigned int numBodies = bodies.size();
    const unsigned int numJoints = static_cast<unsigned int>(joints.size());
    problem.reset(numBodies + numJoints, numBodies);
    for (unsigned int b = 0; b < numBodies; ++b) problem.blockSizes[b] = 6;
    for (unsigned int k = 0; k < numJoints; ++k) problem.blockSizes[numBodies + k] = joints[k].rows;
    for (unsigned int b = 0; b < numBodies; ++b) writeMassBlock(bodies, b, problem.addEntry(b, b));
    double JA[5][6], JB[5][6];
    for (unsigned int k = 0; k < numJoints; ++k) {
        const Joint& joint = joints[k];
        const unsigned int c = numBodies + k;
        jointRows(bodies, joint, JA, JB);
        if (joint.bodyB == noBlock) {
            writeTransposed(JA, joint.rows, 6, problem.addEntry(joint.bodyA, c));
        } else if (joint.bodyA < joint.bodyB) {
            writeTransposed(JA, joint.rows, 6, problem.addEntry(joint.bodyA, c));
            writeTransposed(JB, joint.rows, 6, problem.addEntry(joint.bodyB, c));
        } else {
            writeTransposed(JB, joint.rows, 6, problem.addEntry(joint.bodyB, c));
            writeTransposed(JA, joint.rows, 6, problem.addEntry(joint.bodyA, c));
        }
        problem.addEntry(c, c);  // zero diagonal block
    }
    problem.finish();
}

void set3(double* dst, double x, double y, double z) {
    dst[0] = x;
    dst[1] = y;
    dst[2] = z;
}

// ---- ragdoll template
// --------------------------------------------------------------------------------------

struct Part {
    int parent;      // template index of the parent, −1 for the pelvis
    double dims[3];  // box edges
    double mass;
    double anchorParent[3];  // joint anchor in the parent's frame
    double anchorChild[3];   // joint anchor in this part's frame
    int hinge;               // 1: hinge about axis (in the parent's frame), 0: ball joint
    double axis[3];
};

// The first ten parts form a complete ragdoll on their own; head, hands and feet follow.
const Part kParts[15] = {
    {-1, {0.30, 0.20, 0.20}, 10.0, {0, 0, 0}, {0, 0, 0}, 0, {0, 0, 0}},            // 0 pelvis
    {0, {0.35, 0.40, 0.20}, 15.0, {0, 0.10, 0}, {0, -0.20, 0}, 0, {0, 0, 0}},      // 1 chest
    {1, {0.08, 0.30, 0.08}, 2.0, {-0.20, 0.18, 0}, {0, 0.15, 0}, 0, {0, 0, 0}},    // 2 upper arm L
    {2, {0.07, 0.28, 0.07}, 1.5, {0, -0.15, 0}, {0, 0.14, 0}, 1, {1, 0, 0}},       // 3 lower arm L
    {1, {0.08, 0.30, 0.08}, 2.0, {0.20, 0.18, 0}, {0, 0.15, 0}, 0, {0, 0, 0}},     // 4 upper arm R
    {4, {0.07, 0.28, 0.07}, 1.5, {0, -0.15, 0}, {0, 0.14, 0}, 1, {1, 0, 0}},       // 5 lower arm R
    {0, {0.12, 0.45, 0.12}, 7.0, {-0.10, -0.10, 0}, {0, 0.225, 0}, 0, {0, 0, 0}},  // 6 thigh L
    {6, {0.10, 0.42, 0.10}, 4.0, {0, -0.225, 0}, {0, 0.21, 0}, 1, {1, 0, 0}},      // 7 shin L
    {0, {0.12, 0.45, 0.12}, 7.0, {0.10, -0.10, 0}, {0, 0.225, 0}, 0, {0, 0, 0}},   // 8 thigh R
    {8, {0.10, 0.42, 0.10}, 4.0, {0, -0.225, 0}, {0, 0.21, 0}, 1, {1, 0, 0}},      // 9 shin R
    {1, {0.18, 0.22, 0.20}, 4.0, {0, 0.20, 0}, {0, -0.11, 0}, 0, {0, 0, 0}},       // 10 head
    {3, {0.05, 0.10, 0.08}, 0.5, {0, -0.14, 0}, {0, 0.05, 0}, 0, {0, 0, 0}},       // 11 hand L
    {5, {0.05, 0.10, 0.08}, 0.5, {0, -0.14, 0}, {0, 0.05, 0}, 0, {0, 0, 0}},       // 12 hand R
    {7, {0.10, 0.06, 0.22}, 1.0, {0, -0.21, 0}, {0, 0.03, -0.05}, 1, {1, 0, 0}},   // 13 foot L
    {9, {0.10, 0.06, 0.22}, 1.0, {0, -0.21, 0}, {0, 0.03, -0.05}, 1, {1, 0, 0}},   // 14 foot R
};

unsigned int partsOfRagdoll(unsigned int k) {
    return 10 + k % 6;
}

}  // namespace

// ---- RigidBodies
// ---------------------------------------------------------------------------------------------

void RigidBodies::resize(unsigned int n) {
    position.clear();
    position.resize(3ul * n);
    rotation.clear();
    rotation.resize(9ul * n);
    mass.clear();
    mass.resize(n);
    inertia.clear();
    inertia.resize(3ul * n);
    for (unsigned int b = 0; b < n; ++b) {
        rotation[9 * b] = rotation[9 * b + 4] = rotation[9 * b + 8] = 1.0;
        mass[b] = 1.0;
        inertia[3 * b] = inertia[3 * b + 1] = inertia[3 * b + 2] = 1.0;
    }
}

void RigidBodies::setBox(unsigned int body, double m, double w, double h, double d) {
    mass[body] = m;
    inertia[3 * body] = m / 12.0 * (h * h + d * d);
    inertia[3 * body + 1] = m / 12.0 * (w * w + d * d);
    inertia[3 * body + 2] = m / 12.0 * (w * w + h * h);
}

// ---- HangingChain
// ---------------------------------------------------------------------------------------------

HangingChain::HangingChain(unsigned int numLinks) {
    bodies_.resize(numLinks);
    joints_.resize(numLinks);
    for (unsigned int k = 0; k < numLinks; ++k) {
        bodies_.setBox(k, 1.0 + 0.25 * (k % 4), 0.1, 1.0, 0.1);
        Joint& joint = joints_[k];
        joint.rows = 3;
        set3(joint.axisA, 0, 0, 0);
        if (k == 0) {  // the top of link 0 held at the world origin
            joint.bodyA = 0;
            joint.bodyB = noBlock;
            set3(joint.anchorA, 0, 0.5, 0);
            set3(joint.anchorB, 0, 0, 0);
        } else {  // bottom of link k−1 to the top of link k
            joint.bodyA = k - 1;
            joint.bodyB = k;
            set3(joint.anchorA, 0, -0.5, 0);
            set3(joint.anchorB, 0, 0.5, 0);
        }
    }
    setTime(0.0);
}

void HangingChain::setTime(double t) {
    time_ = t;
    const Vec3 top = math::vec(0, 0.5, 0), bottom = math::vec(0, -0.5, 0);
    Vec3 anchor = math::vec(0, 0, 0);  // the world anchor, then the bottom of the previous link
    for (unsigned int k = 0; k < bodies_.size(); ++k) {
        const double swing = 0.35 * std::sin(1.3 * t + 0.45 * k);
        const double tilt = 0.25 * std::sin(0.9 * t + 0.8 * k + 1.0);
        const Mat3 R = math::rotation(math::vec(0, 0, 1), swing) * math::rotation(math::vec(1, 0, 0), tilt);
        const Vec3 x = anchor - R * top;
        setPose(bodies_, k, x, R);
        anchor = x + R * bottom;
    }
}

void HangingChain::build(BlockProblem& problem) const {
    buildJointProblem(bodies_, joints_, problem);
}

void HangingChain::bodyPose(unsigned int body, double* position, double* rotation) const {
    copyPose(bodies_, body, position, rotation);
}

// ---- Ragdolls
// -------------------------------------------------------------------------------------------------

Ragdolls::Ragdolls(unsigned int count) {
    unsigned int numBodies = 0;
    for (unsigned int k = 0; k < count; ++k) numBodies += partsOfRagdoll(k);
    bodies_.resize(numBodies);
    part_.resize(numBodies);
    ragdollOf_.resize(numBodies);
    joints_.resize(numBodies - count);
    unsigned int base = 0, jointIndex = 0;
    for (unsigned int k = 0; k < count; ++k) {
        const unsigned int parts = partsOfRagdoll(k);
        for (unsigned int p = 0; p < parts; ++p) {
            const Part& part = kParts[p];
            const double scale = 0.9 + 0.2 * math::unitHash(3, base + p);  // ragdolls differ a little
            bodies_.setBox(base + p, part.mass * scale, part.dims[0], part.dims[1], part.dims[2]);
            part_[base + p] = p;
            ragdollOf_[base + p] = k;
            if (part.parent < 0) continue;
            Joint& joint = joints_[jointIndex++];
            joint.bodyA = base + static_cast<unsigned int>(part.parent);
            joint.bodyB = base + p;
            joint.rows = part.hinge ? 5 : 3;
            std::memcpy(joint.anchorA, part.anchorParent, sizeof(joint.anchorA));
            std::memcpy(joint.anchorB, part.anchorChild, sizeof(joint.anchorB));
            std::memcpy(joint.axisA, part.axis, sizeof(joint.axisA));
        }
        base += parts;
    }
    setTime(0.0);
}

void Ragdolls::setTime(double t) {
    time_ = t;
    unsigned int jointIndex = 0;
    for (unsigned int b = 0; b < bodies_.size(); ++b) {
        const unsigned int p = part_[b];
        const Part& part = kParts[p];
        if (part.parent < 0) {  // the pelvis: a free body swaying in place
            const double k = ragdollOf_[b];
            const Vec3 x = math::vec(1.5 * k, 1.0 + 0.05 * std::sin(t + k), 0.1 * std::sin(0.7 * t + k));
            const Mat3 R =
                math::rotation(math::normalized(math::vec(0.3, 1.0, 0.2)), 0.2 * std::sin(0.5 * t + k));
            setPose(bodies_, b, x, R);
            continue;
        }
        const unsigned int j = jointIndex++;
        const double phase = kTwoPi * math::unitHash(7, j), omega = 0.8 + 1.2 * math::unitHash(11, j);
        Mat3 relative;
        if (part.hinge) {
            relative = math::rotation(load3(part.axis), 0.7 + 0.5 * std::sin(omega * t + phase));
        } else {
            const double a = kTwoPi * math::unitHash(13, j);
            const Vec3 axis =
                math::normalized(math::vec(std::sin(a), std::cos(a), math::unitHash(17, j) - 0.5));
            relative = math::rotation(axis, 0.5 * std::sin(omega * t + phase));
        }
        const unsigned int parent = b - p + static_cast<unsigned int>(part.parent);
        const Mat3 Rp = rotationOf(bodies_, parent);
        const Mat3 R = Rp * relative;
        // The anchors coincide: x = x_p + R_p·a_p − R·a_c.
        const Vec3 x =
            positionOf(bodies_, parent) + Rp * load3(part.anchorParent) - R * load3(part.anchorChild);
        setPose(bodies_, b, x, R);
    }
}

void Ragdolls::build(BlockProblem& problem) const {
    buildJointProblem(bodies_, joints_, problem);
}

void Ragdolls::bodyPose(unsigned int body, double* position, double* rotation) const {
    copyPose(bodies_, body, position, rotation);
}

// ---- Cloth
// ----------------------------------------------------------------------------------------------------

Cloth::Cloth(unsigned int side) : side_(side) {
    const unsigned int n = side * side;
    position_.resize(3ul * n);
    mass_.resize(n);
    for (unsigned int p = 0; p < n; ++p) mass_[p] = 0.02 * (1.0 + 0.5 * math::unitHash(5, p));
    // Grid edges and one diagonal per square, alternating its direction like a checkerboard.
    for (unsigned int i = 0; i < side; ++i)
        for (unsigned int j = 0; j < side; ++j) {
            const unsigned int p = i * side + j;
            auto edge = [this](unsigned int a, unsigned int b) {
                edges_.push_back(a);
                edges_.push_back(b);
            };
            if (j + 1 < side) edge(p, p + 1);
            if (i + 1 < side) edge(p, p + side);
            if (i + 1 < side && j + 1 < side) {
                if ((i + j) % 2 == 0)
                    edge(p, p + side + 1);
                else
                    edge(p + 1, p + side);
            }
        }
    setTime(0.0);
}

void Cloth::setTime(double t) {
    time_ = t;
    const double h = 0.05;
    const double extent = side_ > 1 ? (side_ - 1) * h : h;
    const double curvature = (1.2 + 0.3 * std::sin(0.5 * t)) / extent;  // z = κ/2·(u² + v²) + β·u·v
    const double shear = 0.3 * curvature * std::sin(0.3 * t);           // |β| < κ/2: still convex
    const Mat3 R = math::rotation(math::vec(1, 0, 0), 0.3 * std::sin(0.4 * t)) *
                   math::rotation(math::vec(0, 0, 1), 0.2 * t);
    const double centre = 0.5 * (side_ - 1.0);
    for (unsigned int i = 0; i < side_; ++i)
        for (unsigned int j = 0; j < side_; ++j) {
            const unsigned int p = i * side_ + j;
            const double u = (j - centre) * h, v = (i - centre) * h;
            const double ripple =
                0.2 * h * std::sin((1.0 + math::unitHash(9, p)) * t + kTwoPi * math::unitHash(10, p));
            const Vec3 local = math::vec(u, v, 0.5 * curvature * (u * u + v * v) + shear * u * v + ripple);
            const Vec3 x = R * local + math::vec(0, 0, 1.0);
            set3(&position_[3 * p], x.x, x.y, x.z);
        }
}

void Cloth::build(BlockProblem& problem) const {
    const unsigned int n = side_ * side_;
    const unsigned int m = static_cast<unsigned int>(edges_.size() / 2);
    problem.reset(n + m, n);
    for (unsigned int p = 0; p < n; ++p) problem.blockSizes[p] = 3;
    for (unsigned int k = 0; k < m; ++k) problem.blockSizes[n + k] = 1;
    for (unsigned int p = 0; p < n; ++p) {
        double* block = problem.addEntry(p, p);
        block[0] = block[4] = block[8] = mass_[p];
    }
    for (unsigned int k = 0; k < m; ++k) {
        const unsigned int a = edges_[2 * k], b = edges_[2 * k + 1];
        const Vec3 d = math::normalized(load3(&position_[3 * a]) - load3(&position_[3 * b]));
        double* column = problem.addEntry(a, n + k);  // J_aᵀ = d
        set3(column, d.x, d.y, d.z);
        column = problem.addEntry(b, n + k);  // J_bᵀ = −d
        set3(column, -d.x, -d.y, -d.z);
        problem.addEntry(n + k, n + k);
    }
    problem.finish();
}

void Cloth::bodyPose(unsigned int body, double* position, double* rotation) const {
    std::memcpy(position, &position_[3 * body], 3 * sizeof(double));
    const Mat3 I = math::identity();
    std::memcpy(rotation, I.m, sizeof(I.m));
}

// ---- BoxWall
// --------------------------------------------------------------------------------------------------

namespace {

const double kBox[3] = {1.0, 0.5, 0.5};

// Contact point (in A's frame) and the contact axes n, t1, t2 (columns, in A's frame) of contact c at time t.
void contactFrame(const BoxWall::Contact& c, double t, Vec3& point, Mat3& axes) {
    const double slide = c.u + 0.1 * std::sin(0.7 * t + c.phase);
    axes = math::identity();
    switch (c.face) {
        case 0:  // right face: n = x, t1 = y, t2 = z
            point = math::vec(0.5 * kBox[0], slide * 0.5 * kBox[1], c.v * 0.5 * kBox[2]);
            break;
        case 1:  // top face: n = y, t1 = x, t2 = z
            point = math::vec(slide * 0.5 * kBox[0], 0.5 * kBox[1], c.v * 0.5 * kBox[2]);
            axes(0, 0) = 0, axes(1, 0) = 1, axes(0, 1) = 1, axes(1, 1) = 0;
            break;
        default:  // bottom face on the ground: n = −y, t1 = x, t2 = z
            point = math::vec(slide * 0.5 * kBox[0], -0.5 * kBox[1], c.v * 0.5 * kBox[2]);
            axes(0, 0) = 0, axes(1, 0) = -1, axes(0, 1) = 1, axes(1, 1) = 0;
            break;
    }
}

}  // namespace

BoxWall::BoxWall(unsigned int columns, unsigned int rows, unsigned int seed) : seed_(seed) {
    const unsigned int n = columns * rows;
    bodies_.resize(n);
    rest_.resize(3ul * n);
    for (unsigned int r = 0; r < rows; ++r)
        for (unsigned int c = 0; c < columns; ++c) {
            const unsigned int b = r * columns + c;
            bodies_.setBox(b, 2.0 + 0.5 * math::unitHash(seed, 3ul * b), kBox[0], kBox[1], kBox[2]);
            set3(&rest_[3 * b], c * kBox[0], (r + 0.5) * kBox[1], 0.0);
        }
    auto add = [this, seed](unsigned int a, unsigned int b, unsigned int face) {
        const unsigned long key = 1000003ul * (contacts_.size() + 1);
        Contact contact;
        contact.bodyA = a;
        contact.bodyB = b;
        contact.face = face;
        contact.u = 1.6 * math::unitHash(seed, key + 1) - 0.8;
        contact.v = 1.6 * math::unitHash(seed, key + 2) - 0.8;
        contact.phase = kTwoPi * math::unitHash(seed, key + 3);
        contacts_.push_back(contact);
        active_.push_back(math::unitHash(seed, key + 4) < 0.9 ? 1 : 0);
    };
    for (unsigned int r = 0; r < rows; ++r)
        for (unsigned int c = 0; c < columns; ++c) {
            const unsigned int b = r * columns + c;
            if (r == 0) add(b, noBlock, 2);
            if (r + 1 < rows) add(b, b + columns, 1);
            if (c + 1 < columns) add(b, b + 1, 0);
        }
    previous_ = active_;
    setTime(0.0);
}

void BoxWall::setTime(double t) {
    time_ = t;
    for (unsigned int b = 0; b < bodies_.size(); ++b) {
        double wobble[4];
        for (unsigned long k = 0; k < 4; ++k) {
            const double omega = 0.5 + math::unitHash(seed_, 16ul * b + 2 * k + 100);
            wobble[k] = std::sin(omega * t + kTwoPi * math::unitHash(seed_, 16ul * b + 2 * k + 101));
        }
        const Vec3 x = load3(&rest_[3 * b]) + 0.02 * math::vec(wobble[0], wobble[1], wobble[2]);
        const double a = kTwoPi * math::unitHash(seed_, 16ul * b + 110);
        const Vec3 axis =
            math::normalized(math::vec(std::sin(a), std::cos(a), math::unitHash(seed_, 16ul * b + 111)));
        setPose(bodies_, b, x, math::rotation(axis, 0.05 * wobble[3]));
    }
}

void BoxWall::step(double dt) {
    previous_ = active_;
    const unsigned long m = contacts_.size();
    for (unsigned long c = 0; c < m; ++c)
        if (math::unitHash(seed_ ^ 0x5EEDu, stepCount_ * m + c + 1) < toggleProbability) active_[c] ^= 1;
    ++stepCount_;
    setTime(time_ + dt);
}

void BoxWall::build(BlockProblem& problem) const {
    const unsigned int n = bodies_.size();
    unsigned int m = 0;
    for (unsigned int c = 0; c < numContacts(); ++c) m += (includeInactive || active_[c]) ? 1 : 0;
    problem.reset(n + m, n);
    for (unsigned int b = 0; b < n; ++b) problem.blockSizes[b] = 6;
    for (unsigned int k = 0; k < m; ++k) problem.blockSizes[n + k] = 3;
    for (unsigned int b = 0; b < n; ++b) writeMassBlock(bodies_, b, problem.addEntry(b, b));
    unsigned int block = n;
    for (unsigned int c = 0; c < numContacts(); ++c) {
        if (!includeInactive && !active_[c]) continue;
        const Contact& contact = contacts_[c];
        Vec3 local;
        Mat3 localAxes;
        contactFrame(contact, time_, local, localAxes);
        const Mat3 RA = rotationOf(bodies_, contact.bodyA);
        const Vec3 xA = positionOf(bodies_, contact.bodyA);
        const Vec3 point = xA + RA * local;
        const Mat3 D = RA * localAxes;  // columns n, t1, t2 in world axes
        // Row q on a body with lever arm r: ±[ d_qᵀ  (r × d_q)ᵀ ], since d·(ω × r) = ω·(r × d).
        double JA[5][6], JB[5][6];
        const Vec3 rA = point - xA;
        const Vec3 rB = contact.bodyB == noBlock ? rA : point - positionOf(bodies_, contact.bodyB);
        for (int q = 0; q < 3; ++q) {
            const Vec3 d = math::column(D, q);
            const Vec3 ta = math::cross(rA, d), tb = math::cross(rB, d);
            const double rowA[6] = {d.x, d.y, d.z, ta.x, ta.y, ta.z};
            const double rowB[6] = {-d.x, -d.y, -d.z, -tb.x, -tb.y, -tb.z};
            std::memcpy(JA[q], rowA, sizeof(rowA));
            std::memcpy(JB[q], rowB, sizeof(rowB));
        }
        writeTransposed(JA, 3, 6, problem.addEntry(contact.bodyA, block));
        if (contact.bodyB != noBlock) writeTransposed(JB, 3, 6, problem.addEntry(contact.bodyB, block));
        problem.addEntry(block, block);
        ++block;
    }
    problem.finish();
}

void BoxWall::bodyPose(unsigned int body, double* position, double* rotation) const {
    copyPose(bodies_, body, position, rotation);
}

void BoxWall::changedContacts(kiv::VectorPOD<unsigned int>& changed) const {
    changed.clear();
    for (unsigned int c = 0; c < numContacts(); ++c)
        if (active_[c] != previous_[c]) changed.push_back(c);
}

void BoxWall::constraintContacts(kiv::VectorPOD<unsigned int>& contactOf) const {
    contactOf.clear();
    for (unsigned int c = 0; c < numContacts(); ++c)
        if (includeInactive || active_[c]) contactOf.push_back(c);
}

// ---- factory
// ----------------------------------------------------------------------------------------------------

std::unique_ptr<Scene> makeScene(SceneKind kind, unsigned int size) {
    switch (kind) {
        case SceneKind::chain:
            return std::unique_ptr<Scene>(new HangingChain(size));
        case SceneKind::ragdolls:
            return std::unique_ptr<Scene>(new Ragdolls(size));
        case SceneKind::cloth:
            return std::unique_ptr<Scene>(new Cloth(size));
        case SceneKind::boxWall:
            return std::unique_ptr<Scene>(new BoxWall(size, size));
    }
    return nullptr;
}

unsigned int sizeForBlockCount(SceneKind kind, unsigned long blocks) {
    double size = 1.0;
    switch (kind) {
        case SceneKind::chain:  // L links, L joints
            size = blocks / 2.0;
            break;
        case SceneKind::ragdolls:  // 12.5 bodies and 11.5 joints per ragdoll on average
            size = blocks / 24.0;
            break;
        case SceneKind::cloth:  // (2P − 1)² blocks
            size = (std::sqrt(static_cast<double>(blocks)) + 1.0) / 2.0;
            break;
        case SceneKind::boxWall:  // S² boxes and about 0.9·(2S² − S) contacts
            size = std::sqrt(blocks / 2.8);
            break;
    }
    return size < 1.0 ? 1u : static_cast<unsigned int>(size + 0.5);
}

}  // namespace scenes
}  // namespace kivTamber
