#pragma once

// Helpers shared by the wz integration tests: a directory and a client
// session connected over loopback.

#include "wait_until.h"

#include <wz/wz.h>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include <algorithm>
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
        // The directory lists a client a little after the client's connect
        // ends: a case that looks for a newcomer must not take this one.
        ASSERT_TRUE(test::waitUntil([this] { return !directory->clients().empty(); }));
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

    // The id of the fixture's own client, the only one when a case starts.
    std::string onlyClientId()
    {
        test::waitUntil([&] { return !directory->clients().empty(); });
        auto ids = directory->clients();
        return ids.empty() ? std::string() : ids.front();
    }

    // The id of a client that was not among `before`: the directory lists its
    // clients in the order of their ids, not of their arrival.
    std::string newClientId(const std::vector<std::string> &before)
    {
        std::string found;
        test::waitUntil([&] {
            for (const std::string &id : directory->clients()) {
                if (std::find(before.begin(), before.end(), id) == before.end()) {
                    found = id;
                    return true;
                }
            }
            return false;
        });
        return found;
    }

    boost::shared_ptr<wz::Session> directory;
    boost::shared_ptr<wz::Session> client;
};

} // namespace wztest
