#pragma once

#include <sys/types.h>
#include <unistd.h>

namespace dlm {

// Counts: whether `more` can join `held` within `bound`.
template <typename Count> constexpr bool fitsIn(Count held, Count more, Count bound)
{
    return held + more <= bound;
}

// How one cap is shared among the users of a root service: each user other than root holds at
// most its share, and all of them together leave a reserve of the total that only root may use,
// so no caller can lock out another or root. `Amount` is a count, or any type for which
// `fitsIn(held, more, bound)` says whether `more` can join `held` within `bound`.
template <typename Amount> struct UserShare {
    enum Verdict { Fits, UserShareReached, TotalReached };

    Amount total; // everyone's together, root included
    Amount perUser; // each user's other than root
    Amount others; // all users other than root together: the total less root's reserve
    Amount root; // root's own (the total, unless root must leave some to the others)

    // Whether `more` fits for a user (`isRoot` or not) who holds `mine`, while `all` is held in
    // total and `othersHeld` by the users other than root.
    template <typename Held, typename More>
    Verdict judge(bool isRoot, const Held &mine, const Held &othersHeld, const Held &all,
        const More &more) const
    {
        if (!isRoot && !fitsIn(mine, more, perUser))
            return UserShareReached;
        if (!fitsIn(all, more, total) || (!isRoot && !fitsIn(othersHeld, more, others)))
            return TotalReached;
        return isRoot && !fitsIn(mine, more, root) ? UserShareReached : Fits;
    }
};

// A cap of `total` with each user's `perUser` and root's `reserve` (root otherwise unbounded).
template <typename Count>
constexpr UserShare<Count> userShare(Count total, Count perUser, Count reserve)
{
    return { total, perUser, total - reserve, total };
}

// Root for a cap: uid 0 and the service's own uid.
inline bool isRootUid(uid_t uid)
{
    return uid == 0 || uid == geteuid();
}

} // namespace dlm
