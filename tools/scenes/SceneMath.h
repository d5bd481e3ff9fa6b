// Small 3-vector and 3×3-matrix arithmetic for the scene builders (internal to the scene library).
//
// Matrices are row-major: m[3·r + c] is row r, column c.
#pragma once

#include <cmath>
#include <cstdint>

namespace kivTamber {
namespace scenes {
namespace math {

struct Vec3 {
    double x = 0.0, y = 0.0, z = 0.0;
};

struct Mat3 {
    double m[9] = {0, 0, 0, 0, 0, 0, 0, 0, 0};
    double operator()(int r, int c) const { return m[3 * r + c]; }
    double& operator()(int r, int c) { return m[3 * r + c]; }
};

inline Vec3 vec(double x, double y, double z) {
    Vec3 v;
    v.x = x;
    v.y = y;
    v.z = z;
    return v;
}
inline Vec3 operator+(const Vec3& a, const Vec3& b) {
    return vec(a.x + b.x, a.y + b.y, a.z + b.z);
}
inline Vec3 operator-(const Vec3& a, const Vec3& b) {
    return vec(a.x - b.x, a.y - b.y, a.z - b.z);
}
inline Vec3 operator*(double s, const Vec3& a) {
    return vec(s * a.x, s * a.y, s * a.z);
}
inline double dot(const Vec3& a, const Vec3& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vec3 cross(const Vec3& a, const Vec3& b) {
    return vec(a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x);
}
inline double norm(const Vec3& a) {
    return std::sqrt(dot(a, a));
}
inline Vec3 normalized(const Vec3& a) {
    return (1.0 / norm(a)) * a;
}

inline Mat3 identity() {
    Mat3 r;
    r(0, 0) = r(1, 1) = r(2, 2) = 1.0;
    return r;
}

inline Mat3 operator*(const Mat3& a, const Mat3& b) {
    Mat3 r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r(i, j) = a(i, 0) * b(0, j) + a(i, 1) * b(1, j) + a(i, 2) * b(2, j);
    return r;
}

inline Vec3 operator*(const Mat3& a, const Vec3& v) {
    return vec(a(0, 0) * v.x + a(0, 1) * v.y + a(0, 2) * v.z, a(1, 0) * v.x + a(1, 1) * v.y + a(1, 2) * v.z,
               a(2, 0) * v.x + a(2, 1) * v.y + a(2, 2) * v.z);
}

inline Mat3 transpose(const Mat3& a) {
    Mat3 r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r(i, j) = a(j, i);
    return r;
}

// Column c of a.
inline Vec3 column(const Mat3& a, int c) {
    return vec(a(0, c), a(1, c), a(2, c));
}

// [v]×, the matrix with [v]×·w = v × w.
inline Mat3 skew(const Vec3& v) {
    Mat3 r;
    r(0, 1) = -v.z;
    r(0, 2) = v.y;
    r(1, 0) = v.z;
    r(1, 2) = -v.x;
    r(2, 0) = -v.y;
    r(2, 1) = v.x;
    return r;
}

// Rotation by `angle` about the unit vector `axis` (Rodrigues): I + sin·[a]× + (1 − cos)·[a]×².
inline Mat3 rotation(const Vec3& axis, double angle) {
    const Mat3 k = skew(axis);
    const Mat3 k2 = k * k;
    const double s = std::sin(angle), c1 = 1.0 - std::cos(angle);
    Mat3 r = identity();
    for (int i = 0; i < 9; ++i) r.m[i] += s * k.m[i] + c1 * k2.m[i];
    return r;
}

// Two unit vectors that complete the unit vector n to a right-handed orthonormal basis (n, t1, t2).
inline void tangents(const Vec3& n, Vec3& t1, Vec3& t2) {
    const Vec3 helper = std::fabs(n.x) < 0.57 ? vec(1, 0, 0) : vec(0, 1, 0);
    t1 = normalized(cross(n, helper));
    t2 = cross(n, t1);
}

// Deterministic hash of (seed, key) to [0, 1): the splitmix64 finaliser.
inline double unitHash(std::uint64_t seed, std::uint64_t key) {
    std::uint64_t z = seed * 0x9E3779B97F4A7C15ull + key + 0x632BE59BD9B4E019ull;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    return static_cast<double>(z >> 11) * (1.0 / 9007199254740992.0);
}

}  // namespace math
}  // namespace scenes
}  // namespace kivTamber
