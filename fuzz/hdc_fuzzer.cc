// Bytes a host sends on its HDC link, through the real path: the emulated HDC
// server library splits them into frames, parses each into an HDCMessage and
// dispatches it through MessageParseServer to the daemon's handlers; when the
// link ends it delivers SOCKET_CLOSED for the session, whose handling cleans
// up what the input started.
//
// Each input is one fresh connection to device 0's server: the input is
// written, the connection half-closed, and the target waits until the library
// has ended the session (SOCKET_CLOSED handled). Sessions the input created
// for other (device, VF, host pid) keys than the one SOCKET_CLOSED names
// outlive the link, as they would on the card; they are cleared after each
// input so that every input starts from an empty registry.
//
// A custom mutator keeps most mutations inside the frames: it mutates one
// frame's payload and rewrites its length (or copies, drops or swaps whole
// frames), so that a field inserted into a message does not break the framing
// of everything after it. One mutation in four works on the raw bytes, so that
// framing errors keep being tried. The custom cross-over splices one frame's
// payload onto another's: serialised messages that follow each other parse as
// one message with the fields of both.
//
// Bounds on the work one input may cause:
// - only the first kMaxFramesPerInput frames are sent;
// - AICPU_MAX_NUM is 2, so the session limit is reachable within them;
// - the package workers of VFs 0..16 are stopped, so a start whose check code
//   differs from the installed one fails at once instead of after 5 s (both
//   end in the same "checksum aicpu package failed" branch).
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "daemon/orvdaemon.h"
#include "fuzz/fuzz_support.h"
#include "orv_message.pb.h"
#include "package/package_worker.h"
#include "platform/orv_codes.h"

namespace {

using orv::HDCMessage;

constexpr size_t kMaxFramesPerInput = 8;
constexpr useconds_t kSessionPollUs = 100;

orv::fuzz::Bystander g_bystander;
// Session ids are unique within the process, from 1 up, in accept order; only
// this target connects, so its n-th connection is session n.
uint32_t g_connections = 0;

bool IsResponse(HDCMessage::MsgType type) {
    return type == HDCMessage::ORV_START_PROC_RSP || type == HDCMessage::ORV_CLOSE_PROC_RSP ||
           type == HDCMessage::ORV_UPDATE_PROIFILING_RSP || type == HDCMessage::TEST_HDC_RSP ||
           type == HDCMessage::ORV_CHECK_PACKAGE_RSP;
}

// True while the HDC library still has the session: it lets go of it only
// after SOCKET_CLOSED has been handled.
bool SessionLive(uint32_t sessionId) {
    std::shared_ptr<orv::HdcServer> server =
        orv::HdcServer::GetInstance(0, orv::HDC_SERVICE_TYPE_PROCESS_MANAGER);
    return server != nullptr && server->GetVersionVerify(sessionId) != nullptr;
}

}  // namespace

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize,
                                          unsigned int seed) {
    std::minstd_rand random(seed);
    orv::fuzz::FrameSplit frames = orv::fuzz::SplitFrames(data, size);
    if (frames.payloads.empty() || random() % 4 == 0) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    size_t index = random() % frames.payloads.size();
    switch (random() % 8) {
        case 0:
            frames.payloads.insert(frames.payloads.begin() + static_cast<long>(index),
                                   frames.payloads[index]);
            break;
        case 1:
            frames.payloads.erase(frames.payloads.begin() + static_cast<long>(index));
            break;
        case 2:
            std::swap(frames.payloads[index], frames.payloads[random() % frames.payloads.size()]);
            break;
        default: {
            std::string& payload = frames.payloads[index];
            size_t room = maxSize > size ? maxSize - size : 0;
            size_t oldSize = payload.size();
            if (oldSize + room == 0) {
                return LLVMFuzzerMutate(data, size, maxSize);
            }
            payload.resize(oldSize + room);
            payload.resize(LLVMFuzzerMutate(reinterpret_cast<uint8_t*>(payload.data()), oldSize,
                                            oldSize + room));
            break;
        }
    }
    std::string mutated = orv::fuzz::JoinFrames(frames.payloads);
    mutated.append(reinterpret_cast<const char*>(data) + frames.consumed, size - frames.consumed);
    if (mutated.size() > maxSize) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    std::memcpy(data, mutated.data(), mutated.size());
    return mutated.size();
}

extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t* data1, size_t size1,
                                            const uint8_t* data2, size_t size2, uint8_t* out,
                                            size_t maxOutSize, unsigned int seed) {
    std::minstd_rand random(seed);
    orv::fuzz::FrameSplit first = orv::fuzz::SplitFrames(data1, size1);
    orv::fuzz::FrameSplit second = orv::fuzz::SplitFrames(data2, size2);
    if (first.payloads.empty() || second.payloads.empty()) {
        return 0;
    }
    std::string& target = first.payloads[random() % first.payloads.size()];
    const std::string& donor = second.payloads[random() % second.payloads.size()];
    size_t keep = random() % (target.size() + 1);
    size_t from = random() % (donor.size() + 1);
    target = random() % 2 == 0 ? target.substr(0, keep) + donor.substr(from)
                               : donor.substr(0, from) + target.substr(keep);
    std::string crossed = orv::fuzz::JoinFrames(first.payloads);
    crossed.append(reinterpret_cast<const char*>(data1) + first.consumed, size1 - first.consumed);
    if (crossed.size() > maxOutSize) {
        return 0;
    }
    std::memcpy(out, crossed.data(), crossed.size());
    return crossed.size();
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    orv::fuzz::QuietSystemLog();
    setenv("AICPU_MAX_NUM", "2", 1);
    g_bystander.Start();
    orv::fuzz::StartDaemon();
    for (int32_t vfId = 0; vfId <= static_cast<int32_t>(orv::kMaxVfId); ++vfId) {
        std::shared_ptr<orv::PackageWorker> worker = orv::PackageWorker::GetInstance(vfId);
        if (worker != nullptr) {
            worker->Stop();
        }
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orv::fuzz::FrameSplit frames = orv::fuzz::SplitFrames(data, size, kMaxFramesPerInput);
    size_t sent = frames.payloads.size() == kMaxFramesPerInput ? frames.consumed : size;
    uint32_t sessionId = ++g_connections;
    orv::fuzz::RawHostLink link(orv::fuzz::HdcSocketPath());
    while (!SessionLive(sessionId)) {
        usleep(kSessionPollUs);
    }
    std::vector<std::string> replies = link.Exchange(data, sent);
    while (SessionLive(sessionId)) {
        usleep(kSessionPollUs);
    }
    orv::OrvDaemon::GetInstance()->ClearOrvMap();

    for (const std::string& payload : replies) {
        HDCMessage reply;
        if (!reply.ParseFromString(payload)) {
            orv::fuzz::Fail("a reply of %zu bytes does not parse as an HDCMessage", payload.size());
        }
        if (!IsResponse(reply.type())) {
            orv::fuzz::Fail("a reply has type %d, which is no response",
                            static_cast<int>(reply.type()));
        }
    }
    g_bystander.Check();
    return 0;
}
