#include "ffs.h"

#include "log.h"

#include <arvo_hal.h>
#include <arvo_hal_sim.h>
#include <usbd/protocol.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace usbdemu {

namespace {

constexpr fuse_ino_t kRootIno = 1;
constexpr fuse_ino_t kEp0Ino = 2;
constexpr fuse_ino_t kFirstEpIno = 3; // ep1; epN is kEp0Ino + N

// FUSE open reply flags. Stream mode has no field in this libfuse, so the open reply is built
// by hand. Without it a write on ep0 waits for another thread's pending read on the same file,
// and every system call's first chunk would not be recognisable by its offset 0.
constexpr uint32_t kFopenDirectIo = 1;
constexpr uint32_t kFopenNonseekable = 4;
constexpr uint32_t kFopenStream = 16;
struct OpenReply {
    uint64_t fh;
    uint32_t openFlags;
    uint32_t padding;
};

// The platform driver's endpoint request that hands it a physical address to send from
// (_IO('g', 6)); the argument points to {u32 address, u32 length}, little-endian.
constexpr unsigned kPhysTransferIoctl = usbd::kPhysTransferIoctl;

// What the kernel answers for a file without its own poll.
constexpr unsigned kDefaultPollMask = POLLIN | POLLOUT | POLLRDNORM | POLLWRNORM;

constexpr size_t kMaxRequestBytes = 1u << 20;

#ifndef PIDFD_THREAD
#define PIDFD_THREAD O_EXCL
#endif

FunctionFs *self(fuse_req_t req)
{
    return static_cast<FunctionFs *>(fuse_req_userdata(req));
}

void interruptTrampoline(fuse_req_t req, void *data)
{
    static_cast<FunctionFs *>(data)->onInterrupt(req);
}

const fuse_lowlevel_ops kOps = [] {
    fuse_lowlevel_ops ops{};
    ops.init = [](void *data, fuse_conn_info *conn) {
        static_cast<FunctionFs *>(data)->opInit(conn);
    };
    ops.lookup = [](fuse_req_t req, fuse_ino_t parent, const char *name) {
        self(req)->opLookup(req, parent, name);
    };
    ops.getattr = [](fuse_req_t req, fuse_ino_t ino, fuse_file_info *) {
        self(req)->opGetattr(req, ino);
    };
    ops.setattr = [](fuse_req_t req, fuse_ino_t ino, struct stat *, int, fuse_file_info *) {
        // Endpoint files have no size to change; answer as if the change were done so that an
        // O_TRUNC open (a shell redirection) still works.
        self(req)->opGetattr(req, ino);
    };
    ops.readdir = [](fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *) {
        self(req)->opReaddir(req, ino, size, off);
    };
    ops.open = [](fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
        self(req)->opOpen(req, ino, fi);
    };
    ops.release = [](fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi) {
        self(req)->opRelease(req, ino, fi);
    };
    ops.read = [](fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *fi) {
        self(req)->opRead(req, ino, size, off, fi);
    };
    ops.write = [](fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t off,
                   fuse_file_info *fi) { self(req)->opWrite(req, ino, buf, size, off, fi); };
    ops.poll = [](fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi, fuse_pollhandle *ph) {
        self(req)->opPoll(req, ino, fi, ph);
    };
    ops.ioctl = [](fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *arg, fuse_file_info *fi,
                   unsigned, const void *, size_t,
                   size_t) { self(req)->opIoctl(req, ino, cmd, arg, fi); };
    return ops;
}();

std::string hexAddress(uint8_t address)
{
    char text[8];
    snprintf(text, sizeof text, "0x%02x", address);
    return text;
}

std::string describeLayout(const FunctionLayout &layout)
{
    std::string text = std::to_string(layout.interfaces.size())
                       + (layout.interfaces.size() == 1 ? " interface (" : " interfaces (");
    size_t firstEp = 0;
    for (size_t i = 0; i < layout.interfaces.size(); ++i) {
        const Interface &itf = layout.interfaces[i];
        char head[64];
        snprintf(head, sizeof head, "%sclass 0x%02x, %u endpoint%s", i ? "; " : "", itf.cls,
                 itf.endpointCount, itf.endpointCount == 1 ? "" : "s");
        text += head;
        const size_t end = std::min(layout.endpoints.size(), firstEp + itf.endpointCount);
        bool sameType = true;
        for (size_t e = firstEp; e < end; ++e)
            sameType =
                sameType
                && layout.endpoints[e].attributes % 4 == layout.endpoints[firstEp].attributes % 4;
        for (size_t e = firstEp; e < end; ++e) {
            text += (e == firstEp ? ": " : " ") + hexAddress(layout.endpoints[e].address);
            if (!sameType)
                text += std::string("/") + layout.endpoints[e].typeName();
        }
        if (sameType && end > firstEp)
            text += std::string(" ") + layout.endpoints[firstEp].typeName();
        firstEp = end;
    }
    text += ")";
    if (!layout.languages.empty()) {
        const auto &strings = layout.languages.front().strings;
        for (size_t s = 0; s < strings.size(); ++s)
            text += ", string " + std::to_string(s + 1) + " \"" + strings[s] + "\"";
    }
    return text;
}

} // namespace

