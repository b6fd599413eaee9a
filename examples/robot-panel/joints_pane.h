#pragma once

#include "pane.h"

#include <connection/sartel_module.h>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

class QLabel;
class QTableWidget;

namespace panel {

// The joints as a live table: angle (radians) and stiffness (0 to 1) of each,
// as the desktop module polls them (every 60 ms and 500 ms by default).
class JointsPane : public Pane
{
    Q_OBJECT

public:
    explicit JointsPane(QWidget *parent = nullptr);

    void attach(RK::ConnectionManager &manager) override;
    void detach() override;

    int angleReports() const { return m_angleReports; }

private:
    void setColumn(int column, const std::vector<std::string> &joints,
                   const std::vector<float> &values, int precision);

    boost::shared_ptr<RK::SartelModuleInterface> m_module;
    int m_angleReports = 0;
    QTableWidget *m_table;
    QLabel *m_awake;
};

} // namespace panel
