// Emulated HDC server library.
//
// One Unix stream socket per device ("dev<N>.sock" in ORV_EMU_HDC_DIR, by
// default /run/orv-hdc); each accepted connection is one HDC session with a
// receive thread of its own. Frames are a 4-byte big-endian length and one
// serialised HDCMessage. Session ids are unique within the process, from 1 up.
#include <hdc_server.h>

#include <driver_hal.h>
#include <slog.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <set>

#include <google/protobuf/descriptor.h>

#include "emu/common/emu_paths.h"
#include "emu/common/socket_io.h"
#include "emu/common/unix_server.h"
#include "emu/hdc/session_board.h"
#include "message/message_parse_interface.h"
#include "orv_message.pb.h"
#include "platform/mutex.h"
#include "platform/orv_limits.h"

namespace orv {

namespace {

// The system log's module for the transport's own lines.
constexpr int kHdcLogModuleId = 0x48;

// What this side announces in the version handshake.
constexpr uint32_t kHdcVersion = 1;

struct Feature {
    HDCMessage::MsgType type;
    std::vector<std::string> features;
};

const std::vector<Feature>& LocalFeatures() {
    static const std::vector<Feature> features = {
        {HDCMessage::ORV_START_PROC_MSG,
         {"start_zarn", "start_cp", "check_code", "log_level", "vf_id", "device_mode"}},
        {HDCMessage::ORV_START_QS_MSG, {"qs_init_group_name"}},
        {HDCMessage::ORV_CLOSE_PROC_MSG, {"vf_id"}},
        {HDCMessage::ORV_UPDATE_PROIFILING_MSG, {"profiling_mode"}},
        {HDCMessage::ORV_CHECK_PACKAGE, {"check_code"}},
    };
    return features;
}

// The bytes of big frames being read and handled at once, across every link
// of the process. Honest frames are small and never need it; a big frame
// that finds no room ends its link at once, so that nobody waits for room.
class FrameBudget {
  public:
    static FrameBudget& Instance() {
        static FrameBudget* const budget = new FrameBudget;
        return *budget;
    }

    // Takes `bytes` if there is room for them.
    bool TryTake(size_t bytes) {
        MutexLock lock(&mutex_);
        if (inUse_ + bytes > limits::kFrameBudgetBytes) {
            return false;
        }
        inUse_ += bytes;
        return true;
    }

    void Give(size_t bytes) {
        MutexLock lock(&mutex_);
        inUse_ -= bytes;
    }