const char *eventName(uint8_t type)
{
    static const char *const kNames[] = {"bind",  "unbind",  "enable", "disable",
                                         "setup", "suspend", "resume"};
    return type < 7 ? kNames[type] : nullptr;
}

bool parseEventType(const std::string &text, uint8_t &type)
{
    for (uint8_t t = 0; t < 7; ++t)
        if (text == eventName(t)) {
            type = t;
            return true;
        }
    if (text.empty() || text.size() > 3
        || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const int value = std::stoi(text);
    if (value > 255)
        return false;
    type = uint8_t(value);
    return true;
}

FunctionFs::FunctionFs() = default;

FunctionFs::~FunctionFs()
{
    stop();
    if (session_)
        fuse_session_destroy(session_);
}

bool FunctionFs::mount(const std::string &mountPoint)
{
    // allow_other: the daemon under test may drop privileges or run as another user.
    const char *argv[] = {"usbd-emu", "-o", "allow_other,fsname=bulk,subtype=functionfs"};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char **>(argv));
    session_ = fuse_session_new(&args, &kOps, sizeof kOps, this);
    if (!session_) {
        logLine("cannot create the FUSE session");
        return false;
    }
    if (fuse_session_mount(session_, mountPoint.c_str()) != 0) {
        logLine("cannot mount FunctionFS at %s", mountPoint.c_str());
        fuse_session_destroy(session_);
        session_ = nullptr;
        return false;
    }
    mountPoint_ = mountPoint;
    mountTime_ = time(nullptr);
    return true;
}

int FunctionFs::sessionFd() const
{
    return session_ ? fuse_session_fd(session_) : -1;
}

void FunctionFs::start()
{
    // One thread serves every request: handlers never block (waiting requests are answered
    // later from the thread that changes their state), so one is enough and ordering is simple.
    thread_ = std::thread([this] { fuse_session_loop(session_); });
}

void FunctionFs::stop()
{
    if (!session_ || !thread_.joinable())
        return;
    fuse_session_exit(session_);
    // Unmounting ends the session thread's blocking read of the FUSE device.
    fuse_session_unmount(session_);
    thread_.join();
}

void FunctionFs::setCapture(usbd::UniqueFd fd)
{
    Lock lock(mutex_);
    capture_ = std::move(fd);
    captureFailed_ = false;
}

void FunctionFs::opInit(fuse_conn_info *conn)
{
    conn->max_write = kMaxRequestBytes;
    // Chunks of one system call must arrive one after another: the offset of a chunk is how a
    // new call is told from a continuation, and the capture relies on the order.
    conn->want &= ~FUSE_CAP_ASYNC_DIO;
}

// ---- directory -------------------------------------------------------------------------------

bool FunctionFs::epExistsLocked(fuse_ino_t ino) const
{
    return ino == kRootIno || ino == kEp0Ino
           || (state_ == State::Ready && ino >= kFirstEpIno && ino - kFirstEpIno < eps_.size());
}

void FunctionFs::fillAttr(fuse_ino_t ino, struct stat &st) const
{
    st = {};
    st.st_ino = ino;
    if (ino == kRootIno) {
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
    } else {
        // The kernel's FunctionFS files are 0600 owned by the mounter.
        st.st_mode = S_IFREG | 0600;
        st.st_nlink = 1;
    }
    st.st_atime = st.st_mtime = st.st_ctime = mountTime_;
}

void FunctionFs::opLookup(fuse_req_t req, fuse_ino_t parent, const char *name)
{
    fuse_ino_t ino = 0;
    if (parent == kRootIno && strncmp(name, "ep", 2) == 0 && name[2] >= '0' && name[2] <= '9'
        && strlen(name) <= 4 && strspn(name + 2, "0123456789") == strlen(name + 2)
        && (name[2] != '0' || name[3] == '\0'))
        ino = kEp0Ino + fuse_ino_t(atoi(name + 2));
    fuse_entry_param entry{};
    {
        Lock lock(mutex_);
        if (!ino || !epExistsLocked(ino)) {
            lock.unlock();
            fuse_reply_err(req, ENOENT);
            return;
        }
        fillAttr(ino, entry.attr);
    }
    // No caching: the endpoint files come and go with the function.
    entry.ino = ino;
    entry.generation = 1;
    fuse_reply_entry(req, &entry);
}

void FunctionFs::opGetattr(fuse_req_t req, fuse_ino_t ino)
{
    struct stat st;
    {
        Lock lock(mutex_);
        if (!epExistsLocked(ino)) {
            lock.unlock();
            fuse_reply_err(req, ENOENT);
            return;
        }
        fillAttr(ino, st);
    }
    fuse_reply_attr(req, &st, 0);
}

