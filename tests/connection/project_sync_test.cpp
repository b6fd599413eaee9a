// Projects pushed, pulled and removed over HTTP against the simulated robot's
// file server, with its fault hooks.
#include "robot_fixture.h"

#include <connection/http_project_synchronizer.h>

#include "synchronization_thread_p.h"

#include <sim/device_services.h>

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRandomGenerator>
#include <QSet>
#include <QTcpServer>
#include <QTemporaryDir>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Fault = sim::HttpFault;

// What one synchronizer told, in order.
struct Outcome
{
    explicit Outcome(RK::HttpProjectSynchronizer &s)
    {
        QObject::connect(&s, &RK::ProjectSynchronizer::done, [this] { ++done; });
        QObject::connect(&s, &RK::ProjectSynchronizer::aborted, [this](const QString &reason) {
            ++aborted;
            reasons << reason;
        });
        QObject::connect(&s, &RK::ProjectSynchronizer::connectionLost, [this] { ++lost; });
        QObject::connect(&s, &RK::ProjectSynchronizer::valueChanged, [this](int) { ++values; });
    }
    bool ended(std::chrono::milliseconds deadline = test::patience())
    {
        const int before = done + aborted;
        return test::waitUntil([&] { return done + aborted > before; }, deadline);
    }
    int done = 0, aborted = 0, lost = 0, values = 0;
    QStringList reasons;
};

