#include "ServiceSettings.h"

#include "DlmLog.h"
#include "FileTrust.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>

namespace dlm {

ServiceSettings::ServiceSettings(const QString &path)
{
    DLM_LOGI("settings file : %s", qUtf8Printable(path));
    for (const QString &part : { QFileInfo(path).absolutePath(), path }) {
        const QString why = filetrust::distrust(part);
        if (!why.isEmpty()) {
            DLM_LOGE("Settings file %s not used, defaults apply: %s is %s", qUtf8Printable(path),
                qUtf8Printable(part), qUtf8Printable(why));
            return;
        }
    }
    settings = std::make_unique<QSettings>(path, QSettings::NativeFormat);
}

ServiceSettings::~ServiceSettings() = default;

// An installed service is told where its settings are (the unit names the file under /etc);
// a service run from its build tree reads the file beside the executable.
QString ServiceSettings::defaultPath()
{
    const QString named = qEnvironmentVariable("DLM_SETTINGS");
    if (!named.isEmpty())
        return named;
    return QCoreApplication::applicationDirPath() + QStringLiteral("/downloadmanager.ini");
}

QString ServiceSettings::text(const QString &key, const QString &defaultValue) const
{
    const QString value = settings ? settings->value(key, defaultValue).toString() : defaultValue;
    DLM_LOGI("entry %s value %s ", qUtf8Printable(key), qUtf8Printable(value));
    return value;
}

int ServiceSettings::count(const QString &key, int defaultValue) const
{
    bool numeric = false;
    const int value = text(key, QString::number(defaultValue)).toInt(&numeric, 10);
    return (numeric && value >= 0) ? value : defaultValue;
}

qint64 ServiceSettings::amount(const QString &key, qint64 defaultValue) const
{
    bool numeric = false;
    const qint64 value = text(key, QString::number(defaultValue)).toLongLong(&numeric, 10);
    return (numeric && value >= 0) ? value : defaultValue;
}

} // namespace dlm