void FunctionFs::opReaddir(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off)
{
    if (ino != kRootIno) {
        fuse_reply_err(req, ENOTDIR);
        return;
    }
    std::vector<std::pair<std::string, fuse_ino_t>> names = {
        {".", kRootIno}, {"..", kRootIno}, {"ep0", kEp0Ino}};
    {
        Lock lock(mutex_);
        if (state_ == State::Ready)
            for (size_t i = 0; i < eps_.size(); ++i)
                names.emplace_back("ep" + std::to_string(i + 1), kFirstEpIno + i);
    }
    std::vector<char> buf(std::min<size_t>(size, 64 * 1024));
    size_t used = 0;
    for (size_t i = size_t(std::max<off_t>(off, 0)); i < names.size(); ++i) {
        struct stat st;
        fillAttr(names[i].second, st);
        const size_t need = fuse_add_direntry(req, buf.data() + used, buf.size() - used,
                                              names[i].first.c_str(), &st, off_t(i + 1));
        if (need > buf.size() - used)
            break;
        used += need;
    }
    fuse_reply_buf(req, buf.data(), used);
}

void FunctionFs::opOpen(fuse_req_t req, fuse_ino_t ino, fuse_file_info *)
{
    OpenReply reply{};
    {
        Lock lock(mutex_);
        if (ino == kRootIno || !epExistsLocked(ino)) {
            lock.unlock();
            fuse_reply_err(req, ino == kRootIno ? EISDIR : ENOENT);
            return;
        }
        reply.fh = nextFh_++;
        ++opens_;
    }
    reply.openFlags = kFopenDirectIo | kFopenNonseekable | kFopenStream;
    iovec iov{&reply, sizeof reply};
    if (fuse_reply_iov(req, &iov, 1) != 0) {
        // The opener is gone (interrupted); no release will come for this handle.
        Lock lock(mutex_);
        if (--opens_ == 0 && state_ != State::WaitDescriptors)
            resetLocked();
    }
}

void FunctionFs::opRelease(fuse_req_t req, fuse_ino_t, fuse_file_info *fi)
{
    {
        Lock lock(mutex_);
        auto it = pollHandles_.find(fi->fh);
        if (it != pollHandles_.end()) {
            fuse_pollhandle_destroy(it->second);
            pollHandles_.erase(it);
        }
        // As in the kernel, the function lives as long as one of its files is open; when the
        // last one closes, the instance goes back to waiting for descriptors.
        if (opens_ > 0 && --opens_ == 0 && state_ != State::WaitDescriptors)
            resetLocked();
    }
    fuse_reply_err(req, 0);
}

void FunctionFs::resetLocked()
{
    logLine("function closed (every file released): waiting for descriptors again");
    state_ = State::WaitDescriptors;
    layout_ = FunctionLayout();
    eps_.clear();
    events_.clear();
    setup_ = Setup::None;
    eventFd_.reset();
    enabled_ = false;
    notifyPollLocked();
    readyChanged_.notify_all();
}

// ---- holding and interrupts ----------------------------------------------------------------

void FunctionFs::hold(Lock &, std::deque<Held> &queue, Held held)
{
    // The interrupt callback was registered before the lock was taken; if the interrupt came
    // in between, the callback found nothing to answer, so answer it here.
    if (fuse_req_interrupted(held.req)) {
        fuse_reply_err(held.req, EINTR);
        return;
    }
    queue.push_back(std::move(held));
}

void FunctionFs::onInterrupt(fuse_req_t req)
{
    Lock lock(mutex_);
    auto take = [&](std::deque<Held> &queue) {
        for (auto it = queue.begin(); it != queue.end(); ++it)
            if (it->req == req) {
                queue.erase(it);
                fuse_reply_err(req, EINTR);
                return true;
            }
        return false;
    };
    if (take(eventReaders_))
        return;
    for (Ep &ep : eps_)
        if (take(ep.held))
            return;
}

// ---- ep0 -------------------------------------------------------------------------------------

void FunctionFs::notifyPollLocked()
{
    for (auto &entry : pollHandles_) {
        fuse_lowlevel_notify_poll(entry.second);
        fuse_pollhandle_destroy(entry.second);
    }
    pollHandles_.clear();
}

void FunctionFs::opPoll(fuse_req_t req, fuse_ino_t ino, fuse_file_info *fi, fuse_pollhandle *ph)
{
    if (ino != kEp0Ino) {
        // Endpoint files have no poll of their own. Answering ENOSYS would switch poll off for
        // the whole mount, ep0 included.
        if (ph)
            fuse_pollhandle_destroy(ph);
        fuse_reply_poll(req, kDefaultPollMask);
        return;
    }
    unsigned mask = POLLWRNORM;
    {
        Lock lock(mutex_);
        if (state_ != State::Ready)
            mask |= POLLOUT;
        else if (setup_ != Setup::None)
            mask |= POLLIN | POLLOUT;
        else if (!events_.empty())
            mask |= POLLIN;
        if (ph) {
            auto &slot = pollHandles_[fi->fh];
            if (slot)
                fuse_pollhandle_destroy(slot);
            slot = ph;
        }
    }
    fuse_reply_poll(req, mask);
}

