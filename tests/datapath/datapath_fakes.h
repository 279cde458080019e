#pragma once

// Stand-ins for the data path's tests: a log capture, a buffer with a chosen physical address,
// and a request list that records what happened to it.

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>

#include <QStringList>

#include "usbdbuffer.h"
#include "usbdbufferlist.h"

// Collects every Qt log message ("category: text", plain text for the default category).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    QStringList messages() const;
    bool contains(const QString &text) const;

private:
    QtMessageHandler previous_;
};

// Memory that claims to have a physical address: region starts at `physical`.
class PhysicalBuffer : public UsbDBufferMem {
    Q_OBJECT
public:
    PhysicalBuffer(const QByteArray &region, quint32 offset, quint32 padding, quint32 physical)
        : UsbDBufferMem(region, offset, quint32(region.size()) - offset, 0, padding, 0, nullptr),
          physical_(physical)
    {
    }
    quint32 physicalAddress() override { return physical_; }

private:
    quint32 physical_;
};

// Outcomes and deletions of TestLists, by id, across threads.
class Recorder {
public:
    enum Outcome { None, Succeeded, Failed };
    void completed(int id, bool ok);
    void deleted(int id);
    bool waitDeleted(size_t count); // false after 10 s
    Outcome outcome(int id) const;
    bool wasDeleted(int id) const;
    std::vector<int> order() const;

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, Outcome> outcomes_;
    std::vector<int> order_;
    std::set<int> deleted_;
};

class TestList : public UsbDBufferList {
    Q_OBJECT
public:
    TestList(int id, Recorder *recorder, const QList<UsbDBuffer *> &buffers = {})
        : UsbDBufferList(buffers, nullptr),
          id_(id),
          recorder_(recorder)
    {
    }
    ~TestList() override { recorder_->deleted(id_); }
    void success() override { recorder_->completed(id_, true); }
    void fail() override { recorder_->completed(id_, false); }

private:
    int id_;
    Recorder *recorder_;
};
