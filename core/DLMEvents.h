#pragma once

#include <QEvent>
#include <QString>

// Requests from other threads, posted to the manager and carried out on its thread.

class DLMCreateDLEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = QEvent::Type(QEvent::User + 1);

    DLMCreateDLEvent(const QString &clientID, const QString &url, const QString &uniqueID,
                     const QString &name)
        : QEvent(EventType), clientID(clientID), url(url), uniqueID(uniqueID), name(name)
    {
    }
    ~DLMCreateDLEvent() override = default;

    QString clientID;
    QString url;
    QString uniqueID;
    QString name;
};

class DLMActionDLEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = QEvent::Type(QEvent::User + 2);
    // Event action codes; note that 2 removes here, unlike DLBaseClient::downloadAction.
    enum Action { Pause = 0, Resume = 1, Remove = 2 };

    DLMActionDLEvent(const QString &uniqueID, int action)
        : QEvent(EventType), uniqueID(uniqueID), action(action)
    {
    }
    ~DLMActionDLEvent() override = default;

    QString uniqueID;
    int action;
};
