#pragma once

#include <connection/nimiob_export.h>

#include <QString>

namespace RK {

// Links to the offline documentation installed with the SDK, as encoded
// file URLs. Nothing checks that the pages exist.
class NIMIOB_EXPORT DocLink
{
public:
    // The SDK's installation prefix with symbolic links resolved; empty when
    // the prefix does not exist.
    static QString getSdkPath();

    static QString animationModeDoc();
    static QString sartelDoc();
    static QString connectionDoc();
    static QString generalDoc();
    static QString apiDoc();
    // A page below the documentation folder; an empty path gives the folder.
    static QString documentationUrl(const QString &relativePath);
};

} // namespace RK
