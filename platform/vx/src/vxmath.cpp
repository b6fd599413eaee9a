#include <vx/vxerror.h>
#include <vx/vxmath.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace VX {
namespace Math {

namespace {

bool near(float a, float b, float epsilon)
{
    return std::fabs(a - b) <= epsilon;
}

void requireSize(const std::vector<float> &v, std::size_t n, const char *what)
{
    if (v.size() != n)
        throw VXError(std::string(what) + " needs " + std::to_string(n) + " floats, got "
                      + std::to_string(v.size()));
}

std::string number(float f)
{
    if (std::isnan(f))
        return "nan";
    if (std::isinf(f))
        return f < 0 ? "-inf" : "inf";
    char buf[32];
    for (int precision = 1; precision <= 9; ++precision) {
        std::snprintf(buf, sizeof buf, "%.*g", precision, static_cast<double>(f));
        if (std::strtof(buf, nullptr) == f)
            break;
    }
    return buf;
}

std::string join(const std::vector<float> &values)
{
    std::string out;
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (i)
            out += ' ';
        out += number(values[i]);
    }
    return out;
}

} // namespace

Position3D::Position3D(const std::vector<float> &xyz)
{
    requireSize(xyz, 3, "a position");
    x = xyz[0];
    y = xyz[1];
    z = xyz[2];
}

Position3D &Position3D::operator+=(const Position3D &o)
{
    *this = *this + o;
    return *this;
}

Position3D &Position3D::operator-=(const Position3D &o)
{
    *this = *this - o;
    return *this;
}

float Position3D::norm() const
{
    return std::sqrt(dot(*this));
}

Position3D Position3D::cross(const Position3D &o) const
{
    return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x};
}

bool Position3D::isNear(const Position3D &o, float epsilon) const
{
    return near(x, o.x, epsilon) && near(y, o.y, epsilon) && near(z, o.z, epsilon);
}

Quaternion::Quaternion(const std::vector<float> &wxyz)
{
    requireSize(wxyz, 4, "a quaternion");
    w = wxyz[0];
    x = wxyz[1];
    y = wxyz[2];
    z = wxyz[3];
}

Quaternion Quaternion::fromAngleAndAxis(float angle, float ax, float ay, float az)
{
    const float n = std::sqrt(ax * ax + ay * ay + az * az);
    if (!(n > 0.0f) || !std::isfinite(n))
        throw VXError("a rotation axis must be finite and not null");
    const float s = std::sin(angle / 2.0f) / n;
    return {std::cos(angle / 2.0f), ax * s, ay * s, az * s};
}

Quaternion Quaternion::operator*(const Quaternion &o) const
{
    return {w * o.w - x * o.x - y * o.y - z * o.z, w * o.x + x * o.w + y * o.z - z * o.y,
            w * o.y - x * o.z + y * o.w + z * o.x, w * o.z + x * o.y - y * o.x + z * o.w};
}

Quaternion &Quaternion::operator*=(const Quaternion &o)
{
    *this = *this * o;
    return *this;
}

float Quaternion::norm() const
{
    return std::sqrt(w * w + x * x + y * y + z * z);
}

Quaternion Quaternion::normalized() const
{
    const float n = norm();
    if (!(n > 0.0f) || !std::isfinite(n))
        throw VXError("cannot normalise the quaternion " + toSpaceSeparated(*this));
    return {w / n, x / n, y / n, z / n};
}

Quaternion Quaternion::inverse() const
{
    const float n2 = w * w + x * x + y * y + z * z;
    if (!(n2 > 0.0f) || !std::isfinite(n2))
        throw VXError("cannot invert the quaternion " + toSpaceSeparated(*this));
    return {w / n2, -x / n2, -y / n2, -z / n2};
}

Position3D Quaternion::rotate(const Position3D &p) const
{
    const Quaternion r = *this * Quaternion(0.0f, p.x, p.y, p.z) * inverse();
    return {r.x, r.y, r.z};
}

bool Quaternion::isNear(const Quaternion &o, float epsilon) const
{
    const bool same = near(w, o.w, epsilon) && near(x, o.x, epsilon) && near(y, o.y, epsilon)
        && near(z, o.z, epsilon);
    const bool opposite = near(w, -o.w, epsilon) && near(x, -o.x, epsilon) && near(y, -o.y, epsilon)
        && near(z, -o.z, epsilon);
    return same || opposite;
}

Transform::Transform(float x, float y, float z) : r1_c4(x), r2_c4(y), r3_c4(z) { }

