#pragma once

#include <QString>

#include <memory>

class QSettings;

namespace dlm {

// The settings file. One that another user owns or that group or others may write (or whose
// directory is such) is not read: one ERROR line, and every value keeps its default. Every value
// read is logged.
class ServiceSettings {
public:
    explicit ServiceSettings(const QString &path);
    ~ServiceSettings();

    // DLM_SETTINGS, else "downloadmanager.ini" beside the executable.
    static QString defaultPath();

    QString text(const QString &key, const QString &defaultValue) const;
    // A non-negative whole number, else defaultValue.
    int count(const QString &key, int defaultValue) const;
    // A non-negative whole number of 64 bits (a byte count or rate), else defaultValue.
    qint64 amount(const QString &key, qint64 defaultValue) const;

private:
    std::unique_ptr<QSettings> settings; // null when not trusted
};

} // namespace dlm