  private:
    Mutex mutex_;
    size_t inUse_ GUARDED_BY(mutex_) = 0;
};

// What parsing a frame would make: its fields, nested ones and the elements
// of packed lists included, and the feature entries of a version handshake.
struct FrameShape {
    size_t fields = 0;
    size_t features = 0;
    size_t featureBytes = 0;
};

bool ReadVarint(const uint8_t*& p, const uint8_t* end, uint64_t* value) {
    *value = 0;
    for (int shift = 0; shift < 64 && p < end; shift += 7) {
        uint8_t byte = *p++;
        *value |= static_cast<uint64_t>(byte & 0x7f) << shift;
        if ((byte & 0x80) == 0) {
            return true;
        }
    }
    return false;
}

// Walks the wire form of a message of `type` (null: unknown) without
// parsing it, until it ends or the counts pass their limits. What is
// malformed is left to the parser, which refuses it.
void MeasureFields(const uint8_t* p, const uint8_t* end, const google::protobuf::Descriptor* type,
                   int depth, FrameShape* shape) {
    using google::protobuf::FieldDescriptor;
    static const google::protobuf::Descriptor* const kFeatureList =
        HDCMessage_VersionInfo_FeatureList::descriptor();
    while (p < end && shape->fields <= limits::kMaxFrameFields) {
        uint64_t tag = 0;
        if (!ReadVarint(p, end, &tag)) {
            return;
        }
        ++shape->fields;
        const FieldDescriptor* field =
            type != nullptr ? type->FindFieldByNumber(static_cast<int>(tag >> 3)) : nullptr;
        uint64_t skipped = 0;
        switch (tag & 7) {
            case 0:
                if (!ReadVarint(p, end, &skipped)) {
                    return;
                }
                break;
            case 1:
                p += std::min<ptrdiff_t>(8, end - p);
                break;
            case 5:
                p += std::min<ptrdiff_t>(4, end - p);
                break;
            case 2: {
                uint64_t length = 0;
                if (!ReadVarint(p, end, &length) || length > static_cast<uint64_t>(end - p)) {
                    return;
                }
                const uint8_t* inner = p;
                p += length;
                if (field == nullptr) {
                    break;
                }
                if (field->type() == FieldDescriptor::TYPE_MESSAGE && depth < 16) {
                    MeasureFields(inner, p, field->message_type(), depth + 1, shape);
                } else if (field->is_packable()) {
                    // Each element of a packed list is a value of its own.
                    for (const uint8_t* q = inner; q < p; ++q) {
                        shape->fields += (*q & 0x80) == 0 ? 1 : 0;
                    }
                } else if (type == kFeatureList && field->number() == 2) {
                    ++shape->features;
                    shape->featureBytes += length;
                }
                break;
            }
            default:
                break;
        }
    }
}

FrameShape MeasureFrame(const std::string& payload) {
    FrameShape shape;
    const auto* data = reinterpret_cast<const uint8_t*>(payload.data());
    MeasureFields(data, data + payload.size(), HDCMessage::descriptor(), 0, &shape);
    return shape;
}

// Why a frame is refused before it is parsed; empty when it is not.
std::string FrameRefusal(const FrameShape& shape) {
    if (shape.fields > limits::kMaxFrameFields) {
        return "it holds more than " + std::to_string(limits::kMaxFrameFields) + " fields";
    }
    if (shape.features > limits::kMaxFeatureEntries ||
        shape.featureBytes > limits::kMaxFeatureBytes) {
        return "its version handshake announces " + std::to_string(shape.features) +
               " features in " + std::to_string(shape.featureBytes) + " bytes, more than " +
               std::to_string(limits::kMaxFeatureEntries) + " in " +
               std::to_string(limits::kMaxFeatureBytes);
    }
    return "";
}

// A link time-out: the limits table's, or a shorter one the environment
// gives in milliseconds.
std::chrono::milliseconds LinkTimeout(const char* env, std::chrono::milliseconds table) {
    std::string value = emu::EnvOr(env, "");
    char* end = nullptr;
    long long ms = std::strtoll(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || ms <= 0 || ms > table.count()) {
        return table;
    }
    return std::chrono::milliseconds(ms);
}

bool IsFrameworkRequest(HDCMessage::MsgType type) {
    return type == HDCMessage::ORV_START_PROC_MSG || type == HDCMessage::ORV_CLOSE_PROC_MSG ||
           type == HDCMessage::ORV_UPDATE_PROIFILING_MSG || type == HDCMessage::ORV_START_QS_MSG;
}

// One connection of a host.
struct HdcSession {
    HdcSession(uint32_t id, uint32_t deviceId, int fd) : id(id), deviceId(deviceId), fd(fd) {}

    // Ends the connection (the receive thread then sees its end), unless it
    // has ended already. Never waits for a writer.
    void ShutDown() {
        MutexLock lock(&stateMutex);
        writable = false;
        if (open) {
            ::shutdown(fd, SHUT_RDWR);
        }
    }

    const uint32_t id;
    const uint32_t deviceId;
    const int fd;  // owned by the server's connection; valid while `open`
    const std::shared_ptr<VersionVerify> version = std::make_shared<VersionVerify>();

    // Serialises writers; `open` only turns false with it held, so a writer
    // that saw it true may use the descriptor to the end of its write.
    Mutex writeMutex ACQUIRED_BEFORE(stateMutex);
    Mutex stateMutex;
    bool open GUARDED_BY(stateMutex) = true;      // the descriptor may be used
    bool writable GUARDED_BY(stateMutex) = true;  // no ClearSingleSession yet

    // The last framework request's identity; the receive thread's alone.
    uint32_t lastDeviceId = 0;
    int32_t lastVfId = 0;
    uint32_t lastHostPid = 0;
    bool sawRequest = false;
};

// Every live session of the process, for SendMsg, which names no device.
class SessionTable {
  public:
    static SessionTable& Instance() {
        static SessionTable* const table = new SessionTable;
        return *table;
    }

    uint32_t NextId() { return nextId_.fetch_add(1); }

    void Add(const std::shared_ptr<HdcSession>& session) {
        MutexLock lock(&mutex_);
        sessions_[session->id] = session;
    }

    void Remove(uint32_t id) {
        MutexLock lock(&mutex_);
        sessions_.erase(id);
    }

