#include <QCoreApplication>
#include <gtest/gtest.h>

// Every test binary runs inside a QCoreApplication so that QSignalSpy, queued
// connections and timers work in the test thread.
int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
