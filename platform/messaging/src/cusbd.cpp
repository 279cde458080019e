#include "ostr/CUsbD.h"

QString CUsbD::tagPath()
{
    return QStringLiteral("path");
}

QString CUsbD::tagOffset()
{
    return QStringLiteral("offset");
}

QString CUsbD::tagSize()
{
    return QStringLiteral("size");
}

QString CUsbD::tagElementAlignment()
{
    return QStringLiteral("element_alignment");
}

QString CUsbD::tagElementPadding()
{
    return QStringLiteral("element_padding");
}

QString CUsbD::tagSessionId()
{
    return QStringLiteral("session_id");
}

QString CUsbD::tagHandle()
{
    return QStringLiteral("handle");
}

QString CUsbD::tagUsePhysicalAddress()
{
    return QStringLiteral("use_physical_address");
}
