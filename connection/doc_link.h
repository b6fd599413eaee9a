#pragma once

#include <connection/nimiob_export.h>

#include <QString>

namespace RK {

/// Links to the offline documentation installed with the SDK, as encoded
/// file URLs ("file:///..."). Nothing checks that the pages exist. Static
/// functions only, callable from any thread.
class NIMIOB_EXPORT DocLink
{
public:
    /// The SDK's installation prefix with symbolic links resolved; empty when
    /// the prefix does not exist.
    static QString getSdkPath();

    /// The animation mode's page of the behaviour editor's manual, at its
    /// section.
    static QString animationModeDoc();
    /// The behaviour editor's manual.
    static QString sartelDoc();
    /// The manual's page on connecting to a robot.
    static QString connectionDoc();
    /// The documentation's home page.
    static QString generalDoc();
    /// The robot's API reference.
    static QString apiDoc();
    /// A page below the documentation folder ("share/doc/" of the SDK); an
    /// empty path gives the folder.
    static QString documentationUrl(const QString &relativePath);
};

} // namespace RK
