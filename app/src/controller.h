#pragma once

#include <QByteArray>

namespace usbd {

// The USB device controller the daemon follows: the first entry of the controller class
// directory that is a directory (or a link to one), in the directory's own order, never sorted.
// Its path ends with '/', ready for an attribute's name; empty when there is no controller.
QByteArray firstControllerDir();

} // namespace usbd