bool FunctionFs::attachEventFdLocked(fuse_req_t req, std::string &why)
{
    // The eventfd number is the writer's own descriptor; fetch it from the writing thread.
    const pid_t tid = fuse_req_ctx(req)->pid;
    usbd::UniqueFd pidfd(int(syscall(SYS_pidfd_open, tid, PIDFD_THREAD)));
    if (!pidfd)
        pidfd.reset(int(syscall(SYS_pidfd_open, tid, 0)));
    if (!pidfd) {
        why = "cannot reach the writer to fetch its eventfd: " + std::string(strerror(errno));
        return false;
    }
    usbd::UniqueFd fd(int(syscall(SYS_pidfd_getfd, pidfd.get(), layout_.eventFd, 0)));
    if (!fd) {
        why = "eventfd " + std::to_string(layout_.eventFd) + " is not an open descriptor";
        return false;
    }
    char target[64] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd.get());
    if (readlink(link.c_str(), target, sizeof target - 1) < 0
        || strcmp(target, "anon_inode:[eventfd]") != 0) {
        why = "descriptor " + std::to_string(layout_.eventFd) + " is not an eventfd";
        return false;
    }
    eventFd_ = std::move(fd);
    return true;
}

void FunctionFs::ep0Write(fuse_req_t req, const uint8_t *data, size_t size, off_t off)
{
    Lock lock(mutex_);
    if (state_ == State::WaitDescriptors || state_ == State::WaitStrings) {
        const bool descriptors = state_ == State::WaitDescriptors;
        const char *what = descriptors ? "descriptors" : "strings";
        std::string why;
        int result = 0;
        if (off > 0) {
            // Only the first chunk of a write larger than one request gets here; the kernel
            // takes a blob in one piece, so a blob this large is refused by its first chunk.
            result = -EINVAL;
            why = "blob larger than one request";
        } else if (descriptors) {
            FunctionLayout layout;
            result = parseDescriptors(data, size, layout, why);
            if (result == 0) {
                layout_ = std::move(layout);
                if (layout_.hasEventFd && !attachEventFdLocked(req, why)) {
                    result = why.find("not an eventfd") != std::string::npos ? -EINVAL : -EBADF;
                    layout_ = FunctionLayout();
                }
            }
        } else {
            result = parseStrings(data, size, layout_, why);
        }
        if (result < 0) {
            logLine("%s refused (%s): %s", what, strerror(-result), why.c_str());
            lock.unlock();
            fuse_reply_err(req, -result);
            return;
        }
        if (descriptors) {
            logLine("descriptors accepted: %zu bytes, %s%s%s%s, %zu endpoints", size,
                    data[0] == kDescriptorsMagicV2 ? "v2 layout" : "legacy layout",
                    (layout_.flags & kHasFsDesc) ? " full-speed" : "",
                    (layout_.flags & kHasHsDesc) ? " high-speed" : "",
                    (layout_.flags & kHasSsDesc) ? " super-speed" : "", layout_.endpoints.size());
            state_ = State::WaitStrings;
        } else {
            eps_ = std::vector<Ep>(layout_.endpoints.size());
            for (size_t i = 0; i < eps_.size(); ++i)
                eps_[i].desc = layout_.endpoints[i];
            state_ = State::Ready;
            logLine("strings accepted: %zu bytes", size);
            logLine("function ready: %s", describeLayout(layout_).c_str());
            readyChanged_.notify_all();
        }
        notifyPollLocked();
        lock.unlock();
        fuse_reply_write(req, size);
        return;
    }

    // A ready function takes writes only as the data stage of a SETUP the host sent.
    int error = 0;
    size_t accepted = 0;
    switch (setup_) {
    case Setup::None:
        error = ESRCH;
        break;
    case Setup::Cancelled:
        setup_ = Setup::None;
        error = EIDRM;
        break;
    case Setup::Pending:
        setup_ = Setup::None;
        if (!(pendingSetup_[0] & 0x80)) {
            logLine("ep0: data written for a host-to-device SETUP: stalled");
            error = EL2HLT;
        } else {
            accepted = std::min<size_t>(size, size_t(pendingSetup_[6] | pendingSetup_[7] << 8));
            logLine("ep0: SETUP answered with %zu bytes", accepted);
        }
        break;
    }
    lock.unlock();
    if (error)
        fuse_reply_err(req, error);
    else
        fuse_reply_write(req, accepted);
}

void FunctionFs::replyEvents(fuse_req_t req, size_t count)
{
    std::vector<uint8_t> out(count * kEventRecordSize, 0);
    for (size_t i = 0; i < count; ++i) {
        const Event &event = events_.front();
        memcpy(out.data() + i * kEventRecordSize, event.setup, 8);
        out[i * kEventRecordSize + 8] = event.type;
        if (event.type == kEventSetup) {
            memcpy(pendingSetup_, event.setup, 8);
            setup_ = Setup::Pending;
        }
        events_.pop_front();
    }
    fuse_reply_buf(req, reinterpret_cast<const char *>(out.data()), out.size());
}

void FunctionFs::serveEventReadersLocked()
{
    while (!eventReaders_.empty() && !events_.empty()) {
        Held reader = std::move(eventReaders_.front());
        eventReaders_.pop_front();
        replyEvents(reader.req, std::min(reader.size / kEventRecordSize, events_.size()));
    }
}

