#include "WorkLedger.h"

#include <UserShare.h>

namespace android {

namespace {

struct Held {
    size_t bytes = 0;
    size_t calls = 0;
    bool fits(size_t more, WorkLedger::Bound bound) const
    {
        return calls == 0 || (calls < bound.calls && bytes + more <= bound.bytes);
    }
};

bool fitsIn(const Held &held, size_t more, WorkLedger::Bound bound)
{
    return held.fits(more, bound);
}

struct Books {
    std::mutex lock;
    std::condition_variable room;
    Held total, others; // everyone's, and that of the uids other than root
    std::map<uid_t, Held> perUid;
};

// Never destroyed: detached connection threads may still close their accounts during exit.
Books &books()
{
    static Books *const b = new Books;
    return *b;
}

} // namespace

class WorkLedger::Account {
public:
    uid_t uid = 0;
    bool root = false;
    bool closed = false;
    Held held;

    bool fits(size_t bytes) const
    {
        static constexpr dlm::UserShare<Bound> kShare { kTotal, kPerUid,
            { kTotal.bytes - kRootReserve.bytes, kTotal.calls - kRootReserve.calls }, kTotal };
        const Books &all = books();
        const auto user = all.perUid.find(uid);
        return held.fits(bytes, kPerConnection)
            && kShare.judge(root, user == all.perUid.end() ? Held {} : user->second, all.others,
                   all.total, bytes)
            == kShare.Fits;
    }
    // Adds (sign 1) or takes back (sign -1) one call of `bytes`.
    void count(size_t bytes, int sign)
    {
        Books &b = books();
        std::vector<Held *> all { &held, &b.total };
        if (!root) {
            all.push_back(&b.others);
            all.push_back(&b.perUid[uid]);
        }
        for (Held *h : all) {
            h->bytes = sign > 0 ? h->bytes + bytes : h->bytes - bytes;
            h->calls = sign > 0 ? h->calls + 1 : h->calls - 1;
        }
        if (!root && b.perUid[uid].calls == 0)
            b.perUid.erase(uid);
    }
};

std::shared_ptr<WorkLedger::Account> WorkLedger::open(uid_t peerUid)
{
    auto account = std::make_shared<Account>();
    account->uid = peerUid;
    account->root = dlm::isRootUid(peerUid);
    return account;
}

std::shared_ptr<void> WorkLedger::reserve(const std::shared_ptr<Account> &account, size_t bytes)
{
    std::unique_lock<std::mutex> lock(books().lock);
    books().room.wait(lock, [&] { return account->closed || account->fits(bytes); });
    if (account->closed)
        return nullptr;
    account->count(bytes, 1);
    struct Token {
        std::shared_ptr<Account> account;
        size_t bytes;
        ~Token()
        {
            std::lock_guard<std::mutex> guard(books().lock);
            account->count(bytes, -1);
            books().room.notify_all();
        }
    };
    return std::shared_ptr<Token>(new Token { account, bytes });
}

void WorkLedger::close(Account &account)
{
    std::lock_guard<std::mutex> lock(books().lock);
    account.closed = true;
    books().room.notify_all();
}

} // namespace android
