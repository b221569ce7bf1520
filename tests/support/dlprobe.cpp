// Test event client. Modes:
//   flood      register one callback object 1001 times, the service's own object, and 40 more
//              callback objects; print every update
//   reentrant  call getDownload from inside every callback, print what it returned
//   storm N    N rounds of list/status/space queries, print "ok" when all answered
//   record ID  the download's ten members in the database's column order, joined by '|'
// Updates print as "update ID STATE BYTES"; output is flushed line by line.
#include "IDLService.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

using namespace android;

namespace {

sp<IDLService> service;

struct Printer : public BnDLClient {
    explicit Printer(bool reentrant) : reentrant(reentrant) { }
    void onDownloadUpdate(IDownload d) override
    {
        printf("update %s %s %lld\n", d.uniqueID.c_str(), downloadStateName(d.state),
            (long long)d.amountDownloaded);
        IDownload again;
        if (reentrant)
            printf(
                "reentrant %s %d\n", d.uniqueID.c_str(), service->getDownload(d.uniqueID, &again));
    }
    const bool reentrant;
};

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    ProcessState::self()->startThreadPool();
    service = interface_cast<IDLService>(
        defaultServiceManager()->getService(String16("com.velta.DLService")));
    if (service == nullptr)
        return 2;
    struct Exit : IBinder::DeathRecipient { // a probe under runuser outlives the test's kill
        void binderDied(const wp<IBinder> &) override { _exit(0); }
    };
    static const sp<IBinder::DeathRecipient> onDeath = new Exit; // held weakly by the runtime
    IInterface::asBinder(service)->linkToDeath(onDeath);
    const std::string mode = argc > 1 ? argv[1] : "";
    IDownload d;
    if (mode == "record") {
        if (argc < 3 || service->getDownload(argv[2], &d) != 1)
            _exit(1);
        printf("%s|%s|%s|%s|%s|%d|%d|%lld|%lld|%lld\n", d.uniqueID.c_str(), d.clientID.c_str(),
            d.name.c_str(), d.contentURL.c_str(), d.filePath.c_str(), d.state, d.failureCode,
            (long long)d.totalSize, (long long)d.amountDownloaded, (long long)d.startTime);
        fflush(nullptr);
        _exit(0);
    }
    if ((mode == "resume" || mode == "remove") && argc > 2) { // unchecked, as no dlctl would
        mode == "resume" ? service->resumeDownload(argv[2]) : service->removeDownload(argv[2]);
        _exit(0);
    }
    if (mode == "storm") {
        for (int i = 0; i < atoi(argc > 2 ? argv[2] : "100"); ++i) {
            std::vector<IDownload *> list;
            if (service->getDownloadList("*", list) < 0)
                return 3;
            for (IDownload *r : list) {
                if (service->getDownload(r->uniqueID, &d) < 0)
                    return 3;
                delete r;
            }
            if (service->checkSpaceAvailability("storm", 1) < 0)
                return 3;
        }
        printf("ok\n");
        fflush(nullptr);
        _exit(0); // pool threads may still run: skip static destructors
    }
    sp<Printer> printer = new Printer(mode == "reentrant");
    service->addClient(printer);
    if (mode == "flood") {
        for (int i = 0; i < 1000; ++i)
            service->addClient(printer);
        service->addClient(interface_cast<IDLClient>(IInterface::asBinder(service)));
        for (int i = 0; i < 40; ++i)
            service->addClient(sp<IDLClient>(new Printer(false)));
    }
    printf("registered\n");
    for (;;)
        pause();
}
