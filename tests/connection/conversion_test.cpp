#include <connection/doc_link.h>
#include <connection/value_conversion.h>

#include <QDir>
#include <QFileInfo>
#include <QMetaType>
#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

#include <vx/vxvalue.h>

#include <string>
#include <vector>

namespace {

TEST(QVariantFromVXValue, ScalarsKeepTheirType)
{
    const QVariant b = RK::qVariantFromVXValue(VX::VXValue(true));
    EXPECT_EQ(b.metaType(), QMetaType::fromType<bool>());
    EXPECT_TRUE(b.toBool());

    const QVariant i = RK::qVariantFromVXValue(VX::VXValue(-42));
    EXPECT_EQ(i.metaType(), QMetaType::fromType<int>());
    EXPECT_EQ(i.toInt(), -42);

    // A float stays a float: the user interface must not show double noise.
    const QVariant f = RK::qVariantFromVXValue(VX::VXValue(0.1f));
    EXPECT_EQ(f.metaType(), QMetaType::fromType<float>());
    EXPECT_EQ(f.value<float>(), 0.1f);

    const QVariant s
        = RK::qVariantFromVXValue(VX::VXValue(std::string("Bonjour, ça va? \xe2\x9c\x93")));
    EXPECT_EQ(s.metaType(), QMetaType::fromType<QString>());
    EXPECT_EQ(s.toString(), QString::fromUtf8("Bonjour, ça va? \xe2\x9c\x93"));
}

TEST(QVariantFromVXValue, EverythingElseBecomesItsText)
{
    const VX::VXValue invalid;
    const QVariant fromInvalid = RK::qVariantFromVXValue(invalid);
    // Never an invalid QVariant: the caller always has something to show.
    ASSERT_TRUE(fromInvalid.isValid());
    EXPECT_EQ(fromInvalid.metaType(), QMetaType::fromType<QString>());
    EXPECT_EQ(fromInvalid.toString(), QString::fromStdString(invalid.toString(1)));

    std::vector<VX::VXValue> items {VX::VXValue(1), VX::VXValue("é"),
                                    VX::VXValue(std::vector<float> {1.5f, 2.0f})};
    const VX::VXValue array(items);
    const QVariant fromArray = RK::qVariantFromVXValue(array);
    EXPECT_EQ(fromArray.metaType(), QMetaType::fromType<QString>());
    EXPECT_EQ(fromArray.toString(), QString::fromUtf8(array.toString(1).c_str()));
    EXPECT_TRUE(fromArray.toString().contains(QString::fromUtf8("é")));

    const char bytes[] = {'\x00', '\x01', '\x02'};
    const VX::VXValue binary(bytes, sizeof bytes);
    const QVariant fromBinary = RK::qVariantFromVXValue(binary);
    EXPECT_EQ(fromBinary.metaType(), QMetaType::fromType<QString>());
    EXPECT_EQ(fromBinary.toString(), QString::fromStdString(binary.toString(1)));
}

TEST(DocLink, LinksAreEncodedFileUrlsBelowTheSdk)
{
    const QString sdk = RK::DocLink::getSdkPath();
    ASSERT_FALSE(sdk.isEmpty()) << "the SDK prefix of a build tree exists";
    EXPECT_EQ(sdk, QFileInfo(sdk).canonicalFilePath());

    const struct
    {
        QString url;
        const char *path;
    } links[] = {
        {RK::DocLink::sartelDoc(), "/share/doc/software/sartel/index.html"},
        {RK::DocLink::connectionDoc(), "/share/doc/software/sartel/connection_widget.html"},
        {RK::DocLink::generalDoc(), "/share/doc/index.html"},
        {RK::DocLink::apiDoc(), "/share/doc/morvane/index.html"},
        {RK::DocLink::documentationUrl(QStringLiteral("a b/c.html")), "/share/doc/a b/c.html"},
    };
    for (const auto &link : links) {
        const QUrl url = QUrl::fromEncoded(link.url.toLatin1(), QUrl::StrictMode);
        ASSERT_TRUE(url.isValid()) << link.url.toStdString();
        EXPECT_TRUE(url.isLocalFile()) << link.url.toStdString();
        EXPECT_EQ(url.toLocalFile(), sdk + QString::fromLatin1(link.path));
        // Encoded: a blank never appears as such.
        EXPECT_FALSE(link.url.contains(QLatin1Char(' '))) << link.url.toStdString();
    }

    // The empty path names the documentation folder itself.
    EXPECT_TRUE(RK::DocLink::documentationUrl(QString()).endsWith(QStringLiteral("/share/doc/")));
}

TEST(DocLink, AnimationModeFragmentIsNotEncoded)
{
    const QString link = RK::DocLink::animationModeDoc();
    EXPECT_TRUE(link.endsWith(QStringLiteral(
        "/share/doc/software/sartel/animation_mode.html#sartel-howto-use-animation-mode")))
        << link.toStdString();
    EXPECT_FALSE(link.contains(QStringLiteral("%23")));
    const QUrl url(link);
    EXPECT_EQ(url.fragment(), QStringLiteral("sartel-howto-use-animation-mode"));
    EXPECT_EQ(url.toLocalFile(),
              RK::DocLink::getSdkPath()
                  + QStringLiteral("/share/doc/software/sartel/animation_mode.html"));
}

} // namespace
