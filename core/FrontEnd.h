#pragma once

namespace dlm {

class Download;

// What the manager asks of a front end (the console, the IPC service) without knowing which.
// The manager owns its front ends from addClient() on and ends them in quit().
class FrontEnd {
public:
    // Once, when the service starts serving.
    virtual void help() { }
    // Every change of a download, on the manager's thread, as it is made: what the front end
    // tells of it carries the values the download has now. The change may not be stored yet:
    // what the front end would send waits, in order, for reportsStored().
    virtual void updateDownloadEntry(Download *download) = 0;
    // Every change told so far is stored: what waits goes out now.
    virtual void reportsStored() { }
    // How quit() ends the front end; it is not used by the manager afterwards.
    virtual void destroy() = 0;

protected:
    ~FrontEnd() = default;
};

} // namespace dlm
