#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QCoreApplication>

#include <ostr/Common.h>

#include "logging.h"
#include "usbd.h"
#include "usbdobject.h"

int main(int argc, char *argv[])
{
    setUpLogging();
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("usbd"));
    QCoreApplication::setApplicationVersion(QStringLiteral(USBD_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Handles USB device communication"));
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption sessionOption(QStringList{QStringLiteral("s"), QStringLiteral("session")},
                                     QCoreApplication::translate("main", "Use session bus"));
    parser.addOption(sessionOption);
    parser.process(app);

    // The messaging layer must exist before the D-Bus object, whose base registers through it.
    Common::init(parser.isSet(sessionOption), true);

    // Both live for the life of the process; nothing deletes them.
    auto *usbd = new UsbD(nullptr);
    new UsbdObjectImpl(usbd, nullptr);

    return app.exec();
}
