#include "logging.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

Q_LOGGING_CATEGORY(lcUsbd, "usbd", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdSocket, "usbdsocket", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdBuffer, "usbdbuffer", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdBufferList, "usbdbufferlist", QtWarningMsg)
Q_LOGGING_CATEGORY(lcIosConn, "iosconn", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbConn, "usbconn", QtWarningMsg)

namespace {

// The syslog priority of each level, as the journal reads it from a "<N>" line prefix.
int journalPriority(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return LOG_DEBUG;
    case QtInfoMsg:
        return LOG_INFO;
    case QtWarningMsg:
        return LOG_WARNING;
    case QtCriticalMsg:
        return LOG_ERR;
    case QtFatalMsg:
        return LOG_CRIT;
    }
    return LOG_WARNING;
}

void journalHandler(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const QByteArray line = qFormatLogMessage(type, context, message).toLocal8Bit();
    // One write per line, so that lines of different threads never interleave.
    std::fprintf(stderr, "<%d>%s\n", journalPriority(type), line.constData());
    std::fflush(stderr);
}

// systemd sets JOURNAL_STREAM to the device and inode of the stream it connected to stdout and
// stderr. A child whose stderr was redirected elsewhere inherits the variable, so it counts
// only while stderr is still that very stream.
bool stderrIsJournal()
{
    const char *stream = std::getenv("JOURNAL_STREAM");
    if (stream == nullptr)
        return false;
    unsigned long long device = 0;
    unsigned long long inode = 0;
    if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2)
        return false;
    struct stat st {};
    if (fstat(STDERR_FILENO, &st) != 0)
        return false;
    return st.st_dev == device && st.st_ino == inode;
}

} // namespace

void setUpLogging()
{
    // Qt's own rules decide what is shown (QT_LOGGING_RULES, QT_LOGGING_CONF, qtlogging.ini):
    // the module categories start at warning, Qt's default category shows everything. A
    // deployment that wants a quieter journal says so in its environment.
    if (stderrIsJournal())
        qInstallMessageHandler(journalHandler);
}
