#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QProcess>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include <ostr/Bus.h>
#include <ostr/Common.h>
#include <ostr/DBusObject.h>
#include <ostr/OstrTypes.h>

#include "test_bus.h"

namespace {

const char kAppName[] = "usbdtest";
const char kInterface[] = "com.korvane.probe";
const char kPath[] = "/com/korvane/probe";

TestBus *testBus = nullptr;

class ProbeObject : public DBusObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "com.korvane.probe")
    Q_PROPERTY(int level READ level)
    Q_PROPERTY(OstrTypes::E_LinkType link READ link)
public:
    ProbeObject() : DBusObject(QStringLiteral("probe"), nullptr) {}

    int level() const { return level_; }
    OstrTypes::E_LinkType link() const { return link_; }

    int level_ = 3;
    OstrTypes::E_LinkType link_ = OstrTypes::LinkTypeNone;
    int recorded_ = -1;
    QString caller_;

public slots:
    Q_SCRIPTABLE void record(int value, const QDBusMessage &msg)
    {
        recorded_ = value;
        caller_ = msg.service();
    }
    void hidden() {}
};

class SignalSink : public QObject {
    Q_OBJECT
public:
    struct Change {
        QString interface;
        QVariantMap changed;
        QStringList invalidated;
    };
    QList<Change> changes_;
    QList<QString> pings_;

public slots:
    void onPropertiesChanged(const QString &interface, const QVariantMap &changed,
                             const QStringList &invalidated)
    {
        changes_.append({interface, changed, invalidated});
    }
    void onPing(const QString &text) { pings_.append(text); }
};

bool waitFor(const std::function<bool()> &done, int timeoutMs = 5000)
{
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

// A second connection plays the client: calls from the server's own connection would be
// delivered locally and not prove anything about what the bus sees.
QDBusConnection client()
{
    return QDBusConnection::connectToBus(QString::fromStdString(testBus->address()),
                                         QStringLiteral("client"));
}

QDBusMessage callAndWait(const QDBusMessage &call)
{
    QDBusPendingCall pending = client().asyncCall(call, 5000);
    waitFor([&pending] { return pending.isFinished(); }, 6000);
    return pending.reply();
}

struct ProbeResult {
    int exitCode = -1;
    QString out;
    QString err;
};

ProbeResult runProbe(const QString &bus, const QProcessEnvironment &env)
{
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(OSTR_INIT_PROBE), {QString::fromLatin1(kAppName), bus});
    ProbeResult result;
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished();
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = QString::fromLocal8Bit(process.readAllStandardOutput());
    result.err = QString::fromLocal8Bit(process.readAllStandardError());
    return result;
}

