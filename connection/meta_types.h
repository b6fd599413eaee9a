#pragma once

// Types that travel through queued signals. They are declared here, once for
// the whole library, and registered under their names by the classes that
// first send them.

#include <QMetaType>

#include <boost/shared_ptr.hpp>

#include <vx/vxvalue.h>
#include <wz/future.h>
#include <wz/log.h>

#include <string>

namespace wz {
class Session;
}

namespace RK {
class Connection;
}

Q_DECLARE_METATYPE(std::string)
Q_DECLARE_METATYPE(wz::Future<void>)
Q_DECLARE_METATYPE(boost::shared_ptr<wz::Session>)
Q_DECLARE_METATYPE(boost::shared_ptr<RK::Connection>)
Q_DECLARE_METATYPE(VX::VXValue)
Q_DECLARE_METATYPE(wz::LogLevel)
Q_DECLARE_METATYPE(wz::LogMessage)
