// Stand-in for the device's application manager. It accepts every process unless APM_REFUSE_JOIN
// is set to a non-empty value other than "0". APM_TEST_CALLBACKS (comma-separated names among
// focus, lose_focus, destroy, resource, lose_resource) makes it call those callbacks once, in
// that order, from a thread of its own shortly after the join, as the real one would.
#include "apm.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {

bool joinRefused()
{
    const char *v = std::getenv("APM_REFUSE_JOIN");
    return v && *v && std::strcmp(v, "0") != 0;
}

void deliverTestCallbacks(APM_CTRL_HANDLER_t handler, std::string names)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    size_t start = 0;
    while (start <= names.size()) {
        size_t end = names.find(',', start);
        if (end == std::string::npos)
            end = names.size();
        const std::string name = names.substr(start, end - start);
        if (name == "focus" && handler.OnGetFocus)
            handler.OnGetFocus();
        else if (name == "lose_focus" && handler.OnLoseFocus)
            handler.OnLoseFocus();
        else if (name == "destroy" && handler.OnDestroy)
            handler.OnDestroy();
        else if (name == "resource" && handler.OnGetResource)
            handler.OnGetResource(APM_RESOURCE_NETWORK);
        else if (name == "lose_resource" && handler.OnLoseResource)
            handler.OnLoseResource(APM_RESOURCE_NETWORK);
        start = end + 1;
    }
}

} // namespace

extern "C" int APM_Join(APM_CTRL_HANDLER_t *handler)
{
    if (!handler || joinRefused())
        return -1;
    const char *names = std::getenv("APM_TEST_CALLBACKS");
    if (names && *names)
        std::thread(deliverTestCallbacks, *handler, std::string(names)).detach();
    return 0;
}
