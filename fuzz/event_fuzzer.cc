// Event records through OrvEventServer::ProcessEvent, as the event server's
// worker hands them over: any event and sub-event id, any length, any bytes,
// records that name a live session, and the driver's VF notices.
//
// The daemon runs in this process with one session that the records can name:
// device 0, VF 0, host pid kHostPid, started over a real host link with the
// collective service and the compute process (real stand-in sub-processes).
// At the end of an input whose records named that session (or that ended it
// some other way), the session is torn down and started afresh, so that every
// input meets a session that has just answered its start.
//
// An input is up to kMaxRecords records, each a 20-byte little-endian header
// (event_id, subevent_id, src_pid, grp_id, msg_len) followed by the message
// bytes: min(msg_len, 256) of them, or what is left. msg_len is passed on as
// it stands, whatever the number of bytes that followed.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "daemon/orvdaemon.h"
#include "emu/host/host_link.h"
#include "event/orv_event_server.h"
#include "fuzz/fuzz_support.h"
#include "orv_message.pb.h"

namespace {

using namespace std::chrono_literals;
using orv::HDCMessage;
using orv::host::HostLink;
using orv::host::Received;

constexpr uint32_t kHostPid = 4242;
constexpr size_t kMaxRecords = 4;
constexpr size_t kHeaderSize = 20;
constexpr auto kStartTimeout = 30s;

orv::fuzz::Bystander g_bystander;
std::unique_ptr<HostLink> g_link;
std::shared_ptr<orv::OrvImpl> g_session;

uint32_t ReadWord(const uint8_t* bytes) {
    return uint32_t{bytes[0]} | (uint32_t{bytes[1]} << 8) | (uint32_t{bytes[2]} << 16) |
           (uint32_t{bytes[3]} << 24);
}

// Reads what the daemon has sent; reconnects when it closed the link.
void DrainLink() {
    HDCMessage msg;
    while (g_link != nullptr && g_link->Next(&msg, 0ms) == Received::kMessage) {
    }
    if (g_link == nullptr || !g_link->Open()) {
        std::string error;
        g_link = HostLink::Connect(orv::fuzz::HdcSocketPath(), &error);
        if (g_link == nullptr) {
            orv::fuzz::Fail("%s", error.c_str());
        }
    }
}

// Sends the start request and waits for its answer: true when the session
// runs, false when the daemon closed the link first (it may still be closing
// the link of a session an earlier input ended).
bool StartSession() {
    HDCMessage start;
    start.set_type(HDCMessage::ORV_START_PROC_MSG);
    start.set_device_id(0);
    start.set_vf_id(0);
    start.mutable_proc_sign_pid()->set_proc_pid(kHostPid);
    start.mutable_proc_sign_pid()->set_proc_sign("fuzz-session");
    start.set_start_zarn(true);
    start.set_start_cp(true);
    if (!g_link->Send(start)) {
        return false;
    }
    auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        HDCMessage reply;
        switch (left.count() > 0 ? g_link->Next(&reply, left) : Received::kTimeout) {
            case Received::kMessage:
                break;
            case Received::kTimeout:
                orv::fuzz::Fail("the session's start got no response");
            default:
                return false;
        }
        if (reply.type() == HDCMessage::ORV_START_PROC_RSP) {
            if (reply.orv_rsp_code() != 0) {
                orv::fuzz::Fail("the session's start failed: %s", reply.ShortDebugString().c_str());
            }
            return true;
        }
    }
}

// Clears the registry and starts the session the records name.
void RestartSession() {
    constexpr int kAttempts = 3;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        orv::OrvDaemon::GetInstance()->ClearOrvMap();
        g_session.reset();
        DrainLink();
        if (StartSession()) {
            g_session = orv::OrvDaemon::GetInstance()->GetOrvImpl(0, 0, kHostPid);
            if (g_session == nullptr) {
                orv::fuzz::Fail("the started session is not in the registry");
            }
            return;
        }
    }
    orv::fuzz::Fail("the daemon closed the link under %d session starts in a row", kAttempts);
}

// Whether the daemon routes this record to the fuzzer's session.
bool NamesSession(const event_info& event) {
    if (event.event_id != orv::kEventCcpuCtrlMsg || event.msg_len != orv::kOrvEventRecordLength) {
        return false;
    }
    switch (event.subevent_id) {
        case orv::ORV_SUB_EVENT_START:
        case orv::ORV_SUB_EVENT_CLOSE:
        case orv::ORV_SUB_EVENT_CUST_START:
        case orv::ORV_SUB_EVENT_LOAD_SO:
            break;
        default:
            return false;
    }
    orv::OrvSubEventInfo record;
    std::memcpy(&record, event.msg, sizeof(record));
    return record.deviceId == 0 && record.vfId == 0 && record.hostPid == kHostPid;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orv::fuzz::QuietSystemLog();
    g_bystander.Start();
    orv::fuzz::StartDaemon();
    RestartSession();
    // Before the daemon's shutdown, which was registered earlier.
    orv::fuzz::BeforeExit([] {
        g_session.reset();
        g_link.reset();
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    bool sessionTouched = false;
    size_t offset = 0;
    for (size_t records = 0; records < kMaxRecords && size - offset >= kHeaderSize; ++records) {
        event_info event;
        std::memset(&event, 0, sizeof(event));
        const uint8_t* header = data + offset;
        event.event_id = ReadWord(header);
        event.subevent_id = ReadWord(header + 4);
        event.src_pid = static_cast<int32_t>(ReadWord(header + 8));
        event.grp_id = ReadWord(header + 12);
        event.msg_len = ReadWord(header + 16);
        offset += kHeaderSize;
        size_t body =
            std::min({static_cast<size_t>(event.msg_len), sizeof(event.msg), size - offset});
        std::memcpy(event.msg, data + offset, body);
        offset += body;

        sessionTouched = sessionTouched || NamesSession(event);
        orv::OrvEventServer::GetInstance()->ProcessEvent(event);
        // What the record started in the session runs on its event threads.
        g_session->CleanOrvRcvEventThreads();
    }
    g_bystander.Check();
    // Restarted here rather than before the next input, so that an input
    // that leaves the daemon unable to start the session is the one reported.
    if (sessionTouched || orv::OrvDaemon::GetInstance()->GetOrvImpl(0, 0, kHostPid) != g_session) {
        RestartSession();
    } else {
        DrainLink();
    }
    return 0;
}
