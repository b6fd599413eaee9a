#include <vx/vxerror.h>
#include <vx/vxmath.h>

#include <gtest/gtest.h>

#include <cmath>

using namespace VX::Math;

namespace {
const float kPi = 3.14159265358979f;
}

TEST(VXMath, QuaternionRotatesLikeItsMatrix)
{
    const Quaternion quarterTurnZ = Quaternion::fromAngleAndAxis(kPi / 2, 0, 0, 3);
    EXPECT_NEAR(quarterTurnZ.norm(), 1.0f, 1e-6f);
    EXPECT_TRUE(quarterTurnZ.rotate(Position3D(1, 0, 0)).isNear(Position3D(0, 1, 0)));

    const Transform m = transformFromQuaternion(quarterTurnZ);
    EXPECT_TRUE(m.isTransform(0.0001f));
    EXPECT_TRUE((m * Position3D(1, 2, 3)).isNear(quarterTurnZ.rotate(Position3D(1, 2, 3))));

    // Composition: rotating by a then b is the product b * a, in both forms.
    const Quaternion a = Quaternion::fromAngleAndAxis(0.3f, 1, 2, 0.5f);
    const Quaternion b = Quaternion::fromAngleAndAxis(-1.1f, 0, 1, 1);
    const Position3D p(0.4f, -2.0f, 1.5f);
    EXPECT_TRUE((b * a).rotate(p).isNear(b.rotate(a.rotate(p))));
    EXPECT_TRUE((transformFromQuaternion(b) * transformFromQuaternion(a))
                    .isNear(transformFromQuaternion(b * a)));

    // Back from a matrix, whichever diagonal term dominates.
    for (const Quaternion &q :
         {a, b, quarterTurnZ, Quaternion::fromAngleAndAxis(kPi, 1, 0, 0),
          Quaternion::fromAngleAndAxis(kPi, 0, 1, 0), Quaternion::fromAngleAndAxis(kPi, 0, 0, 1)})
        EXPECT_TRUE(quaternionFromTransform(transformFromQuaternion(q)).isNear(q))
            << toSpaceSeparated(q);

    EXPECT_TRUE(Quaternion(1, 0, 0, 0).isNear(Quaternion(-1, 0, 0, 0))); // same rotation
    EXPECT_THROW(Quaternion::fromAngleAndAxis(1.0f, 0, 0, 0), VX::VXError);
    EXPECT_THROW(Quaternion(0, 0, 0, 0).inverse(), VX::VXError);
}

TEST(VXMath, IsTransformRefusesWhatIsNotRigid)
{
    EXPECT_TRUE(transformFromPosition(Position3D(1, -2, 3)).isTransform(0.0001f));
    EXPECT_TRUE(transformFromPosition(1e6f, 0, 0).isTransform(0.0001f));
    EXPECT_FALSE(transformFromPosition(NAN, 0, 0).isTransform(0.0001f));
    EXPECT_FALSE(transformFromPosition(0, INFINITY, 0).isTransform(0.0001f));

    // A quaternion of the wrong length scales the matrix: refused.
    EXPECT_FALSE(transformFromQuaternion(Quaternion(2, 0, 0, 0)).isTransform(0.0001f));
    EXPECT_FALSE(transformFromQuaternion(Quaternion(0, 0, 0, 0)).isTransform(0.0001f));
    EXPECT_FALSE(transformFromQuaternion(Quaternion(1.001f, 0, 0, 0)).isTransform(0.0001f));
    EXPECT_TRUE(transformFromQuaternion(Quaternion(1.001f, 0, 0, 0)).isTransform(0.01f));
    EXPECT_TRUE(transformFromQuaternion(Quaternion(0.5f, 0.5f, 0.5f, 0.5f)).isTransform(0.0001f));

    // A reflection is orthonormal but not a rotation.
    Transform mirror;
    mirror.r3_c3 = -1.0f;
    EXPECT_FALSE(mirror.isTransform(0.0001f));
}

TEST(VXMath, DisplacementsAndTransformsAgree)
{
    const Displacement d1(Position3D(1, 0, 0), Quaternion::fromAngleAndAxis(kPi / 2, 0, 0, 1));
    const Displacement d2(Position3D(0, 2, 0.5f), Quaternion::fromAngleAndAxis(0.7f, 1, 0, 0));
    const Transform t1 = transformFromDisplacement(d1);
    const Transform t2 = transformFromDisplacement(d2);

    EXPECT_TRUE(displacementFromTransform(t1 * t2).isNear(d1 * d2));
    const Position3D p(3, -1, 2);
    EXPECT_TRUE(((t1 * t2) * p).isNear(t1 * (t2 * p)));
    EXPECT_TRUE((t1 * t1.inverse()).isNear(Transform()));
    EXPECT_TRUE((t1.inverse() * (t1 * p)).isNear(p));
    EXPECT_NEAR(t1.determinant(), 1.0f, 1e-6f);
}

TEST(VXMath, ConstructionFromVectorsChecksTheSize)
{
    EXPECT_EQ(Position3D(std::vector<float> {1, 2, 3}), Position3D(1, 2, 3));
    EXPECT_EQ(Quaternion(std::vector<float> {1, 0, 0, 0}), Quaternion());
    EXPECT_TRUE(Transform(std::vector<float> {1, 0, 0, 4, 0, 1, 0, 5, 0, 0, 1, 6})
                    .isNear(transformFromPosition(4, 5, 6)));
    EXPECT_THROW(Position3D(std::vector<float> {1, 2}), VX::VXError);
    EXPECT_THROW(Quaternion(std::vector<float> {1, 2, 3}), VX::VXError);
    EXPECT_THROW(Transform(std::vector<float>(11, 0.0f)), VX::VXError);
}

TEST(VXMath, SpaceSeparatedText)
{
    EXPECT_EQ(toSpaceSeparated(Position3D(1, 2.5f, -0.125f)), "1 2.5 -0.125");
    EXPECT_EQ(toSpaceSeparated(Position3D(0.1f, NAN, -INFINITY)), "0.1 nan -inf");
    EXPECT_EQ(toSpaceSeparated(Quaternion(1, 0, 0, 0)), "1 0 0 0");
    EXPECT_EQ(toSpaceSeparated(transformFromPosition(1, 2, 3)), "1 0 0 1 0 1 0 2 0 0 1 3");
    EXPECT_EQ(toSpaceSeparated(Displacement(Position3D(1, 2, 3), Quaternion(0, 1, 0, 0))),
              "1 2 3 0 1 0 0");
}