Transform::Transform(const std::vector<float> &rows)
{
    requireSize(rows, 12, "a transform");
    float *cells[12] = {&r1_c1, &r1_c2, &r1_c3, &r1_c4, &r2_c1, &r2_c2,
                        &r2_c3, &r2_c4, &r3_c1, &r3_c2, &r3_c3, &r3_c4};
    for (std::size_t i = 0; i < 12; ++i)
        *cells[i] = rows[i];
}

std::vector<float> Transform::toVector() const
{
    return {r1_c1, r1_c2, r1_c3, r1_c4, r2_c1, r2_c2, r2_c3, r2_c4, r3_c1, r3_c2, r3_c3, r3_c4};
}

Transform Transform::operator*(const Transform &o) const
{
    Transform t;
    t.r1_c1 = r1_c1 * o.r1_c1 + r1_c2 * o.r2_c1 + r1_c3 * o.r3_c1;
    t.r1_c2 = r1_c1 * o.r1_c2 + r1_c2 * o.r2_c2 + r1_c3 * o.r3_c2;
    t.r1_c3 = r1_c1 * o.r1_c3 + r1_c2 * o.r2_c3 + r1_c3 * o.r3_c3;
    t.r1_c4 = r1_c1 * o.r1_c4 + r1_c2 * o.r2_c4 + r1_c3 * o.r3_c4 + r1_c4;
    t.r2_c1 = r2_c1 * o.r1_c1 + r2_c2 * o.r2_c1 + r2_c3 * o.r3_c1;
    t.r2_c2 = r2_c1 * o.r1_c2 + r2_c2 * o.r2_c2 + r2_c3 * o.r3_c2;
    t.r2_c3 = r2_c1 * o.r1_c3 + r2_c2 * o.r2_c3 + r2_c3 * o.r3_c3;
    t.r2_c4 = r2_c1 * o.r1_c4 + r2_c2 * o.r2_c4 + r2_c3 * o.r3_c4 + r2_c4;
    t.r3_c1 = r3_c1 * o.r1_c1 + r3_c2 * o.r2_c1 + r3_c3 * o.r3_c1;
    t.r3_c2 = r3_c1 * o.r1_c2 + r3_c2 * o.r2_c2 + r3_c3 * o.r3_c2;
    t.r3_c3 = r3_c1 * o.r1_c3 + r3_c2 * o.r2_c3 + r3_c3 * o.r3_c3;
    t.r3_c4 = r3_c1 * o.r1_c4 + r3_c2 * o.r2_c4 + r3_c3 * o.r3_c4 + r3_c4;
    return t;
}

Transform &Transform::operator*=(const Transform &o)
{
    *this = *this * o;
    return *this;
}

Position3D Transform::operator*(const Position3D &p) const
{
    return {r1_c1 * p.x + r1_c2 * p.y + r1_c3 * p.z + r1_c4,
            r2_c1 * p.x + r2_c2 * p.y + r2_c3 * p.z + r2_c4,
            r3_c1 * p.x + r3_c2 * p.y + r3_c3 * p.z + r3_c4};
}

float Transform::determinant() const
{
    return r1_c1 * (r2_c2 * r3_c3 - r2_c3 * r3_c2) - r1_c2 * (r2_c1 * r3_c3 - r2_c3 * r3_c1)
        + r1_c3 * (r2_c1 * r3_c2 - r2_c2 * r3_c1);
}

bool Transform::isTransform(float epsilon) const
{
    for (float f : toVector()) {
        if (!std::isfinite(f))
            return false;
    }
    const float r[3][3] = {{r1_c1, r1_c2, r1_c3}, {r2_c1, r2_c2, r2_c3}, {r3_c1, r3_c2, r3_c3}};
    // R * R^T must be the identity.
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            const float dot = r[i][0] * r[j][0] + r[i][1] * r[j][1] + r[i][2] * r[j][2];
            if (!near(dot, i == j ? 1.0f : 0.0f, epsilon))
                return false;
        }
    }
    return near(determinant(), 1.0f, epsilon);
}

Transform Transform::inverse() const
{
    Transform t;
    t.r1_c1 = r1_c1;
    t.r1_c2 = r2_c1;
    t.r1_c3 = r3_c1;
    t.r2_c1 = r1_c2;
    t.r2_c2 = r2_c2;
    t.r2_c3 = r3_c2;
    t.r3_c1 = r1_c3;
    t.r3_c2 = r2_c3;
    t.r3_c3 = r3_c3;
    const Position3D p = t * Position3D(-r1_c4, -r2_c4, -r3_c4);
    t.r1_c4 = p.x;
    t.r2_c4 = p.y;
    t.r3_c4 = p.z;
    return t;
}

