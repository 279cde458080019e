#pragma once

#include <QObject>
#include <QTimer>

// Polls the MFi link library every 500 ms for the iOS link state and signals every change.
class IOSConnStateWatcher : public QObject {
    Q_OBJECT
public:
    enum State {
        NotConnectedState = 0,
        MfiState = 1,
        WifiState = 2,
    };
    Q_ENUM(State)

    explicit IOSConnStateWatcher(QObject *parent);
    ~IOSConnStateWatcher() override;

signals:
    void stateChanged(IOSConnStateWatcher::State signal);

public slots:
    void onTimeout();
    void start();

private:
    QTimer timer_;
    int state_ = NotConnectedState;
};

Q_DECLARE_METATYPE(IOSConnStateWatcher::State)