void FunctionFs::ep0Read(fuse_req_t req, size_t size, fuse_file_info *fi)
{
    fuse_req_interrupt_func(req, interruptTrampoline, this);
    Lock lock(mutex_);
    int error = 0;
    if (state_ != State::Ready) {
        error = EBADFD;
    } else if (setup_ == Setup::Cancelled) {
        setup_ = Setup::None;
        error = EIDRM;
    } else if (setup_ == Setup::Pending) {
        setup_ = Setup::None;
        if (pendingSetup_[0] & 0x80) {
            // Reading the data stage of a device-to-host request stalls it.
            error = EL2HLT;
        } else {
            // The host's data stage; this host sends zeros.
            const size_t n =
                std::min<size_t>(size, size_t(pendingSetup_[6] | pendingSetup_[7] << 8));
            std::vector<char> zeros(n, 0);
            lock.unlock();
            fuse_reply_buf(req, zeros.data(), n);
            return;
        }
    } else if (size < kEventRecordSize) {
        error = EINVAL;
    } else if (!events_.empty() && eventReaders_.empty()) {
        replyEvents(req, std::min(size / kEventRecordSize, events_.size()));
        return;
    } else if (fi->flags & O_NONBLOCK) {
        error = EAGAIN;
    } else {
        hold(lock, eventReaders_, Held{req, false, size, 0, false, {}, {}, 0});
        return;
    }
    lock.unlock();
    fuse_reply_err(req, error);
}

void FunctionFs::queueEventLocked(uint8_t type, const uint8_t setup[8])
{
    // A new event ends a SETUP the device has not answered yet, as a new request from the host
    // would.
    if (setup_ == Setup::Pending)
        setup_ = Setup::Cancelled;
    Event event{};
    if (setup)
        memcpy(event.setup, setup, 8);
    event.type = type;
    events_.push_back(event);
    if (eventFd_) {
        const uint64_t one = 1;
        (void)!write(eventFd_.get(), &one, sizeof one);
    }
    const char *name = eventName(type);
    logLine("event queued: %s%s", name ? name : std::to_string(type).c_str(),
            events_.size() > 1 ? (" (" + std::to_string(events_.size()) + " waiting)").c_str()
                               : "");
    serveEventReadersLocked();
    notifyPollLocked();
}

// ---- endpoints -------------------------------------------------------------------------------

FunctionFs::Ep *FunctionFs::epForInodeLocked(fuse_ino_t ino)
{
    if (state_ != State::Ready || ino < kFirstEpIno || ino - kFirstEpIno >= eps_.size())
        return nullptr;
    return &eps_[ino - kFirstEpIno];
}

FunctionFs::Ep *FunctionFs::epForFileLocked(const std::string &file, std::string &why)
{
    if (state_ != State::Ready) {
        why = "the function is not ready (descriptors and strings not written)";
        return nullptr;
    }
    if (file.empty()) {
        for (Ep &ep : eps_)
            if (ep.desc.isIn())
                return &ep;
        why = "the function has no IN endpoint";
        return nullptr;
    }
    for (size_t i = 0; i < eps_.size(); ++i)
        if (file == "ep" + std::to_string(i + 1))
            return &eps_[i];
    why = "no endpoint file " + file;
    return nullptr;
}

std::string FunctionFs::fileOfLocked(const Ep &ep) const
{
    return "ep" + std::to_string(size_t(&ep - eps_.data()) + 1);
}

bool FunctionFs::isCaptureEpLocked(const Ep &ep) const
{
    for (const Ep &e : eps_)
        if (e.desc.isIn())
            return &e == &ep;
    return false;
}

void FunctionFs::beginCallLocked(Ep &ep)
{
    ep.syscallGeneration = enableGeneration_;
    ep.budget = ep.shortNext;
    ep.shortNext = -1;
}

size_t FunctionFs::budgetLocked(Ep &ep, size_t size)
{
    if (ep.budget < 0)
        return size;
    const size_t n = std::min(size, size_t(ep.budget));
    ep.budget -= long(n);
    return n;
}

void FunctionFs::captureLocked(const uint8_t *data, size_t size)
{
    size_t done = 0;
    while (capture_ && done < size) {
        const ssize_t w = write(capture_.get(), data + done, size - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            if (!captureFailed_)
                logLine("capture write failed: %s; later bytes are only counted", strerror(errno));
            captureFailed_ = true;
            capture_.reset();
            break;
        }
        done += size_t(w);
    }
}

bool FunctionFs::acceptWriteLocked(Ep &ep, fuse_req_t req, const uint8_t *data, size_t size,
                                   off_t off)
{
    const std::string file = fileOfLocked(ep);
    if (off == 0) {
        beginCallLocked(ep);
        ++ep.writes;
        ++totals_[file].writes;
    } else if (ep.syscallGeneration != enableGeneration_) {
        // The host went away between two chunks of one system call.
        fuse_reply_err(req, ESHUTDOWN);
        return false;
    }
    const size_t n = budgetLocked(ep, size);
    if (isCaptureEpLocked(ep))
        captureLocked(data, n);
    ep.bytes += n;
    totals_[file].bytes += n;
    if (n != size)
        logLine("%s: short write, %zu of %zu bytes accepted", file.c_str(), n, size);
    else
        logVerbose("%s: %zu bytes at offset %lld", file.c_str(), n, static_cast<long long>(off));
    fuse_reply_write(req, n);
    return true;
}

