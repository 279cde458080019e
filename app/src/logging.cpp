#include "logging.h"

Q_LOGGING_CATEGORY(lcUsbd, "usbd", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdSocket, "usbdsocket", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdBuffer, "usbdbuffer", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbdBufferList, "usbdbufferlist", QtWarningMsg)
Q_LOGGING_CATEGORY(lcIosConn, "iosconn", QtWarningMsg)
Q_LOGGING_CATEGORY(lcUsbConn, "usbconn", QtWarningMsg)
