#pragma once

#include <QLoggingCategory>

// One category per module. Each is created with warning as its lowest enabled level, so debug
// lines show only when QT_LOGGING_RULES enables them (for example "usbd.debug=true").
Q_DECLARE_LOGGING_CATEGORY(lcUsbd)
Q_DECLARE_LOGGING_CATEGORY(lcUsbdSocket)
Q_DECLARE_LOGGING_CATEGORY(lcUsbdBuffer)
Q_DECLARE_LOGGING_CATEGORY(lcUsbdBufferList)
Q_DECLARE_LOGGING_CATEGORY(lcIosConn)
Q_DECLARE_LOGGING_CATEGORY(lcUsbConn)

// Prefixes each line with its syslog priority ("<4>") when stderr is the systemd journal, so that
// "journalctl -p" can tell the levels apart; which lines are shown stays Qt's business. Called
// once, first thing in main().
void setUpLogging();
