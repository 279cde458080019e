#include "controller.h"

#include <QDir>
#include <QDirIterator>

#include "paths.h"

namespace usbd {

QByteArray firstControllerDir()
{
    // QDirIterator walks the directory as the kernel lists it; QDir::entryList would sort by
    // name even when asked for QDir::NoSort.
    QDirIterator it(QString::fromLatin1(kUdcClassDir), QDir::Dirs | QDir::NoDotAndDotDot);
    if (!it.hasNext())
        return QByteArray();
    it.next();
    return QByteArray(kUdcClassDir) + it.fileName().toLocal8Bit() + '/';
}

} // namespace usbd
