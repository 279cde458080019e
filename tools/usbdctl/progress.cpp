#include "progress.h"

#include <unistd.h>

#include "requests.h"

namespace usbdctl {

namespace {

constexpr int kRedrawIntervalMs = 200;
constexpr char kSpinner[] = "|/-\\";

} // namespace

Progress::Progress(FILE *out, QString doing, QString done, quint64 totalBytes, QObject *parent)
    : QObject(parent), out_(out), doing_(std::move(doing)), doneVerb_(std::move(done)), total_(totalBytes),
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
    const double seconds = double(clock_.elapsed()) / 1000.0;
    QString line = QStringLiteral("%1 %2 ").arg(QChar::fromLatin1(kSpinner[tick_++ % 4])).arg(doing_);
    if (done_ != 0)
        line += formatBytes(done_) + QStringLiteral(" of ");
    line += formatBytes(total_) + QStringLiteral(", %1 s").arg(seconds, 0, 'f', 1);
    // \033[K clears what a longer earlier line left behind.
    std::fprintf(out_, "\r%s\033[K", qPrintable(line));
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
        QString line = QStringLiteral("%1 %2 in %3 s").arg(doneVerb_, formatBytes(total_))
                           .arg(seconds, 0, 'f', 3);
        if (seconds > 0 && total_ > 0)
            line += QStringLiteral(" (%1/s)").arg(formatBytes(quint64(double(total_) / seconds)));
        std::fprintf(out_, "%s\n", qPrintable(line));
    }
    std::fflush(out_);
}

} // namespace usbdctl