void FunctionFs::acceptPhysLocked(Ep &ep, Held &held)
{
    const std::string file = fileOfLocked(ep);
    beginCallLocked(ep);
    // ioctl() reports the count as an int.
    const size_t n = std::min<size_t>(budgetLocked(ep, held.size), INT_MAX);
    if (isCaptureEpLocked(ep) && capture_) {
        std::vector<uint8_t> chunk(std::min(n, kMaxRequestBytes));
        for (size_t done = 0; done < n;) {
            const size_t part = std::min(chunk.size(), n - done);
            const ssize_t got =
                pread(held.memory.get(), chunk.data(), part, off_t(held.memoryOffset + done));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0) {
                // The memory shrank under the transfer; nothing the driver could have read.
                logLine("%s: physical-address transfer: memory unreadable at byte %zu",
                        file.c_str(), done);
                fuse_reply_err(held.req, EFAULT);
                return;
            }
            captureLocked(chunk.data(), size_t(got));
            done += size_t(got);
        }
    }
    ++ep.ioctls;
    ep.ioctlBytes += n;
    ep.bytes += n;
    ++totals_[file].ioctls;
    totals_[file].bytes += n;
    if (n != held.size)
        logLine("%s: short physical-address transfer, %zu of %zu bytes accepted", file.c_str(), n,
                held.size);
    else
        logVerbose("%s: %zu bytes by physical address", file.c_str(), n);
    fuse_reply_ioctl(held.req, int(n), nullptr, 0);
}

bool FunctionFs::outReadyLocked(const Ep &ep) const
{
    return !ep.outQueue.empty();
}

size_t FunctionFs::takeOutLocked(Ep &ep, uint8_t *out, size_t size)
{
    size_t n = 0;
    while (n < size && !ep.outQueue.empty() && !ep.outQueue.front().empty()) {
        std::vector<uint8_t> &chunk = ep.outQueue.front();
        const size_t part = std::min(size - n, chunk.size() - ep.outFront);
        memcpy(out + n, chunk.data() + ep.outFront, part);
        n += part;
        ep.outFront += part;
        if (ep.outFront == chunk.size()) {
            ep.outQueue.pop_front();
            ep.outFront = 0;
        }
    }
    ep.outBytes -= n;
    return n;
}

void FunctionFs::serviceEpLocked(Ep &ep)
{
    while (!ep.held.empty() && enabled_) {
        Held &h = ep.held.front();
        h.inFlight = true;
        if (h.write != ep.desc.isIn()) {
            // The kernel halts an endpoint used against its direction.
            fuse_reply_err(h.req, EBADMSG);
        } else if (h.write) {
            if (ep.stalled)
                return;
            if (h.memory)
                acceptPhysLocked(ep, h);
            else
                acceptWriteLocked(ep, h.req, h.data.data(), h.data.size(), h.off);
        } else {
            if (!outReadyLocked(ep))
                return;
            std::vector<uint8_t> buf(std::min(h.size, std::max<size_t>(ep.outBytes, 1)));
            const size_t n = takeOutLocked(ep, buf.data(), buf.size());
            if (n == 0 && !ep.outQueue.empty() && ep.outQueue.front().empty())
                ep.outQueue.pop_front(); // the end-of-data mark: this read returns 0
            ep.bytes += n;
            ++ep.reads;
            fuse_reply_buf(h.req, reinterpret_cast<const char *>(buf.data()), n);
        }
        ep.held.pop_front();
    }
}

void FunctionFs::setEnabledLocked(bool enabled)
{
    if (enabled) {
        // A repeated ENABLE leaves transfers in progress alone.
        if (!enabled_)
            ++enableGeneration_;
        enabled_ = true;
        for (Ep &ep : eps_)
            serviceEpLocked(ep);
        return;
    }
    enabled_ = false;
    ++enableGeneration_;
    for (Ep &ep : eps_) {
        for (auto it = ep.held.begin(); it != ep.held.end();) {
            if (it->inFlight) {
                fuse_reply_err(it->req, ESHUTDOWN);
                it = ep.held.erase(it);
            } else {
                ++it;
            }
        }
        ep.budget = -1;
    }
}

void FunctionFs::opWrite(fuse_req_t req, fuse_ino_t ino, const char *buf, size_t size, off_t off,
                         fuse_file_info *)
{
    const uint8_t *data = reinterpret_cast<const uint8_t *>(buf);
    if (ino == kEp0Ino) {
        ep0Write(req, data, size, off);
        return;
    }
    fuse_req_interrupt_func(req, interruptTrampoline, this);
    Lock lock(mutex_);
    Ep *ep = epForInodeLocked(ino);
    if (!ep) {
        lock.unlock();
        fuse_reply_err(req, ENODEV);
        return;
    }
    if (enabled_ && !ep->desc.isIn()) {
        lock.unlock();
        fuse_reply_err(req, EBADMSG);
        return;
    }
    if (off > 0 && !enabled_ && ep->syscallGeneration != enableGeneration_) {
        lock.unlock();
        fuse_reply_err(req, ESHUTDOWN);
        return;
    }
    // FUSE hands one system call over in chunks; f_fs takes a write as one request, which a
    // signal either ends before anything went out (EINTR) or not at all. So a stall holds only
    // a call's first chunk: once that was taken, the rest of the call is taken too, and a
    // signal can never leave a partial count behind.
    const bool continuation = off > 0 && enabled_ && ep->syscallGeneration == enableGeneration_;
    if (continuation || (enabled_ && !ep->stalled && ep->held.empty())) {
        acceptWriteLocked(*ep, req, data, size, off);
        return;
    }
    logVerbose("ep%zu: write of %zu bytes held (%s)", size_t(ino - kEp0Ino), size,
               enabled_ ? "stalled" : "function not enabled");
    hold(lock, ep->held,
         Held{req, true, size, off, enabled_, std::vector<uint8_t>(data, data + size), {}, 0});
}

