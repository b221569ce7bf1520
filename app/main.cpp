#include "DLBinderClient.h"
#include "DLConsoleReaderClient.h"
#include "DlmLog.h"
#include "DownloadManager.h"
#include "apm.h"

#include <android/log.h>

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace dlm {

static int OnGetFocus()
{
    puts("[DOWNLOAD]OnGetFocus()");
    return 0;
}

static int OnLoseFocus()
{
    puts("[DOWNLOAD]OnLossFocus()");
    return 0;
}

static int OnDestroy()
{
    puts("[DOWNLOAD]OnDestroy()");
    return 0;
}

static int OnGetResource(APM_RESOURCE_e)
{
    puts("[DOWNLOAD]OnResourceAvailable()");
    return 0;
}

static int OnLoseResource(APM_RESOURCE_e)
{
    puts("[DOWNLOAD]OnResourceUnavailable()");
    return 0;
}

APM_CTRL_HANDLER_t appCtrlHandler
    = { OnGetFocus, OnLoseFocus, OnDestroy, OnGetResource, OnLoseResource, nullptr };

// DLM_LOG_LEVEL picks the lowest platform log priority shown: v, d, i (default), w, e, f, s.
static void applyLogLevel()
{
    const char *level = std::getenv("DLM_LOG_LEVEL");
    if (!level || !*level)
        return;
    int priority = ANDROID_LOG_INFO;
    switch (level[0]) {
    case 'v':
    case 'V':
        priority = ANDROID_LOG_VERBOSE;
        break;
    case 'd':
    case 'D':
        priority = ANDROID_LOG_DEBUG;
        break;
    case 'i':
    case 'I':
        priority = ANDROID_LOG_INFO;
        break;
    case 'w':
    case 'W':
        priority = ANDROID_LOG_WARN;
        break;
    case 'e':
    case 'E':
        priority = ANDROID_LOG_ERROR;
        break;
    case 'f':
    case 'F':
        priority = ANDROID_LOG_FATAL;
        break;
    case 's':
    case 'S':
        priority = ANDROID_LOG_SILENT;
        break;
    default:
        return;
    }
    __android_log_set_minimum_priority(priority);
}

// The console when DL_CONSOLE_READER_ENABLE is a non-zero integer, and the published IPC service.
static QList<FrontEnd *> buildFrontEnds(DownloadManager *manager)
{
    QList<FrontEnd *> frontEnds;
    bool numeric = false;
    const int consoleSwitch = qEnvironmentVariable("DL_CONSOLE_READER_ENABLE").toInt(&numeric, 10);
    if (numeric && consoleSwitch != 0)
        frontEnds.append(new DLConsoleReaderClient(manager));

    auto *service = new DLBinderClient(manager);
    // The manager's own reference; DLBinderClient::destroy() drops it.
    service->incStrong(service);
    if (service->init()) {
        frontEnds.append(service);
    } else {
        DLM_LOGE("Error: Unable to init Binder client");
        service->destroy();
    }
    return frontEnds;
}

} // namespace dlm

int main(int argc, char *argv[])
{
    // Lines on standard output must reach a pipe or a log collector as they are printed.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    dlm::installEscapingLogger();

    if (APM_Join(&dlm::appCtrlHandler) != 0) {
        puts("APM client test program aborted.");
        return -1;
    }
    puts("DOWNLOAD APM JOIN SUCCESS!!.");
    dlm::applyLogLevel();

    // Qt's own poll loop, not GLib's: GLib writes to its wake-up descriptor each time a socket is
    // watched or dropped, and a transfer held to a rate does both at every rest.
    qputenv("QT_NO_GLIB", "1");
    int status = 0;
    {
        QCoreApplication app(argc, argv);
        dlm::DownloadManager manager(dlm::buildFrontEnds);
        if (manager.startRefused()) {
            status = 1; // the manager logged which directory is taken
        } else {
            QTimer::singleShot(0, &manager, &dlm::DownloadManager::execute);
            app.exec();
        }
    }
    // IPC pool threads may still be answering late calls: end without running static
    // destructors that they could still reach.
    fflush(nullptr);
    _exit(status);
}
