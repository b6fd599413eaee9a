#pragma once

#include <vx/api.h>

#include <string>
#include <vector>

// Rigid-body maths in single precision, the precision the robot reports in.
namespace VX {
namespace Math {

struct VX_API Position3D
{
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    Position3D() = default;
    Position3D(float x, float y, float z) : x(x), y(y), z(z) { }
    // Exactly three floats, else VXError.
    explicit Position3D(const std::vector<float> &xyz);

    Position3D operator+(const Position3D &o) const { return {x + o.x, y + o.y, z + o.z}; }
    Position3D operator-(const Position3D &o) const { return {x - o.x, y - o.y, z - o.z}; }
    Position3D operator-() const { return {-x, -y, -z}; }
    Position3D operator*(float k) const { return {x * k, y * k, z * k}; }
    Position3D &operator+=(const Position3D &o);
    Position3D &operator-=(const Position3D &o);
    bool operator==(const Position3D &o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const Position3D &o) const { return !(*this == o); }

    float norm() const;
    float dot(const Position3D &o) const { return x * o.x + y * o.y + z * o.z; }
    Position3D cross(const Position3D &o) const;
    bool isNear(const Position3D &o, float epsilon = 0.0001f) const;
    std::vector<float> toVector() const { return {x, y, z}; }
};

// w + xi + yj + zk. Rotations use unit quaternions; nothing normalises behind
// the caller's back, so that a wrong one can be detected (see isTransform).
struct VX_API Quaternion
{
    float w = 1.0f;
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    Quaternion() = default;
    Quaternion(float w, float x, float y, float z) : w(w), x(x), y(y), z(z) { }
    // Exactly four floats w, x, y, z, else VXError.
    explicit Quaternion(const std::vector<float> &wxyz);

    // Rotation of `angle` radians about the axis (ax, ay, az), which need not
    // be of unit length but must not be null.
    static Quaternion fromAngleAndAxis(float angle, float ax, float ay, float az);

    Quaternion operator*(const Quaternion &o) const;
    Quaternion &operator*=(const Quaternion &o);
    bool operator==(const Quaternion &o) const
    {
        return w == o.w && x == o.x && y == o.y && z == o.z;
    }
    bool operator!=(const Quaternion &o) const { return !(*this == o); }

    float norm() const;
    Quaternion normalized() const; // throws VXError for a null quaternion
    Quaternion conjugate() const { return {w, -x, -y, -z}; }
    Quaternion inverse() const; // throws VXError for a null quaternion
    Position3D rotate(const Position3D &p) const;
    // True when both describe the same rotation (q and -q do) within epsilon.
    bool isNear(const Quaternion &o, float epsilon = 0.0001f) const;
    std::vector<float> toVector() const { return {w, x, y, z}; }
};

// Homogeneous 3x4 transform: a rotation block and a translation column.
struct VX_API Transform
{
    float r1_c1 = 1.0f, r1_c2 = 0.0f, r1_c3 = 0.0f, r1_c4 = 0.0f;
    float r2_c1 = 0.0f, r2_c2 = 1.0f, r2_c3 = 0.0f, r2_c4 = 0.0f;
    float r3_c1 = 0.0f, r3_c2 = 0.0f, r3_c3 = 1.0f, r3_c4 = 0.0f;

    Transform() = default; // identity
    Transform(float x, float y, float z); // pure translation
    // Twelve floats, row by row, else VXError.
    explicit Transform(const std::vector<float> &rows);

    Transform operator*(const Transform &o) const;
    Transform &operator*=(const Transform &o);
    Position3D operator*(const Position3D &p) const;

    // True when every entry is finite and the rotation block is orthonormal
    // with determinant +1, each within epsilon.
    bool isTransform(float epsilon = 0.0001f) const;
    float determinant() const; // of the rotation block
    Transform inverse() const; // of a rigid transform: transposed rotation
    bool isNear(const Transform &o, float epsilon = 0.0001f) const;
    std::vector<float> toVector() const;
};

// A rigid displacement: first rotate by Q, then translate by P.
struct VX_API Displacement
{
    Position3D P;
    Quaternion Q;

    Displacement() = default;
    Displacement(const Position3D &p, const Quaternion &q) : P(p), Q(q) { }

    Displacement operator*(const Displacement &o) const;
    bool isNear(const Displacement &o, float epsilon = 0.0001f) const;
};

VX_API Transform transformFromPosition(const Position3D &p);
VX_API Transform transformFromPosition(float x, float y, float z);
// Rotation matrix of the quaternion as given: a quaternion that is not of unit
// length gives a matrix that isTransform refuses.
VX_API Transform transformFromQuaternion(const Quaternion &q);
VX_API Transform transformFromDisplacement(const Displacement &d);
VX_API Position3D positionFromTransform(const Transform &t);
VX_API Quaternion quaternionFromTransform(const Transform &t);
VX_API Displacement displacementFromTransform(const Transform &t);

// Numbers separated by one space, each the shortest text that reads back as
// the same float ("1 2.5 -0.125", "nan", "inf"): x y z; w x y z; the twelve
// entries of a transform row by row; a displacement's position then rotation.
VX_API std::string toSpaceSeparated(const Position3D &p);
VX_API std::string toSpaceSeparated(const Quaternion &q);
VX_API std::string toSpaceSeparated(const Transform &t);
VX_API std::string toSpaceSeparated(const Displacement &d);

} // namespace Math
} // namespace VX