void FunctionFs::opRead(fuse_req_t req, fuse_ino_t ino, size_t size, off_t off, fuse_file_info *fi)
{
    if (ino == kEp0Ino) {
        ep0Read(req, size, fi);
        return;
    }
    fuse_req_interrupt_func(req, interruptTrampoline, this);
    Lock lock(mutex_);
    Ep *ep = epForInodeLocked(ino);
    if (!ep) {
        lock.unlock();
        fuse_reply_err(req, ENODEV);
        return;
    }
    if (enabled_ && ep->desc.isIn()) {
        lock.unlock();
        fuse_reply_err(req, EBADMSG);
        return;
    }
    if (off > 0 && !ep->desc.isIn()) {
        // A continuation of a read larger than one request: hand over what is queued now and
        // never wait, so the read ends with what the host has sent.
        std::vector<uint8_t> buf(std::min(size, ep->outBytes));
        const size_t n = takeOutLocked(*ep, buf.data(), buf.size());
        ep->bytes += n;
        lock.unlock();
        fuse_reply_buf(req, reinterpret_cast<const char *>(buf.data()), n);
        return;
    }
    if (enabled_ && ep->held.empty() && outReadyLocked(*ep)) {
        ep->held.push_back(Held{req, false, size, off, true, {}, {}, 0});
        serviceEpLocked(*ep);
        return;
    }
    hold(lock, ep->held, Held{req, false, size, off, enabled_, {}, {}, 0});
}

void FunctionFs::physTransfer(fuse_req_t req, fuse_ino_t ino, void *arg)
{
    fuse_req_interrupt_func(req, interruptTrampoline, this);
    // The record lives in the caller's memory: the request carries only its address.
    const pid_t tid = fuse_req_ctx(req)->pid;
    uint8_t record[8];
    iovec local{record, sizeof record};
    iovec remote{arg, sizeof record};
    if (process_vm_readv(tid, &local, 1, &remote, 1, 0) != ssize_t(sizeof record)) {
        logLine("ep%zu: physical-address transfer: cannot read the caller's record: %s",
                size_t(ino - kEp0Ino), strerror(errno));
        fuse_reply_err(req, EFAULT);
        return;
    }
    const uint32_t phys = uint32_t(record[0]) | uint32_t(record[1]) << 8 | uint32_t(record[2]) << 16
                          | uint32_t(record[3]) << 24;
    const uint32_t length = uint32_t(record[4]) | uint32_t(record[5]) << 8
                            | uint32_t(record[6]) << 16 | uint32_t(record[7]) << 24;
    // The caller's own HAL memory is all a physical address can name here, as on the device
    // only memory the process holds is pinned for it.
    int fd = -1;
    uint64_t offset = 0;
    const int resolved = arvo_sim_resolve_phys(tid, phys, length, &fd, &offset);
    usbd::UniqueFd memory(fd);
    if (resolved != ARVO_HAL_OK) {
        logLine("ep%zu: physical-address transfer of %u bytes at 0x%08x: %s", size_t(ino - kEp0Ino),
                length, phys,
                resolved == ARVO_HAL_ERR_NOT_FOUND ? "no memory of the caller there"
                                                   : "the range runs past the memory's end");
        fuse_reply_err(req, EFAULT);
        return;
    }

    Lock lock(mutex_);
    Ep *ep = epForInodeLocked(ino);
    if (!ep) {
        lock.unlock();
        fuse_reply_err(req, ENODEV);
        return;
    }
    Held held{req, true, length, 0, enabled_, {}, std::move(memory), offset};
    if (enabled_ && !ep->stalled && ep->held.empty()) {
        acceptPhysLocked(*ep, held);
        return;
    }
    logVerbose("ep%zu: physical-address transfer of %u bytes held (%s)", size_t(ino - kEp0Ino),
               length, enabled_ ? "stalled" : "function not enabled");
    hold(lock, ep->held, std::move(held));
}

void FunctionFs::opIoctl(fuse_req_t req, fuse_ino_t ino, unsigned int cmd, void *arg,
                         fuse_file_info *)
{
    bool inEndpoint = false;
    {
        Lock lock(mutex_);
        const Ep *ep = epForInodeLocked(ino);
        inEndpoint = ep && ep->desc.isIn();
    }
    if (inEndpoint && cmd == kPhysTransferIoctl) {
        physTransfer(req, ino, arg);
        return;
    }
    fuse_reply_err(req, ENOTTY);
}

// ---- control side ----------------------------------------------------------------------------

