#pragma once

// Stand-ins used by the data path's tests: a log capture, a scriptable buffer, a request list
// that records its completion, and the bus the D-Bus request lists reply on.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include <QByteArray>
#include <QDBusMessage>
#include <QList>
#include <QString>
#include <QStringList>

#include "usbdbuffer.h"
#include "usbdbufferlist.h"

// Collects every Qt log message for as long as it lives.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();

    QStringList messages() const;
    bool contains(const QString &text) const;
    int count(const QString &text) const;

private:
    QtMessageHandler previous_;
};

// A buffer whose answers are set by the test; can report its deletion.
class TestBuffer : public UsbDBuffer {
    Q_OBJECT
public:
    TestBuffer(const QByteArray &data, quint32 padding = 0, quint32 physicalAddress = 0,
               quint32 offset = 0);
    ~TestBuffer() override;

    quint32 offset() override { return offset_; }
    quint32 size() override { return quint32(data_.size()) - offset_; }
    quint32 elementAlignment() override { return 0; }
    quint32 elementPadding() override { return padding_; }
    bool map() override { ++mapCalls; return mapResult; }
    const uchar *virtualAddress() override
    {
        return reinterpret_cast<const uchar *>(data_.constData());
    }
    quint32 physicalAddress() override { return physicalAddress_; }
    quint16 sessionId() override { return 0; }

    bool mapResult = true;
    int mapCalls = 0;
    std::function<void()> onDelete;

private:
    QByteArray data_;
    quint32 padding_;
    quint32 physicalAddress_;
    quint32 offset_;
};

// What happened to the TestLists of one test.
class Recorder {
public:
    enum Outcome { None, Succeeded, Failed };

    void completed(int id, bool success);
    void deleted(int id);
    // Waits until `count` lists have been deleted; false after a 10 s time-out.
    bool waitDeleted(int count);

    std::vector<int> completionOrder() const;
    Outcome outcome(int id) const;
    int completions(int id) const;
    bool wasDeleted(int id) const;

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<int> completionOrder_;
    std::vector<std::pair<int, bool>> completions_;
    std::vector<int> deleted_;
};

class TestList : public UsbDBufferList {
    Q_OBJECT
public:
    TestList(int id, Recorder *recorder, const QList<UsbDBuffer *> &buffers = {});
    ~TestList() override;

    void success() override { recorder_->completed(id_, true); }
    void fail() override { recorder_->completed(id_, false); }
    int id() const { return id_; }

private:
    int id_;
    Recorder *recorder_;
};

// Every message the request lists hand to Bus::send.
std::vector<QDBusMessage> sentBusMessages();
void clearSentBusMessages();