void writeFile(wz::project::ProjectModel &model, const QString &path, const QByteArray &bytes)
{
    const QString dir = QFileInfo(path).path();
    if (dir != ".") {
        ASSERT_TRUE(model.mkdir(dir, true));
    }
    FILE *f = model.fopen(path, "wb");
    ASSERT_NE(f, nullptr);
    if (!bytes.isEmpty()) {
        EXPECT_EQ(fwrite(bytes.constData(), 1, size_t(bytes.size()), f), size_t(bytes.size()));
    }
    fclose(f);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

QMap<QString, QByteArray> contents(wz::project::ProjectModel &model)
{
    QMap<QString, QByteArray> all;
    for (const QString &f : model.getFileList(QString(), true, true, false))
        all[f] = readFile(model.rootPath() + "/" + f);
    return all;
}

class ProjectSyncTest : public test::RobotTest
{
protected:
    void SetUp() override
    {
        RobotTest::SetUp();
        service = robot().serviceAs<sim::PackageManagerService>("PackageManager");
        service->clearHttpFault();
        store = service->storeDir();
        for (const auto &e : fs::directory_iterator(store))
            fs::remove_all(e.path());
        port = robot().httpTransferPort();
        sync = std::make_unique<RK::HttpProjectSynchronizer>();
        // Long: a loaded machine stalls a transfer for longer than a
        // fault test wants to wait, and only those cases set it short.
        sync->setNoDataTimeout(5000);
        outcome = std::make_unique<Outcome>(*sync);
    }
    void TearDown() override
    {
        service->clearHttpFault();
        outcome.reset();
        sync.reset();
        RobotTest::TearDown();
    }
    std::unique_ptr<wz::project::ProjectModel> newModel()
    {
        auto m = std::make_unique<wz::project::ProjectModel>();
        m->createNew();
        return m;
    }
    // A small project of three files, for the fault cases.
    std::unique_ptr<wz::project::ProjectModel> smallModel()
    {
        auto m = newModel();
        writeFile(*m, "a.txt", "alpha");
        writeFile(*m, "d/b.txt", QByteArray(3000, 'b'));
        writeFile(*m, "d/c.txt", "gamma");
        m->setMetadata("name", "small");
        return m;
    }
    void push(wz::project::ProjectModel *m, const QString &path = "/p")
    {
        sync->push("127.0.0.1", port, m, path, wz::project::ArchiveFormat_Plain);
    }
    void pull(wz::project::ProjectModel *m, const QString &path = "/p")
    {
        sync->pull("127.0.0.1", port, path, m, wz::project::ArchiveFormat_Plain);
    }
    QString lastReason() const { return outcome->reasons.value(outcome->reasons.size() - 1); }
    void setFault(Fault::Kind kind, const std::string &method, const std::string &path = "")
    {
        Fault f;
        f.kind = kind;
        f.method = method;
        f.pathContains = path;
        fault = f;
    }
    void applyFault() { service->setHttpFault(fault); }
    // The robot works again after a fault: a plain push and pull round trip.
    void expectHealthy()
    {
        service->clearHttpFault();
        auto source = smallModel();
        const int pushedBefore = outcome->done;
        push(source.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_EQ(outcome->done, pushedBefore + 1) << lastReason().toStdString();
        auto back = newModel();
        const int doneBefore = outcome->done;
        pull(back.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_EQ(outcome->done, doneBefore + 1) << lastReason().toStdString();
        EXPECT_EQ(contents(*back), contents(*source));
    }

    sim::PackageManagerService *service = nullptr;
    std::string store;
    int port = 0;
    Fault fault;
    std::unique_ptr<RK::HttpProjectSynchronizer> sync;
    std::unique_ptr<Outcome> outcome;
};

TEST_F(ProjectSyncTest, TreeRoundTripsByteIdenticalAndMergeKeepsRemoteFiles)
{
    auto source = newModel();
    auto *random = QRandomGenerator::global();
    int files = 0;
    for (int d = 0; d < 10; ++d) {
        for (int i = 0; i < 10; ++i, ++files) {
            QByteArray bytes(100 * 1024 + 4 * int(random->bounded(2560)), Qt::Uninitialized);
            random->fillRange(reinterpret_cast<quint32 *>(bytes.data()), bytes.size() / 4);
            writeFile(*source, QString("dir%1/sub %2/file%3.bin").arg(d).arg(d % 3).arg(i), bytes);
        }
    }
    writeFile(*source, "café/naïve ü.txt", "non-ASCII");
    writeFile(*source, "with space.txt", "spaced");
    writeFile(*source, "empty", QByteArray());
    writeFile(*source, "deep/a/b/c/d/e/f.txt", "deep");
    ASSERT_TRUE(source->mkdir("empty dir", true));
    source->setMetadata("name", "round trip");
    source->setMetadata("note", "a: b");
    const auto sent = contents(*source);
    ASSERT_GE(sent.size(), 100);

    QElapsedTimer timer;
    timer.start();
    push(source.get(), "/projects/big one");
    ASSERT_TRUE(outcome->ended());
    ASSERT_EQ(outcome->done, 1) << lastReason().toStdString();
    EXPECT_GT(outcome->values, 0);
    const qint64 pushMs = timer.restart();

    auto back = newModel();
    pull(back.get(), "/projects/big one");
    ASSERT_TRUE(outcome->ended());
    ASSERT_EQ(outcome->done, 2) << lastReason().toStdString();
    std::cout << "push " << pushMs << " ms, pull " << timer.elapsed() << " ms of " << sent.size()
              << " files\n";
    EXPECT_EQ(contents(*back), sent);
    EXPECT_EQ(back->getMetadata(), source->getMetadata());

    // A merge keeps what stands remotely; a plain push replaces it.
    auto extra = newModel();
    writeFile(*extra, "added.txt", "added");
    sync->pushMerge("127.0.0.1", port, extra.get(), "/projects/big one",
                    wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_TRUE(fs::exists(fs::path(store) / "projects/big one/empty"));
    EXPECT_TRUE(fs::exists(fs::path(store) / "projects/big one/added.txt"));
    push(extra.get(), "/projects/big one");
    ASSERT_TRUE(outcome->ended());
    EXPECT_FALSE(fs::exists(fs::path(store) / "projects/big one/empty"));
    EXPECT_TRUE(fs::exists(fs::path(store) / "projects/big one/added.txt"));
    EXPECT_EQ(outcome->done, 4);
}

TEST_F(ProjectSyncTest, CancelEndsALargePushAndPullAtOnce)
{
    auto source = newModel();
    writeFile(*source, "big.bin", QByteArray(8 << 20, 'x'));
    // The robot takes the body slowly, so the transfer is still running.
    setFault(Fault::Kind::SlowBody, "PUT");
    fault.delay = std::chrono::milliseconds(2);
    fault.bytes = 16 * 1024;
    applyFault();
    push(source.get());
    ASSERT_TRUE(test::waitUntil([&] { return outcome->values > 2; }));
    QElapsedTimer timer;
    timer.start();
    sync->cancel();
    ASSERT_TRUE(outcome->ended());
    const qint64 pushCancelMs = timer.elapsed();
    EXPECT_EQ(outcome->reasons, QStringList {QString()});
    EXPECT_FALSE(sync->isBusy());

    // Pull: the answer's body comes slowly.
    service->clearHttpFault();
    fs::create_directories(fs::path(store) / "p");
    {
        std::ofstream(fs::path(store) / "p/big.bin") << std::string(8 << 20, 'y');
    }
    setFault(Fault::Kind::SlowBody, "GET", "big.bin");
    fault.delay = std::chrono::milliseconds(2);
    fault.bytes = 16 * 1024;
    applyFault();
    auto target = newModel();
    const int valuesBefore = outcome->values;
    pull(target.get());
    // The GET of the big file is under way once its bytes show.
    ASSERT_TRUE(test::waitUntil([&] { return outcome->values > valuesBefore + 3; }));
    timer.restart();
    sync->cancel();
    ASSERT_TRUE(outcome->ended());
    const qint64 pullCancelMs = timer.elapsed();
    EXPECT_EQ(outcome->reasons.value(1), QString());
    // Nothing partial is left, under the real name or any other.
    EXPECT_TRUE(QDir(target->rootPath()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    std::cout << "cancel: push " << pushCancelMs << " ms, pull " << pullCancelMs << " ms\n";

    // wait() after a cancel says so, and never blocks on this thread.
    pull(target.get());
    sync->cancel();
    EXPECT_EQ(sync->wait(), QString("cancelled"));
    EXPECT_EQ(sync->wait(), QString());
    expectHealthy();
}

// A cancel that lands between a transfer's publication and its thread's
// start must still end it; QThread::start() alone would forget it.
TEST(SynchronizationThreadTest, ExitBeforeStartEndsTheTransfer)
{
    struct Waiting : RK::SynchronizationThread
    {
        Waiting() : SynchronizationThread("127.0.0.1", 1) { }
        void transfer() override { ran = true, exec(); }
        std::atomic<bool> ran {false};
    } thread;
    thread.exit(2);
    thread.launch();
    thread.join();
    EXPECT_FALSE(thread.ran);
}

// join() returns only once the thread has left Qt for good, after its
// thread-local destructors: deleting the object then races with nothing,
// also where QThread::wait() returns early on a thread that already ended.
TEST(SynchronizationThreadTest, JoinWaitsUntilTheThreadHasLeftQt)
{
    static std::atomic<bool> joined {false};
    static std::atomic<bool> sawJoined {false};
    struct Witness
    {
        // Among the thread's very last steps. join() must still be waiting:
        // the bounded wait here is the window in which an early return shows.
        ~Witness()
        {
            QDeadlineTimer deadline(300);
            while (!joined && !deadline.hasExpired())
                std::this_thread::yield();
            sawJoined = joined.load();
        }
    };
    struct Quick : RK::SynchronizationThread
    {
        Quick() : SynchronizationThread("127.0.0.1", 1) { }
        void transfer() override
        {
            thread_local Witness witness;
            (void)witness;
        }
    };
    auto thread = std::make_unique<Quick>();
    thread->launch();
    thread->join();
    joined = true;
    thread.reset();
    EXPECT_FALSE(sawJoined);
}

TEST_F(ProjectSyncTest, EachFaultGivesItsErrorAndTheNextTransferWorks)
{
    // The stalls below end on this.
    sync->setNoDataTimeout(200);
    auto source = smallModel();
    struct Case
    {
        Fault::Kind kind;
        const char *method;
        const char *path;
        bool pushing;
        QString expected;
        bool lost;
    };
    const Case cases[] = {
        {Fault::Kind::Status, "PUT", "b.txt", true, "Could not PUT file d/b.txt:\nfull", false},
        {Fault::Kind::FinalInsteadOfContinue, "PUT", "b.txt", true,
         "Didn't get expected 100-continue for file d/b.txt: the robot answered 200 OK instead "
         "of 100 Continue",
         false},
        {Fault::Kind::NoContinue, "PUT", "b.txt", true,
         "Could not read 100-continue for file d/b.txt: no data from the robot for 0.2 s", false},
        {Fault::Kind::Stall, "GET", "b.txt", false,
         "Could not retrieve file d/b.txt: no data from the robot for 0.2 s", false},
        {Fault::Kind::LengthOff, "GET", "b.txt", false,
         "Could not retrieve file d/b.txt: no data from the robot for 0.2 s after 3000 of 3005 "
         "bytes",
         false},
        {Fault::Kind::DropAfter, "GET", "b.txt", false,
         "Could not retrieve file d/b.txt: the robot closed the connection", true},
        {Fault::Kind::DropAfter, "PUT", "b.txt", true,
         "Could not read 100-continue for file d/b.txt: the robot closed the connection", true},
        {Fault::Kind::Malformed, "GET", "b.txt", false,
         "Could not retrieve file d/b.txt: the robot's answer is not HTTP: \"HTTP/1.1 banana\"",
         false},
        {Fault::Kind::Status, "GET", "b.txt", false,
         "Could not retrieve file d/b.txt: the robot answered 404 Not Found\ngone", false},
        {Fault::Kind::Status, "DELETE", "", true,
         "Could not DELETE remote project /p/: the robot answered 409 Conflict", false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.expected.toStdString());
        if (!c.pushing) { // a remote project to pull
            service->clearHttpFault();
            push(source.get());
            ASSERT_TRUE(outcome->ended());
        }
        setFault(c.kind, c.method, c.path);
        fault.status = c.kind == Fault::Kind::Status ? (c.pushing ? 507 : 404) : 0;
        fault.body = c.kind == Fault::Kind::Status ? (c.pushing ? "full" : "gone") : "";
        if (c.kind == Fault::Kind::Status && std::string(c.method) == "DELETE")
            fault.status = 409;
        fault.lengthDelta = 5;
        fault.bytes = 10;
        applyFault();
        const int lostBefore = outcome->lost;
        auto target = newModel();
        if (c.pushing)
            push(source.get());
        else
            pull(target.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_EQ(lastReason(), c.expected);
        EXPECT_EQ(outcome->lost - lostBefore, c.lost ? 1 : 0);
        expectHealthy();
    }
    // A Content-Length short of the body: the rest spoils the next answer.
    push(source.get());
    ASSERT_TRUE(outcome->ended());
    setFault(Fault::Kind::LengthOff, "GET", "a.txt");
    fault.lengthDelta = -2;
    applyFault();
    auto target = newModel();
    writeFile(*target, "d/b.txt", "kept");
    pull(target.get());
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(),
              "Could not retrieve file d/b.txt: the robot's answer is not HTTP: \"haHTTP/1.1 200 "
              "OK\"");
    // The file that failed keeps what it held; no temporary file is left.
    EXPECT_EQ(contents(*target).keys(), (QStringList {"a.txt", "d/b.txt"}));
    EXPECT_EQ(readFile(target->rootPath() + "/d/b.txt"), "kept");
    EXPECT_EQ(QDir(target->rootPath() + "/d").entryList(QDir::Files | QDir::Hidden),
              QStringList {"b.txt"});
    expectHealthy();
}

TEST_F(ProjectSyncTest, HostileListingsNeitherEscapeNorLoop)
{
    auto source = smallModel();
    push(source.get());
    ASSERT_TRUE(outcome->ended());
    const std::vector<std::vector<std::string>> listings = {
        {"../x"}, {"/etc/passwd"}, {"./"}, {"../"}, {"a\r\nGET /x HTTP/1.1"}, {"ok", "sub/../../x"},
    };
    for (const auto &names : listings) {
        SCOPED_TRACE(names.front());
        setFault(Fault::Kind::Listing, "GET");
        fault.names = names;
        applyFault();
        // A parent of its own: the shared temporary directory changes under
        // the other tests running beside this one.
        QTemporaryDir home;
        auto target = std::make_unique<wz::project::ProjectModel>();
        target->createNew(home.filePath(QStringLiteral("project")));
        const QDir parent = QFileInfo(target->rootPath()).dir();
        const QStringList before = parent.entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        pull(target.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_TRUE(lastReason().startsWith("could not check for remote files\nthe robot listed"))
            << lastReason().toStdString();
        EXPECT_TRUE(contents(*target).isEmpty());
        EXPECT_EQ(parent.entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
    }
    // A directory that lists itself under every path: the depth limit ends the walk.
    setFault(Fault::Kind::Listing, "GET");
    fault.names = {"self/"};
    applyFault();
    auto target = newModel();
    pull(target.get());
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(
        lastReason(),
        "could not check for remote files\nthe robot listed directories deeper than 64 levels");
    expectHealthy();
}

TEST_F(ProjectSyncTest, RemoveBusyAndUnreachable)
{
    auto source = smallModel();
    push(source.get(), "/gone");
    ASSERT_TRUE(outcome->ended());
    sync->remove("127.0.0.1", port, "/gone", wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(outcome->done, 2);
    EXPECT_FALSE(fs::exists(fs::path(store) / "gone"));
    // Nothing there is as good as removed.
    sync->remove("127.0.0.1", port, "/gone", wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(outcome->done, 3);

    // A path without its leading "/" is the same project.
    push(source.get(), "/gone");
    ASSERT_TRUE(outcome->ended());
    sync->remove("127.0.0.1", port, "gone", wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(outcome->done, 5) << lastReason().toStdString();
    EXPECT_FALSE(fs::exists(fs::path(store) / "gone"));

    // The whole store is refused on this side too, however it is spelled.
    push(source.get(), "/kept");
    ASSERT_TRUE(outcome->ended());
    for (const char *root : {"", "/", "//", "/.", "/./", "/kept/..", "/..", "/../kept", ".."}) {
        SCOPED_TRACE(root);
        sync->remove("127.0.0.1", port, root, wz::project::ArchiveFormat_Plain);
        ASSERT_TRUE(outcome->ended());
        EXPECT_TRUE(lastReason().startsWith("Could not DELETE remote project.\n"));
        push(nullptr, root);
        ASSERT_TRUE(outcome->ended());
        EXPECT_TRUE(lastReason().startsWith("Could not DELETE remote project.\n"));
    }
    EXPECT_TRUE(fs::exists(fs::path(store) / "kept/a.txt"));

    // A second operation while one runs is refused; the first still ends well.
    setFault(Fault::Kind::SlowBody, "PUT");
    fault.delay = std::chrono::milliseconds(20);
    fault.times = 1;
    applyFault();
    push(source.get());
    auto target = newModel();
    pull(target.get());
    EXPECT_EQ(lastReason(), "a project synchronization operation is in progress");
    const int doneBefore = outcome->done;
    ASSERT_TRUE(test::waitUntil([&] { return outcome->done > doneBefore; }));

    // Nobody listening.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
    const int deadPort = closed.serverPort();
    closed.close();
    const int lostBefore = outcome->lost;
    sync->remove("127.0.0.1", deadPort, "/x", wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(), "Could not connect to robot.");
    sync->pull("127.0.0.1", deadPort, "/p", target.get(), wz::project::ArchiveFormat_Plain);
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(), "could not connect to robot");
    EXPECT_EQ(outcome->lost, lostBefore + 2);
    // wait() on a transfer that ends as it is called, with no event processed.
    sync->pull("127.0.0.1", deadPort, "/p", target.get(), wz::project::ArchiveFormat_Plain);
    EXPECT_EQ(sync->wait(), "could not connect to robot");
}

// Answers framed every way RFC 9112 allows, a server that closes its
// connections, and redirects: the tree still comes back whole.
TEST_F(ProjectSyncTest, FramingsClosesAndRedirectsAreUnderstood)
{
    auto source = smallModel();
    writeFile(*source, "d/e/big.bin", QByteArray(300 * 1024, 'q'));
    writeFile(*source, "empty", QByteArray());
    push(source.get());
    ASSERT_TRUE(outcome->ended());
    ASSERT_EQ(outcome->done, 1) << lastReason().toStdString();
    struct Case
    {
        const char *name;
        Fault::Kind kind;
        size_t bytes;
        bool announce;
    };
    const Case cases[] = {
        {"chunked", Fault::Kind::Chunked, 1000, false},
        {"close-delimited HTTP/1.0", Fault::Kind::CloseDelimited, 0, false},
        {"silent close after 2", Fault::Kind::CloseAfter, 2, false},
        {"announced close after 1", Fault::Kind::CloseAfter, 1, true},
        {"announced close after 3", Fault::Kind::CloseAfter, 3, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        setFault(c.kind, c.kind == Fault::Kind::CloseAfter ? "" : "GET");
        fault.bytes = c.bytes;
        fault.announce = c.announce;
        applyFault();
        auto back = newModel();
        const int doneBefore = outcome->done;
        pull(back.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_EQ(outcome->done, doneBefore + 1) << lastReason().toStdString();
        EXPECT_EQ(contents(*back), contents(*source));
        EXPECT_EQ(back->getMetadata(), source->getMetadata());
        if (c.kind == Fault::Kind::CloseAfter) { // and a push through the same closes
            push(source.get());
            ASSERT_TRUE(outcome->ended());
            EXPECT_EQ(outcome->done, doneBefore + 2) << lastReason().toStdString();
        }
    }

    // A redirect of a sub-directory within the server is followed.
    fs::create_directories(fs::path(store) / "elsewhere");
    fs::copy(fs::path(store) / "p/d", fs::path(store) / "elsewhere/d", fs::copy_options::recursive);
    setFault(Fault::Kind::Redirect, "GET", "/p/d/");
    fault.body = "/elsewhere/d/";
    applyFault();
    auto back = newModel();
    pull(back.get());
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(), QString());
    EXPECT_EQ(contents(*back), contents(*source));
    EXPECT_GT(service->httpFaultsTaken(), 0);

    // A loop and another server are refused, naming the cause.
    for (const char *location : {"/p/d/", "http://192.0.2.1:1/p/d/"}) {
        setFault(Fault::Kind::Redirect, "GET", "/p/d/");
        fault.body = location;
        applyFault();
        auto target = newModel();
        pull(target.get());
        ASSERT_TRUE(outcome->ended());
        EXPECT_TRUE(lastReason().startsWith("could not check for remote files\nGET /p/d/: "))
            << lastReason().toStdString();
        EXPECT_TRUE(lastReason().contains(location[0] == '/' ? "more than 5 redirects"
                                                             : "to another server"))
            << lastReason().toStdString();
    }
    // A sub-directory the server refuses fails the pull: no silent gaps.
    setFault(Fault::Kind::Status, "GET", "/p/d/");
    fault.status = 403;
    applyFault();
    auto partial = newModel();
    pull(partial.get());
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(), "could not check for remote files\nGET /p/d/ answered 403 Forbidden");
    expectHealthy();
}

// Byte progress runs over the whole push, never back, and ends full; pull's
// ends full too; a transfer slower than the floor fails and says so.
TEST_F(ProjectSyncTest, ProgressReachesItsEndAndASlowTransferFails)
{
    auto source = newModel();
    for (int i = 0; i < 150; ++i)
        writeFile(*source, QString("f/%1.txt").arg(i), QByteArray(100, 'x'));
    // Values after the last range, in the order they arrived.
    QList<int> values;
    int maximum = -1;
    auto v = QObject::connect(sync.get(), &RK::ProjectSynchronizer::valueChanged,
                              [&](int value) { values << value; });
    auto r = QObject::connect(sync.get(), &RK::ProjectSynchronizer::rangeChanged, [&](int, int hi) {
        maximum = hi;
        values.clear();
    });
    push(source.get());
    ASSERT_TRUE(outcome->ended());
    ASSERT_EQ(outcome->done, 1) << lastReason().toStdString();
    EXPECT_EQ(maximum, 15000);
    ASSERT_FALSE(values.isEmpty());
    EXPECT_EQ(values.last(), 15000);
    EXPECT_GT(QSet<int>(values.begin(), values.end()).size(), 2); // not stuck through small files
    for (int i = 1; i < values.size(); ++i)
        EXPECT_LE(values.at(i - 1), values.at(i));

    auto back = newModel();
    pull(back.get());
    ASSERT_TRUE(outcome->ended());
    ASSERT_EQ(outcome->done, 2) << lastReason().toStdString();
    EXPECT_EQ(maximum, 150 * 1000);
    ASSERT_FALSE(values.isEmpty());
    EXPECT_EQ(values.last(), 150 * 1000);
    QObject::disconnect(v);
    QObject::disconnect(r);

    // 1 KiB every 20 ms is 50 KiB/s, under a floor of 1 MB/s over 0.3 s.
    fs::create_directories(fs::path(store) / "slow");
    std::ofstream(fs::path(store) / "slow/big.bin") << std::string(4 << 20, 's');
    setFault(Fault::Kind::SlowBody, "GET", "big.bin");
    fault.delay = std::chrono::milliseconds(20);
    fault.bytes = 1024;
    applyFault();
    sync->setSpeedFloor(1000000, 300);
    auto slow = newModel();
    pull(slow.get(), "/slow");
    ASSERT_TRUE(outcome->ended());
    EXPECT_EQ(lastReason(),
              "Could not retrieve file big.bin: the transfer ran slower than 1000000 bytes/s for "
              "0.3 s");
    EXPECT_TRUE(QDir(slow->rootPath()).entryList(QDir::Files | QDir::Hidden).isEmpty());
    sync->setSpeedFloor(0, 0);
    expectHealthy();
}

TEST_F(ProjectSyncTest, DestroyedWhileRunningCancelsAndWaits)
{
    auto source = newModel();
    writeFile(*source, "big.bin", QByteArray(4 << 20, 'z'));
    setFault(Fault::Kind::Stall, "PUT");
    applyFault();
    auto doomed = std::make_unique<RK::HttpProjectSynchronizer>();
    doomed->push("127.0.0.1", port, source.get(), "/p", wz::project::ArchiveFormat_Plain);
    // Running: the PUT has reached the robot, which holds it.
    ASSERT_TRUE(test::waitUntil([&] { return service->httpFaultsTaken() > 0; }));
    QElapsedTimer timer;
    timer.start();
    doomed.reset();
    EXPECT_LT(timer.elapsed(), 1000);
}

// Transfers started from one thread (as the package manager does, from the
// pool) while another waits: a wait() never meets a transfer half started,
// and every transfer that started ends in the one wait() that took it.
TEST(ProjectSyncThreadsTest, TransfersStartedWhileAnotherThreadWaitsEachEndOnce)
{
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost));
    const int deadPort = closed.serverPort();
    closed.close();

    RK::HttpProjectSynchronizer sync;
    std::atomic<int> refused {0};
    QObject::connect(
        &sync, &RK::ProjectSynchronizer::aborted, &sync,
        [&refused](const QString &reason) {
            if (reason == QLatin1String("a project synchronization operation is in progress"))
                ++refused;
        },
        Qt::DirectConnection);
    constexpr int k_starts = 100;
    std::atomic<bool> startsDone {false};
    std::thread starter([&] {
        for (int i = 0; i < k_starts; ++i) {
            // Each start once the last has been taken, so that it meets a wait().
            while (sync.isBusy())
                std::this_thread::yield();
            sync.remove("127.0.0.1", deadPort, "/x", wz::project::ArchiveFormat_Plain);
        }
        startsDone = true;
    });
    int ended = 0;
    QStringList others;
    while (!startsDone || sync.isBusy()) {
        const QString reason = sync.wait();
        if (reason == QLatin1String("Could not connect to robot."))
            ++ended;
        else if (!reason.isEmpty())
            others << reason;
    }
    starter.join();
    EXPECT_TRUE(others.isEmpty()) << others.join('\n').toStdString();
    EXPECT_GT(ended, 0);
    EXPECT_EQ(ended + refused, k_starts);
}

} // namespace