bool FunctionFs::plug(std::string &why)
{
    Lock lock(mutex_);
    if (state_ != State::Ready) {
        why = "the function is not ready (descriptors and strings not written)";
        return false;
    }
    if (events_.size() + 2 > kMaxQueuedEvents) {
        why = "the event queue is full (nobody reads ep0)";
        return false;
    }
    queueEventLocked(kEventBind, nullptr);
    queueEventLocked(kEventEnable, nullptr);
    setEnabledLocked(true);
    return true;
}

void FunctionFs::unplug()
{
    Lock lock(mutex_);
    if (state_ == State::Ready && events_.size() < kMaxQueuedEvents)
        queueEventLocked(kEventDisable, nullptr);
    else if (state_ == State::Ready)
        logLine("event queue full: DISABLE dropped");
    setEnabledLocked(false);
}

bool FunctionFs::queueEvent(uint8_t type, const uint8_t setup[8], std::string &why)
{
    Lock lock(mutex_);
    if (state_ != State::Ready) {
        why = "the function is not ready (descriptors and strings not written)";
        return false;
    }
    if (events_.size() >= kMaxQueuedEvents) {
        why = "the event queue is full (nobody reads ep0)";
        return false;
    }
    queueEventLocked(type, setup);
    // The endpoints follow the events that switch them in the kernel.
    if (type == kEventEnable)
        setEnabledLocked(true);
    else if (type == kEventDisable || type == kEventUnbind)
        setEnabledLocked(false);
    return true;
}

bool FunctionFs::setStall(const std::string &file, bool stalled, std::string &why)
{
    Lock lock(mutex_);
    Ep *ep = epForFileLocked(file, why);
    if (!ep)
        return false;
    ep->stalled = stalled;
    if (!stalled)
        serviceEpLocked(*ep);
    return true;
}

bool FunctionFs::setShort(const std::string &file, long bytes, std::string &why)
{
    Lock lock(mutex_);
    Ep *ep = epForFileLocked(file, why);
    if (!ep)
        return false;
    if (!ep->desc.isIn()) {
        why = file + " is not an IN endpoint";
        return false;
    }
    ep->shortNext = bytes;
    return true;
}

bool FunctionFs::pushOut(const std::string &file, std::vector<uint8_t> data, std::string &why)
{
    Lock lock(mutex_);
    Ep *ep = epForFileLocked(file, why);
    if (!ep)
        return false;
    if (ep->desc.isIn()) {
        why = file + " is not an OUT endpoint";
        return false;
    }
    if (ep->outBytes + data.size() > kMaxOutQueueBytes) {
        why = "more than " + std::to_string(kMaxOutQueueBytes >> 20) + " MiB waiting on " + file;
        return false;
    }
    if (data.empty())
        return true; // an empty element would read as the end-of-data mark
    ep->outBytes += data.size();
    ep->outQueue.push_back(std::move(data));
    serviceEpLocked(*ep);
    return true;
}

bool FunctionFs::pushOutEof(const std::string &file, std::string &why)
{
    Lock lock(mutex_);
    Ep *ep = epForFileLocked(file, why);
    if (!ep)
        return false;
    if (ep->desc.isIn()) {
        why = file + " is not an OUT endpoint";
        return false;
    }
    ep->outQueue.emplace_back();
    serviceEpLocked(*ep);
    return true;
}

bool FunctionFs::waitReady(std::chrono::milliseconds timeout)
{
    Lock lock(mutex_);
    return readyChanged_.wait_for(lock, timeout, [this] { return state_ == State::Ready; });
}

FunctionStatus FunctionFs::status()
{
    Lock lock(mutex_);
    FunctionStatus s;
    s.state = state_ == State::Ready         ? "ready"
              : state_ == State::WaitStrings ? "waiting-strings"
                                             : "waiting-descriptors";
    s.layout = layout_;
    s.enabled = enabled_;
    s.eventsQueued = events_.size();
    s.opens = opens_;
    s.capturing = bool(capture_);
    for (size_t i = 0; i < eps_.size(); ++i) {
        const Ep &ep = eps_[i];
        EndpointStatus e;
        e.file = "ep" + std::to_string(i + 1);
        e.desc = ep.desc;
        e.bytes = ep.bytes;
        e.writes = ep.writes;
        e.ioctls = ep.ioctls;
        e.ioctlBytes = ep.ioctlBytes;
        e.reads = ep.reads;
        e.held = ep.held.size();
        e.stalled = ep.stalled;
        e.shortNext = ep.shortNext;
        e.queued = ep.outBytes;
        if (s.captureEndpoint.empty() && ep.desc.isIn())
            s.captureEndpoint = e.file;
        s.endpoints.push_back(e);
    }
    return s;
}

void FunctionFs::logTotals()
{
    Lock lock(mutex_);
    if (totals_.empty()) {
        logLine("no data reached the host");
        return;
    }
    for (const auto &entry : totals_) {
        const std::string ioctls =
            entry.second.ioctls ? " and " + std::to_string(entry.second.ioctls) + " ioctls" : "";
        logLine("%s totals: %llu bytes in %llu writes%s", entry.first.c_str(),
                static_cast<unsigned long long>(entry.second.bytes),
                static_cast<unsigned long long>(entry.second.writes), ioctls.c_str());
    }
}

} // namespace usbdemu
