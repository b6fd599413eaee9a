#include <connection/connection_manager.h>
#include <connection/doc_link.h>

#include <QCoreApplication>
#include <cstdio>

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    RK::ConnectionManager manager(nullptr);
    std::printf("connected=%d\n", manager.isConnected() ? 1 : 0);
    std::printf("sdk=%s\n", RK::DocLink::getSdkPath().toUtf8().constData());
    return manager.isConnected() ? 1 : 0;
}