    std::shared_ptr<HdcSession> Find(uint32_t id) {
        MutexLock lock(&mutex_);
        auto it = sessions_.find(id);
        return it != sessions_.end() ? it->second : nullptr;
    }

  private:
    std::atomic<uint32_t> nextId_{1};
    Mutex mutex_;
    std::map<uint32_t, std::shared_ptr<HdcSession>> sessions_ GUARDED_BY(mutex_);
};

}  // namespace

// ---- VersionVerify --------------------------------------------------------------

struct VersionVerify::State {
    Mutex mutex;
    uint32_t peerVersion GUARDED_BY(mutex) = 0;
    std::vector<std::string> peerFeatures GUARDED_BY(mutex);
};

VersionVerify::VersionVerify() : state_(std::make_unique<State>()) {}

VersionVerify::~VersionVerify() = default;

void VersionVerify::ParseVersionInfo(const HDCMessage_VersionInfo& peerInfo) {
    MutexLock lock(&state_->mutex);
    state_->peerVersion = peerInfo.version();
    state_->peerFeatures.clear();
    // The transport refuses a longer list before it is parsed; what comes
    // here another way is cut at the same bounds.
    size_t bytes = 0;
    for (const auto& list : peerInfo.feature_list()) {
        for (const std::string& feature : list.feature()) {
            bytes += feature.size();
            if (state_->peerFeatures.size() >= limits::kMaxFeatureEntries ||
                bytes > limits::kMaxFeatureBytes) {
                return;
            }
            state_->peerFeatures.push_back(HDCMessage::MsgType_Name(list.msg_type()) + ":" +
                                           feature);
        }
    }
}

void VersionVerify::SetVersionInfo(HDCMessage& msg) const {
    HDCMessage_VersionInfo* info = msg.mutable_version_info();
    info->set_version(kHdcVersion);
    info->clear_feature_list();
    for (const Feature& feature : LocalFeatures()) {
        auto* list = info->add_feature_list();
        list->set_msg_type(feature.type);
        for (const std::string& name : feature.features) {
            list->add_feature(name);
        }
    }
}

uint32_t VersionVerify::GetPeerVersion() const {
    MutexLock lock(&state_->mutex);
    return state_->peerVersion;
}

std::vector<std::string> VersionVerify::GetPeerFeatures() const {
    MutexLock lock(&state_->mutex);
    return state_->peerFeatures;
}

// ---- HdcServer ------------------------------------------------------------------

class HdcServer::Impl {
  public:
    Impl(uint32_t deviceId, HDCServiceType type) : deviceId(deviceId), type(type) {}

    // Receives one session's frames until it ends.
    void Serve(int fd, pid_t peer);
    // Says why a link ended, when it was the transport that ended it.
    void LogEndOfLink(const HdcSession& session, pid_t peer, emu::FrameStatus status) const;

    const uint32_t deviceId;
    const HDCServiceType type;
    std::atomic<bool> destroying{false};