TEST(Messaging, ObjectIsExportedWithItsDerivedInterface)
{
    ProbeObject probe;
    const QString service = Common::serviceName();
    EXPECT_EQ(service, QStringLiteral("com.korvane.usbdtest"));
    EXPECT_EQ(probe.objectPath(), QString::fromLatin1(kPath));

    // Registered in the base constructor, yet the bus must see the derived class.
    QDBusMessage introspect = callAndWait(QDBusMessage::createMethodCall(
        service, kPath, QStringLiteral("org.freedesktop.DBus.Introspectable"),
        QStringLiteral("Introspect")));
    ASSERT_EQ(introspect.type(), QDBusMessage::ReplyMessage) << qPrintable(introspect.errorMessage());
    const QString xml = introspect.arguments().value(0).toString();
    EXPECT_TRUE(xml.contains(QLatin1String("<interface name=\"com.korvane.probe\">"))) << qPrintable(xml);
    EXPECT_TRUE(xml.contains(QLatin1String("<method name=\"record\">"))) << qPrintable(xml);
    EXPECT_TRUE(xml.contains(QLatin1String("<property name=\"level\" type=\"i\" access=\"read\"/>")))
        << qPrintable(xml);
    EXPECT_FALSE(xml.contains(QLatin1String("hidden"))) << qPrintable(xml);

    // The trailing QDBusMessage is not part of the D-Bus signature.
    QDBusMessage call = QDBusMessage::createMethodCall(service, kPath, kInterface,
                                                       QStringLiteral("record"));
    call << 42;
    const QDBusMessage reply = callAndWait(call);
    EXPECT_EQ(reply.type(), QDBusMessage::ReplyMessage) << qPrintable(reply.errorMessage());
    EXPECT_EQ(probe.recorded_, 42);
    EXPECT_EQ(probe.caller_, client().baseService());

    QDBusMessage get = QDBusMessage::createMethodCall(
        service, kPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QString::fromLatin1(kInterface) << QStringLiteral("level");
    const QDBusMessage value = callAndWait(get);
    ASSERT_EQ(value.type(), QDBusMessage::ReplyMessage) << qPrintable(value.errorMessage());
    EXPECT_EQ(value.arguments().value(0).value<QDBusVariant>().variant().toInt(), 3);

    QDBusMessage set = QDBusMessage::createMethodCall(
        service, kPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Set"));
    set << QString::fromLatin1(kInterface) << QStringLiteral("level")
        << QVariant::fromValue(QDBusVariant(9));
    EXPECT_EQ(callAndWait(set).type(), QDBusMessage::ErrorMessage);
    EXPECT_EQ(probe.level_, 3);
}

TEST(Messaging, PropertyChangesAreAnnounced)
{
    ProbeObject probe;
    SignalSink sink;
    ASSERT_TRUE(client().connect(Common::serviceName(), kPath,
                                 QStringLiteral("org.freedesktop.DBus.Properties"),
                                 QStringLiteral("PropertiesChanged"), &sink,
                                 SLOT(onPropertiesChanged(QString, QVariantMap, QStringList))));
    // Make sure the match rule is in place before anything is emitted.
    callAndWait(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
                                               QStringLiteral("/org/freedesktop/DBus"),
                                               QStringLiteral("org.freedesktop.DBus"),
                                               QStringLiteral("GetId")));

    probe.level_ = 7;
    probe.notifyPropertyChanged("level");
    // An unknown name sends nothing; the enum property goes out as its number.
    probe.notifyPropertyChanged("no_such_property");
    probe.notifyPropertyChanged(nullptr);
    probe.link_ = OstrTypes::LinkTypeMfi;
    probe.notifyPropertyChanged("link");

    ASSERT_TRUE(waitFor([&sink] { return sink.changes_.size() >= 2; }));
    QCoreApplication::processEvents(QEventLoop::AllEvents, 100);
    ASSERT_EQ(sink.changes_.size(), 2);
    EXPECT_EQ(sink.changes_[0].interface, QString::fromLatin1(kInterface));
    EXPECT_EQ(sink.changes_[0].changed, (QVariantMap{{QStringLiteral("level"), 7}}));
    EXPECT_TRUE(sink.changes_[0].invalidated.isEmpty());
    EXPECT_EQ(sink.changes_[1].changed, (QVariantMap{{QStringLiteral("link"), 2}}));

    client().disconnect(Common::serviceName(), kPath,
                        QStringLiteral("org.freedesktop.DBus.Properties"),
                        QStringLiteral("PropertiesChanged"), &sink,
                        SLOT(onPropertiesChanged(QString, QVariantMap, QStringList)));
}

TEST(Messaging, BusSendWorksFromAnyThread)
{
    SignalSink sink;
    ASSERT_TRUE(client().connect(QString(), QStringLiteral("/com/korvane/pinger"),
                                 QStringLiteral("com.korvane.pinger"), QStringLiteral("ping"),
                                 &sink, SLOT(onPing(QString))));
    callAndWait(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
                                               QStringLiteral("/org/freedesktop/DBus"),
                                               QStringLiteral("org.freedesktop.DBus"),
                                               QStringLiteral("GetId")));
    constexpr int kThreads = 4;
    constexpr int kPerThread = 25;
    std::atomic<int> sent{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &sent] {
            for (int i = 0; i < kPerThread; ++i) {
                QDBusMessage ping = QDBusMessage::createSignal(QStringLiteral("/com/korvane/pinger"),
                                                               QStringLiteral("com.korvane.pinger"),
                                                               QStringLiteral("ping"));
                ping << QStringLiteral("%1-%2").arg(t).arg(i);
                if (Bus::send(ping))
                    ++sent;
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    EXPECT_EQ(sent.load(), kThreads * kPerThread);
    EXPECT_TRUE(waitFor([&sink] { return sink.pings_.size() == kThreads * kPerThread; }))
        << sink.pings_.size();
}

TEST(Messaging, StartUpFailuresEndTheProcessWithOneMessage)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();

    // This test process holds com.korvane.usbdtest; a second claimant must not queue for it.
    ProbeResult taken = runProbe(QStringLiteral("session"), env);
    EXPECT_EQ(taken.exitCode, 1);
    EXPECT_EQ(taken.err,
              QStringLiteral("usbdtest: the name com.korvane.usbdtest is already owned on the session bus\n"));
    EXPECT_TRUE(taken.out.isEmpty());

    QProcessEnvironment noSession = env;
    noSession.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                     QStringLiteral("unix:path=/nonexistent/usbd-test-bus"));
    ProbeResult unreachable = runProbe(QStringLiteral("session"), noSession);
    EXPECT_EQ(unreachable.exitCode, 1);
    EXPECT_TRUE(unreachable.err.startsWith(QStringLiteral(
        "usbdtest: cannot connect to the session bus to register com.korvane.usbdtest: ")))
        << qPrintable(unreachable.err);
    EXPECT_EQ(unreachable.err.count(QLatin1Char('\n')), 1) << qPrintable(unreachable.err);

    QProcessEnvironment noSystem = env;
    noSystem.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"),
                    QStringLiteral("unix:path=/nonexistent/usbd-test-bus"));
    ProbeResult system = runProbe(QStringLiteral("system"), noSystem);
    EXPECT_EQ(system.exitCode, 1);
    EXPECT_TRUE(system.err.startsWith(QStringLiteral(
        "usbdtest: cannot connect to the system bus to register com.korvane.usbdtest: ")))
        << qPrintable(system.err);
}

} // namespace

int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    TestBus bus;
    if (!bus.start())
        return 1;
    testBus = &bus;
    // Both buses point at the private daemon so nothing here can reach the machine's own.
    qputenv("DBUS_SESSION_BUS_ADDRESS", QByteArray::fromStdString(bus.address()));
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", QByteArray::fromStdString(bus.address()));
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QString::fromLatin1(kAppName));
    Common::init(true, true);
    const int result = RUN_ALL_TESTS();
    QDBusConnection::disconnectFromBus(QStringLiteral("client"));
    return result;
}

#include "messaging_test.moc"
