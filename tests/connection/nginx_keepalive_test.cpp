// A transfer longer than nginx's keep-alive limit, in a program of its own
// so that each stays short.
#include "nginx_fixture.h"

namespace {

using namespace nginx_test;

// nginx closes a kept-alive connection after 1000 requests: the transfer
// goes on over a new one, both ways.
TEST_F(NginxTransferTest, ManySmallFilesOutlastTheKeepAliveLimit)
{
    auto source = newModel();
    for (int i = 0; i < 1500; ++i)
        writeFile(*source, QStringLiteral("f%1/%2.txt").arg(i % 10).arg(i), QByteArray::number(i));
    EXPECT_EQ(push(*source, QStringLiteral("/many")), QString());
    auto back = newModel();
    EXPECT_EQ(pull(*back, QStringLiteral("/many")), QString());
    EXPECT_EQ(contents(*back), contents(*source));
    EXPECT_EQ(remove(QStringLiteral("/many")), QString());
}

} // namespace
