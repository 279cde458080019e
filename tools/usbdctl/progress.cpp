#include "progress.h"

#include <unistd.h>

namespace usbdctl {

namespace {

constexpr int kRedrawIntervalMs = 200;
constexpr char kSpinner[] = "|/-\\";

} // namespace

QString formatBytes(quint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    static const char *const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
    double value = double(bytes) / 1024.0;
    int unit = 0;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    return QStringLiteral("%1 %2")
        .arg(value, 0, 'f', value < 10 ? 2 : 1)
        .arg(QLatin1String(kUnits[unit]));
}

QString progressLine(const QString &doing, quint64 done, quint64 total, double seconds)
{
    QString line = doing + QLatin1Char(' ');
    if (done != 0)
        line += formatBytes(done) + QStringLiteral(" of ");
    return line + formatBytes(total) + QStringLiteral(", %1 s").arg(seconds, 0, 'f', 1);
}

QString summaryLine(const QString &doneVerb, quint64 total, double seconds)
{
    QString line =
        QStringLiteral("%1 %2 in %3 s").arg(doneVerb, formatBytes(total)).arg(seconds, 0, 'f', 3);
    if (seconds > 0 && total > 0)
        line += QStringLiteral(" (%1/s)").arg(formatBytes(quint64(double(total) / seconds)));
    return line;
}

Progress::Progress(FILE *out, QString doing, QString done, quint64 totalBytes, QObject *parent)
    : QObject(parent),
      out_(out),
      doing_(std::move(doing)),
      doneVerb_(std::move(done)),
      total_(totalBytes),
      enabled_(isTerminal(out))
{
    timer_.setInterval(kRedrawIntervalMs);
    connect(&timer_, &QTimer::timeout, this, &Progress::draw);
}

bool Progress::isTerminal(FILE *out)
{
    return isatty(fileno(out)) == 1;
}

void Progress::start()
{
    clock_.start();
    if (!enabled_)
        return;
    draw();
    timer_.start();
}

void Progress::draw()
{
    const QString line = progressLine(doing_, done_, total_, double(clock_.elapsed()) / 1000.0);
    // \033[K clears what a longer earlier line left behind.
    std::fprintf(out_, "\r%c %s\033[K", kSpinner[tick_++ % 4], qPrintable(line));
    std::fflush(out_);
}

void Progress::finish(bool succeeded)
{
    timer_.stop();
    if (!enabled_)
        return;
    std::fprintf(out_, "\r\033[K");
    if (succeeded) {
        const double seconds = double(clock_.nsecsElapsed()) / 1e9;
        std::fprintf(out_, "%s\n", qPrintable(summaryLine(doneVerb_, total_, seconds)));
    }
    std::fflush(out_);
}

} // namespace usbdctl