bool Transform::isNear(const Transform &o, float epsilon) const
{
    const std::vector<float> a = toVector();
    const std::vector<float> b = o.toVector();
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!near(a[i], b[i], epsilon))
            return false;
    }
    return true;
}

Displacement Displacement::operator*(const Displacement &o) const
{
    return {P + Q.rotate(o.P), Q * o.Q};
}

bool Displacement::isNear(const Displacement &o, float epsilon) const
{
    return P.isNear(o.P, epsilon) && Q.isNear(o.Q, epsilon);
}

Transform transformFromPosition(const Position3D &p)
{
    return Transform(p.x, p.y, p.z);
}

Transform transformFromPosition(float x, float y, float z)
{
    return Transform(x, y, z);
}

Transform transformFromQuaternion(const Quaternion &q)
{
    // The homogeneous form scales with |q|^2 instead of assuming |q| = 1.
    const float w = q.w, x = q.x, y = q.y, z = q.z;
    Transform t;
    t.r1_c1 = w * w + x * x - y * y - z * z;
    t.r1_c2 = 2.0f * (x * y - w * z);
    t.r1_c3 = 2.0f * (x * z + w * y);
    t.r2_c1 = 2.0f * (x * y + w * z);
    t.r2_c2 = w * w - x * x + y * y - z * z;
    t.r2_c3 = 2.0f * (y * z - w * x);
    t.r3_c1 = 2.0f * (x * z - w * y);
    t.r3_c2 = 2.0f * (y * z + w * x);
    t.r3_c3 = w * w - x * x - y * y + z * z;
    return t;
}

Transform transformFromDisplacement(const Displacement &d)
{
    Transform t = transformFromQuaternion(d.Q);
    t.r1_c4 = d.P.x;
    t.r2_c4 = d.P.y;
    t.r3_c4 = d.P.z;
    return t;
}

Position3D positionFromTransform(const Transform &t)
{
    return {t.r1_c4, t.r2_c4, t.r3_c4};
}

Quaternion quaternionFromTransform(const Transform &t)
{
    // Pick the largest of the four diagonal combinations for stability.
    const float trace = t.r1_c1 + t.r2_c2 + t.r3_c3;
    Quaternion q;
    if (trace > 0.0f) {
        const float s = std::sqrt(trace + 1.0f) * 2.0f;
        q = {s / 4.0f, (t.r3_c2 - t.r2_c3) / s, (t.r1_c3 - t.r3_c1) / s, (t.r2_c1 - t.r1_c2) / s};
    } else if (t.r1_c1 > t.r2_c2 && t.r1_c1 > t.r3_c3) {
        const float s = std::sqrt(1.0f + t.r1_c1 - t.r2_c2 - t.r3_c3) * 2.0f;
        q = {(t.r3_c2 - t.r2_c3) / s, s / 4.0f, (t.r1_c2 + t.r2_c1) / s, (t.r1_c3 + t.r3_c1) / s};
    } else if (t.r2_c2 > t.r3_c3) {
        const float s = std::sqrt(1.0f + t.r2_c2 - t.r1_c1 - t.r3_c3) * 2.0f;
        q = {(t.r1_c3 - t.r3_c1) / s, (t.r1_c2 + t.r2_c1) / s, s / 4.0f, (t.r2_c3 + t.r3_c2) / s};
    } else {
        const float s = std::sqrt(1.0f + t.r3_c3 - t.r1_c1 - t.r2_c2) * 2.0f;
        q = {(t.r2_c1 - t.r1_c2) / s, (t.r1_c3 + t.r3_c1) / s, (t.r2_c3 + t.r3_c2) / s, s / 4.0f};
    }
    return q;
}

Displacement displacementFromTransform(const Transform &t)
{
    return {positionFromTransform(t), quaternionFromTransform(t)};
}

std::string toSpaceSeparated(const Position3D &p)
{
    return join(p.toVector());
}

std::string toSpaceSeparated(const Quaternion &q)
{
    return join(q.toVector());
}

std::string toSpaceSeparated(const Transform &t)
{
    return join(t.toVector());
}

std::string toSpaceSeparated(const Displacement &d)
{
    return toSpaceSeparated(d.P) + " " + toSpaceSeparated(d.Q);
}

} // namespace Math
} // namespace VX
