// Runs the messaging layer's start-up in a process of its own, for the tests of the paths that
// end the process. Usage: ostr_init_probe APPNAME session|system
#include <QCoreApplication>

#include <cstdio>
#include <cstring>

#include <ostr/Common.h>

int main(int argc, char *argv[])
{
    if (argc != 3)
        return 2;
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QString::fromLocal8Bit(argv[1]));
    Common::init(std::strcmp(argv[2], "session") == 0, true);
    std::puts("registered");
    return 0;
}
