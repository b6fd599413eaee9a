#pragma once

#include <connection/connection_manager.h>
#include <connection/operation_error.h>

#include <QGroupBox>
#include <QString>

namespace panel {

// One area of the panel that works with one or two of the robot's interface
// objects. The interfaces are new at every connection: attach() takes them on
// each connectionEstablished() and connects their signals again; detach()
// drops them on disconnected(), after which they must not be touched (the
// worker destroys them). Lives on the GUI thread.
class Pane : public QGroupBox
{
    Q_OBJECT

public:
    explicit Pane(const QString &title, QWidget *parent = nullptr);

    virtual void attach(RK::ConnectionManager &manager) = 0;
    virtual void detach() = 0;

signals:
    // Every failure this pane sees, for the panel to show once.
    void errorOccurred(const RK::OperationError &error);

protected:
    // Shows the failures of `source` (an interface, or anything else with
    // errorOccurred(const RK::OperationError &)). The pane is the context:
    // the interface emits on a library thread, the pane gets it queued on
    // the GUI thread, and detach()'s disconnect from the interface ends it.
    template<typename Source>
    void relayErrors(Source *source)
    {
        connect(source, &Source::errorOccurred, this, &Pane::relayError);
    }
    void fail(const QString &operation, RK::ErrorCode code, const QString &contents,
              const QString &details = QString());

protected slots:
    // Emits errorOccurred for an error worth listing.
    void relayError(const RK::OperationError &error);
};

// Whether the panel lists `error`: a call cut short by the connection's end
// is not, as the panel shows the loss itself, once, and reconnects; one entry
// per call in flight would be noise.
bool worthListing(const RK::OperationError &error);

} // namespace panel