    Mutex mutex;
    std::unique_ptr<emu::UnixServer> listener GUARDED_BY(mutex);
    std::string socketPath GUARDED_BY(mutex);
    std::set<uint32_t> sessionIds GUARDED_BY(mutex);
};

namespace {

Mutex& RegistryMutex() {
    static Mutex* const mutex = new Mutex;
    return *mutex;
}

std::map<std::pair<uint32_t, uint32_t>, std::shared_ptr<HdcServer>>& Registry() {
    static auto* const registry =
        new std::map<std::pair<uint32_t, uint32_t>, std::shared_ptr<HdcServer>>;
    return *registry;
}

}  // namespace

void HdcServer::Impl::Serve(int fd, pid_t peer) {
    SessionTable& table = SessionTable::Instance();
    auto session = std::make_shared<HdcSession>(table.NextId(), deviceId, fd);
    table.Add(session);
    emu::SessionBoard::Instance().Opened(session->id, deviceId);
    {
        MutexLock lock(&mutex);
        sessionIds.insert(session->id);
    }
    MessageParseServer* dispatcher = MessageParseServer::GetInstance();
    // Big frames take their length from the process's budget while they are
    // read and handled; it is given back before the next frame is read.
    size_t budgeted = 0;
    emu::FrameLimits frames;
    frames.maxLength = limits::kMaxFrameBytes;
    frames.startBy =
        emu::Clock::now() + LinkTimeout(emu::kHdcFirstFrameMsEnv, limits::kFirstFrameTimeout);
    frames.wholeWithin = LinkTimeout(emu::kHdcPartialFrameMsEnv, limits::kPartialFrameTimeout);
    frames.admit = [&budgeted](uint32_t length, emu::Clock::time_point) {
        if (length <= limits::kSmallFrameBytes) {
            return true;
        }
        if (!FrameBudget::Instance().TryTake(length)) {
            return false;
        }
        budgeted = length;
        return true;
    };
    std::string payload;
    for (;;) {
        if (budgeted != 0) {
            FrameBudget::Instance().Give(budgeted);
            budgeted = 0;
        }
        if (payload.capacity() > limits::kSmallFrameBytes) {
            // A big frame's room is not kept while the link waits.
            std::string().swap(payload);
        }
        emu::FrameStatus status = emu::ReadFrame(fd, &payload, frames);
        if (status != emu::FrameStatus::kOk) {
            LogEndOfLink(*session, peer, status);
            break;
        }
        // A link that began to speak may wait as long as it likes between
        // requests: a host holds its link for its session's whole life.
        frames.startBy = emu::kNoDeadline;
        std::string refusal = FrameRefusal(MeasureFrame(payload));
        if (!refusal.empty()) {
            DlogWarnInner(kHdcLogModuleId,
                          "[HdcServer] session[%u] of device[%u] from pid[%d]: a frame of %zu "
                          "bytes is refused, %s; its link is ended",
                          session->id, deviceId, static_cast<int>(peer), payload.size(),
                          refusal.c_str());
            break;
        }
        HDCMessage msg;
        if (!msg.ParseFromString(payload)) {
            break;
        }
        if (IsFrameworkRequest(msg.type())) {
            session->sawRequest = true;
            session->lastDeviceId = msg.device_id();
            session->lastVfId = msg.vf_id();
            session->lastHostPid = msg.proc_sign_pid().proc_pid();
            emu::SessionBoard::Instance().Request(session->id, session->lastDeviceId,
                                                  session->lastVfId, session->lastHostPid,
                                                  msg.type());
        }
        dispatcher->ProcessMessage(session->id, msg);
    }
    {
        MutexLock writing(&session->writeMutex);
        MutexLock lock(&session->stateMutex);
        session->open = false;
    }
    table.Remove(session->id);
    emu::SessionBoard::Instance().Closed(session->id);
    if (!destroying.load()) {
        HDCMessage closed;
        closed.set_type(HDCMessage::SOCKET_CLOSED);
        closed.set_device_id(session->sawRequest ? session->lastDeviceId : deviceId);
        closed.set_vf_id(session->lastVfId);
        closed.mutable_proc_sign_pid()->set_proc_pid(session->lastHostPid);
        dispatcher->ProcessMessage(session->id, closed);
    }
    if (budgeted != 0) {
        FrameBudget::Instance().Give(budgeted);
    }
    MutexLock lock(&mutex);
    sessionIds.erase(session->id);
}

void HdcServer::Impl::LogEndOfLink(const HdcSession& session, pid_t peer,
                                   emu::FrameStatus status) const {
    const char* why = nullptr;
    switch (status) {
        case emu::FrameStatus::kSilent:
            why = "it sent no request within its first-frame time-out";
            break;
        case emu::FrameStatus::kStalled:
            why = "it left a frame half sent for longer than the partial-frame time-out";
            break;
        case emu::FrameStatus::kNotAdmitted:
            why = "its big frame found no room in the frame budget";
            break;
        case emu::FrameStatus::kTooLong:
            why = "it announced a frame longer than the longest a link may send";
            break;
        default:
            return;  // the host closed its link, or the link was closed
    }
    DlogWarnInner(kHdcLogModuleId, "[HdcServer] session[%u] of device[%u] from pid[%d] ended: %s",
                  session.id, deviceId, static_cast<int>(peer), why);
}

std::shared_ptr<HdcServer> HdcServer::GetInstance(uint32_t deviceId, HDCServiceType type) {
    uint32_t deviceNum = 0;
    if (drvGetDevNum(&deviceNum) != DRV_ERROR_NONE || deviceId >= deviceNum) {
        return nullptr;
    }
    MutexLock lock(&RegistryMutex());
    auto& slot = Registry()[{deviceId, type}];
    if (slot == nullptr) {
        slot.reset(new HdcServer(std::make_unique<Impl>(deviceId, type)));
    }
    return slot;
}

HdcServer::HdcServer(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

HdcServer::~HdcServer() {
    Destroy();
}

uint32_t HdcServer::Init() {
    MutexLock lock(&impl_->mutex);
    if (impl_->listener != nullptr) {
        return 0;
    }
    std::string dir = emu::EnvOr(emu::kHdcDirEnv, emu::kDefaultHdcDir);
    ::mkdir(dir.c_str(), 0755);
    emu::SessionBoard::Instance().Start();
    impl_->socketPath = dir + "/dev" + std::to_string(impl_->deviceId) + ".sock";
    Impl* impl = impl_.get();
    emu::ConnectionLimits links;
    links.total = limits::kMaxLinksPerDevice;
    links.perPeer = limits::kMaxLinksPerPeer;
    links.reservedForNewPeers = limits::kLinksReservedForNewPeers;
    links.refused = [deviceId = impl_->deviceId](pid_t peer, const std::string& why) {
        DlogWarnInner(kHdcLogModuleId, "[HdcServer] link of pid[%d] to device[%u] refused: %s",
                      static_cast<int>(peer), deviceId, why.c_str());
    };
    auto listener = std::make_unique<emu::UnixServer>(
        impl_->socketPath, [impl](int fd, pid_t peer) { impl->Serve(fd, peer); }, std::move(links));
    if (!listener->Start()) {
        return 1;
    }
    impl_->listener = std::move(listener);
    return 0;
}

uint32_t HdcServer::Destroy() {
    std::unique_ptr<emu::UnixServer> listener;
    std::string socketPath;
    {
        MutexLock lock(&impl_->mutex);
        listener = std::move(impl_->listener);
        socketPath = impl_->socketPath;
    }
    if (listener != nullptr) {
        impl_->destroying.store(true);
        listener->Stop();
        ::unlink(socketPath.c_str());
        impl_->destroying.store(false);
    }
    std::shared_ptr<HdcServer> registered;
    {
        MutexLock lock(&RegistryMutex());
        auto it = Registry().find({impl_->deviceId, impl_->type});
        if (it != Registry().end() && it->second.get() == this) {
            registered = std::move(it->second);
            Registry().erase(it);
        }
    }
    // The registry's reference is let go outside its lock: it may be the last.
    return 0;
}

uint32_t HdcServer::ClearSingleSession(uint32_t sessionId) {
    std::shared_ptr<HdcSession> session = SessionTable::Instance().Find(sessionId);
    if (session == nullptr) {
        return 1;
    }
    // Everything sent before has been written whole (SendMsg returns only
    // then); a write still under way fails. The receive thread sees the end
    // and reports it.
    session->ShutDown();
    return 0;
}

std::shared_ptr<VersionVerify> HdcServer::GetVersionVerify(uint32_t sessionId) {
    {
        MutexLock lock(&impl_->mutex);
        if (impl_->sessionIds.count(sessionId) == 0) {
            return nullptr;
        }
    }
    std::shared_ptr<HdcSession> session = SessionTable::Instance().Find(sessionId);
    return session != nullptr ? session->version : nullptr;
}

uint32_t HdcServer::GetDeviceId() const {
    return impl_->deviceId;
}

uint32_t HdcCommon::SendMsg(uint32_t sessionId, const HDCMessage& msg) {
    std::shared_ptr<HdcSession> session = SessionTable::Instance().Find(sessionId);
    if (session == nullptr) {
        return 1;
    }
    std::string payload;
    if (!msg.SerializeToString(&payload)) {
        return 1;
    }
    MutexLock writing(&session->writeMutex);
    {
        MutexLock lock(&session->stateMutex);
        if (!session->open || !session->writable) {
            return 1;
        }
    }
    if (emu::WriteFrameWithin(session->fd, payload, limits::kReplyWriteTimeout)) {
        return 0;
    }
    if (errno == ETIMEDOUT) {
        // A host that does not read its replies would hold up whoever answers
        // it; its link ends, as a dropped link does.
        DlogWarnInner(kHdcLogModuleId,
                      "[HdcServer] session[%u] of device[%u]: a reply was not taken within %lld "
                      "ms, the host does "
                      "not read; its link is ended",
                      sessionId, session->deviceId,
                      static_cast<long long>(limits::kReplyWriteTimeout.count()));
        session->ShutDown();
    }
    return 1;
}

}  // namespace orv
