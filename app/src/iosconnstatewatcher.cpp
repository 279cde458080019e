#include "iosconnstatewatcher.h"

#include <libiosconn.h>

namespace {
constexpr int kPollIntervalMs = 500;
}

IOSConnStateWatcher::IOSConnStateWatcher(QObject *parent) : QObject(parent), timer_(this)
{
    qRegisterMetaType<IOSConnStateWatcher::State>("IOSConnStateWatcher::State");
    // Qt's default (coarse) timers may fire up to 5 % early to share wake-ups; a poll must
    // never come before its period is over.
    timer_.setTimerType(Qt::PreciseTimer);
    timer_.setInterval(kPollIntervalMs);
    connect(&timer_, &QTimer::timeout, this, &IOSConnStateWatcher::onTimeout);
}

IOSConnStateWatcher::~IOSConnStateWatcher()
{
    timer_.stop();
}

void IOSConnStateWatcher::start()
{
    timer_.start();
}

void IOSConnStateWatcher::onTimeout()
{
    // The library has no notification; any value it returns is passed on unchanged.
    const int state = iosconn_isconnect(1);
    if (state == state_)
        return;
    state_ = state;
    emit stateChanged(static_cast<IOSConnStateWatcher::State>(state));
}
