#pragma once

#include <QEvent>
#include <QString>

// Requests from other threads, posted to the manager and carried out on its thread, judged by
// the uid of the caller that made them.

class DLMCreateDLEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = QEvent::Type(QEvent::User + 1);

    DLMCreateDLEvent(const QString &clientID, const QString &url, const QString &uniqueID,
                     const QString &name, uint callerUid = 0)
        : QEvent(EventType), clientID(clientID), url(url), uniqueID(uniqueID), name(name),
          callerUid(callerUid)
    {
    }
    ~DLMCreateDLEvent() override = default;

    QString clientID;
    QString url;
    QString uniqueID;
    QString name;
    uint callerUid;
};

class DLMActionDLEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = QEvent::Type(QEvent::User + 2);
    // Event action codes; note that 2 removes here, unlike DLBaseClient::downloadAction.
    enum Action { Pause = 0, Resume = 1, Remove = 2 };

    DLMActionDLEvent(const QString &uniqueID, int action, uint callerUid = 0)
        : QEvent(EventType), uniqueID(uniqueID), action(action), callerUid(callerUid)
    {
    }
    ~DLMActionDLEvent() override = default;

    QString uniqueID;
    int action;
    uint callerUid;
};
