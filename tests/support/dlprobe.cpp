// Test event client. Modes:
//   flood      register one callback object 1001 times, the service's own object, and 40 more
//              callback objects; print every update
//   reentrant  call getDownload from inside every callback, print what it returned
//   storm N    N rounds of list/status/space queries, print "ok" when all answered
// Updates print as "update ID STATE BYTES"; output is flushed line by line.
#include "IDLService.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

using namespace android;

namespace {

sp<IDLService> service;

class Printer : public BnDLClient
{
public:
    explicit Printer(bool reentrant) : reentrant(reentrant) {}
    void onDownloadUpdate(IDownload d) override
    {
        printf("update %s %d %lld\n", d.uniqueID.c_str(), d.state, (long long)d.amountDownloaded);
        if (reentrant) {
            IDownload again;
            const int found = service->getDownload(d.uniqueID, &again);
            printf("reentrant %s %d\n", d.uniqueID.c_str(), found);
        }
    }

private:
    bool reentrant;
};

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    if (argc < 2)
        return 64;
    ProcessState::self()->startThreadPool();
    service = interface_cast<IDLService>(
        defaultServiceManager()->getService(String16("com.velta.DLService")));
    if (service == nullptr)
        return 2;
    const std::string mode = argv[1];
    if (mode == "storm") {
        const int rounds = argc > 2 ? atoi(argv[2]) : 100;
        for (int i = 0; i < rounds; ++i) {
            std::vector<IDownload *> list;
            if (service->getDownloadList("*", list) < 0)
                return 3;
            for (IDownload *d : list) {
                IDownload one;
                if (service->getDownload(d->uniqueID, &one) < 0)
                    return 3;
                delete d;
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
