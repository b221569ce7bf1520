#include "ConnectionSlots.h"

#include <UserShare.h>

#include <android/log.h>

namespace android {

std::shared_ptr<ConnectionSlots> ConnectionSlots::create(
    size_t maxTotal, size_t maxPerUid, size_t rootReserve)
{
    return std::shared_ptr<ConnectionSlots>(new ConnectionSlots(maxTotal, maxPerUid, rootReserve));
}

ConnectionSlots::ConnectionSlots(size_t maxTotal, size_t maxPerUid, size_t rootReserve)
    : mMaxTotal(maxTotal), mMaxPerUid(maxPerUid), mRootReserve(rootReserve)
{
}

std::shared_ptr<void> ConnectionSlots::take(uid_t uid, pid_t pid)
{
    const bool root = dlm::isRootUid(uid);
    const auto share = dlm::userShare(mMaxTotal, mMaxPerUid, mRootReserve);
    auto verdict = share.Fits;
    {
        std::lock_guard<std::mutex> lock(mLock);
        size_t &mine = mPerUid[uid];
        verdict = share.judge(root, mine, mOthers, mTotal, size_t(1));
        if (verdict == share.Fits) {
            ++mTotal;
            mOthers += !root;
            ++mine;
            struct Slot {
                std::shared_ptr<ConnectionSlots> owner;
                uid_t uid;
                ~Slot() { owner->give(uid); }
            };
            return std::shared_ptr<Slot>(new Slot { shared_from_this(), uid });
        }
        if (mine == 0)
            mPerUid.erase(uid);
    }
    const bool processFull = verdict == share.TotalReached;
    __android_log_print(ANDROID_LOG_WARN, "binder",
        "refusing a connection from pid %d uid %u: %s limit of %zu connections reached", int(pid),
        unsigned(uid), processFull ? "the process's" : "its user's",
        !processFull ? mMaxPerUid
            : root   ? mMaxTotal
                     : mMaxTotal - mRootReserve);
    return nullptr;
}

void ConnectionSlots::give(uid_t uid)
{
    std::lock_guard<std::mutex> lock(mLock);
    --mTotal;
    mOthers -= !dlm::isRootUid(uid);
    if (--mPerUid[uid] == 0)
        mPerUid.erase(uid);
}

} // namespace android
