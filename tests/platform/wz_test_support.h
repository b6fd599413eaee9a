#pragma once

// Helpers shared by the wz integration tests: a directory and a client
// session connected over loopback.

#include "wait_until.h"

#include <wz/wz.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

namespace wztest {

inline std::string errorOf(const std::function<void()> &f)
{
    try {
        f();
    } catch (const std::exception &e) {
        return e.what();
    }
    return "(no exception)";
}

class TwoSessions : public ::testing::Test
{
protected:
    void SetUp() override
    {
        directory = boost::make_shared<wz::Session>();
        ASSERT_FALSE(directory->listen(wz::Url("tcp://127.0.0.1:0")).hasError());
        ASSERT_EQ(directory->endpoints().size(), 1u);
        ASSERT_NE(directory->endpoints()[0].port(), 0);
        client = connectClient();
    }

    void TearDown() override
    {
        if (client)
            client->close();
        directory->close();
    }

    boost::shared_ptr<wz::Session> connectClient()
    {
        auto s = boost::make_shared<wz::Session>();
        wz::Future<void> f = s->connect(directory->endpoints()[0]);
        EXPECT_FALSE(f.hasError()) << f.error();
        return s;
    }

    // The id the directory gives the most recent client.
    std::string lastClientId(size_t expected)
    {
        test::waitUntil([&] { return directory->clients().size() >= expected; });
        auto ids = directory->clients();
        return ids.empty() ? std::string() : ids.back();
    }

    boost::shared_ptr<wz::Session> directory;
    boost::shared_ptr<wz::Session> client;
};

} // namespace wztest
