#pragma once

#include <cstdio>

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

namespace usbdctl {

// "512 B", "4.00 KiB", "1.50 MiB", "20.0 GiB".
QString formatBytes(quint64 bytes);
// The line shown while a request is under way: "sending 1.00 MiB, 2.3 s", or with the bytes so
// far where they can be watched growing: "receiving 512 B of 1.00 MiB, 2.3 s".
QString progressLine(const QString &doing, quint64 done, quint64 total, double seconds);
// The line left once it has succeeded: "sent 1.00 MiB in 0.512 s (1.95 MiB/s)".
QString summaryLine(const QString &doneVerb, quint64 total, double seconds);

// Shows that a request is under way while its reply is awaited, and how fast it went once it
// is answered. The daemon reports nothing until the end, so the line shows what was asked for
// and the time so far. It draws only on a terminal: in a pipe or a log file a line rewritten
// with carriage returns is noise, so there the reporter stays silent.
class Progress : public QObject {
    Q_OBJECT
public:
    // doing/done: "sending"/"sent"; totalBytes: what the request moves, padding included.
    Progress(FILE *out, QString doing, QString done, quint64 totalBytes, QObject *parent = nullptr);

    static bool isTerminal(FILE *out);
    bool enabled() const { return enabled_; }

    void start();
    // Shows the transferred count while receiving, where it can be watched growing.
    void setDone(quint64 bytes) { done_ = bytes; }
    // Clears the line; when succeeded, prints the size, time and throughput.
    void finish(bool succeeded);

private:
    void draw();

    FILE *out_;
    QString doing_;
    QString doneVerb_;
    quint64 total_;
    quint64 done_ = 0;
    bool enabled_;
    int tick_ = 0;
    QTimer timer_;
    QElapsedTimer clock_;
};

} // namespace usbdctl
