// The iOS link watcher against a stand-in for the MFi link library's state query.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <QCoreApplication>
#include <QThread>

#include <libiosconn.h>

#include "iosconnstatewatcher.h"

namespace {

std::atomic<int> libraryState{IOSCONN_NOT_CONNECTED};

} // namespace

extern "C" int iosconn_isconnect(int)
{
    return libraryState;
}

namespace {

using Clock = std::chrono::steady_clock;

// The first poll is one whole period after the watcher's thread starts, never earlier: Qt's
// default timers may fire up to 5 % early to share wake-ups, which a watcher must not do. Several
// watchers at once, so that an early timer shows whatever the phase of the clock.
TEST(IosWatcher, FirstReportComesAFullPeriodAfterTheThreadStarts)
{
    int argc = 1;
    char name[] = "test_watcher";
    char *argv[] = {name, nullptr};
    QCoreApplication app(argc, argv); // threads get their event dispatchers from it
    libraryState = IOSCONN_MFI;
    constexpr int kWatchers = 8;
    std::vector<QThread *> threads;
    std::vector<Clock::time_point> started(kWatchers);
    std::vector<std::atomic<long long>> reported(kWatchers);
    for (int i = 0; i < kWatchers; ++i) {
        auto *watcher = new IOSConnStateWatcher(nullptr);
        auto *thread = new QThread;
        watcher->moveToThread(thread);
        QObject::connect(thread, &QThread::started, watcher, &IOSConnStateWatcher::start);
        QObject::connect(thread, &QThread::finished, watcher, &QObject::deleteLater);
        QObject::connect(
            watcher, &IOSConnStateWatcher::stateChanged, watcher,
            [&reported, &started, i](IOSConnStateWatcher::State state) {
                EXPECT_EQ(state, IOSConnStateWatcher::MfiState);
                reported[i] =
                    std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started[i])
                        .count();
            },
            Qt::DirectConnection);
        reported[i] = -1;
        started[i] = Clock::now();
        thread->start();
        threads.push_back(thread);
    }
    const auto limit = Clock::now() + std::chrono::seconds(30);
    for (int i = 0; i < kWatchers; ++i) {
        while (reported[i] < 0 && Clock::now() < limit)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_GE(reported[i], 500000) << "watcher " << i;
    }
    for (QThread *thread : threads) {
        thread->quit();
        thread->wait();
        delete thread;
    }
    libraryState = IOSCONN_NOT_CONNECTED;
}

} // namespace
