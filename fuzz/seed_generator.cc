// Writes the binary seed inputs of the hdc and event fuzz targets:
//
//   orv-fuzz-seeds fuzz/corpus
//
// Each seed is one small, well-formed scenario, named for what it does; the
// text seeds of the other targets are kept by hand.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "event/orv_event_interface.h"
#include "orv_message.pb.h"

namespace {

using orv::HDCMessage;

constexpr uint32_t kHostPid = 4242;  // the event target's session

// ---- hdc: frames as a host sends them ----

std::string Frame(const std::string& payload) {
    uint32_t n = static_cast<uint32_t>(payload.size());
    std::string frame = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                         static_cast<char>(n >> 8), static_cast<char>(n)};
    return frame + payload;
}

std::string Frame(const HDCMessage& msg) {
    return Frame(msg.SerializeAsString());
}

HDCMessage Request(HDCMessage::MsgType type, uint32_t hostPid, uint32_t deviceId = 0,
                   int32_t vfId = 0) {
    HDCMessage msg;
    msg.set_type(type);
    msg.set_device_id(deviceId);
    msg.set_vf_id(vfId);
    msg.mutable_proc_sign_pid()->set_proc_pid(hostPid);
    msg.mutable_proc_sign_pid()->set_proc_sign("sign");
    return msg;
}

HDCMessage Start(uint32_t hostPid, bool zarn, bool cp, int32_t vfId = 0) {
    HDCMessage msg = Request(HDCMessage::ORV_START_PROC_MSG, hostPid, 0, vfId);
    msg.set_start_zarn(zarn);
    msg.set_start_cp(cp);
    msg.set_rank_size(1);
    msg.mutable_log_level()->set_log_level("101");
    return msg;
}

HDCMessage Test() {
    HDCMessage msg = Request(HDCMessage::TEST_HDC_SEND, 100);
    auto* info = msg.mutable_version_info();
    info->set_version(1);
    auto* list = info->add_feature_list();
    list->set_msg_type(HDCMessage::ORV_START_PROC_MSG);
    list->add_feature("start_zarn");
    list->add_feature("start_cp");
    return msg;
}

std::vector<std::pair<std::string, std::string>> HdcSeeds() {
    HDCMessage profiling = Request(HDCMessage::ORV_UPDATE_PROIFILING_MSG, 300);
    profiling.set_profiling_mode(1);
    HDCMessage queue = Request(HDCMessage::ORV_START_QS_MSG, 400);
    queue.mutable_qs_init_group_name()->set_qs_init_group_name("qs_group");
    HDCMessage package = Request(HDCMessage::ORV_CHECK_PACKAGE, 0);
    package.set_real_device_id(0);
    HDCMessage packageOnDevice9 = package;
    packageOnDevice9.set_device_id(9);
    HDCMessage outOfRange = Start(700, true, false);
    outOfRange.set_device_id(9);
    HDCMessage badRealDevice = Start(701, true, false);
    badRealDevice.set_real_device_id(128);
    HDCMessage withCheckCode = Start(702, false, true);
    withCheckCode.set_check_code(12345);
    HDCMessage closed = Request(HDCMessage::SOCKET_CLOSED, 800);
    HDCMessage unknown = Request(HDCMessage::CREATE_MEMORYPOOL, 900);
    return {
        {"test", Frame(Test())},
        {"start-zarn", Frame(Start(100, true, false))},
        {"start-zarn-and-cp", Frame(Start(101, true, true))},
        {"start-cp-with-check-code", Frame(withCheckCode)},
        {"start-nothing", Frame(Start(102, false, false))},
        {"start-then-close",
         Frame(Start(200, true, false)) + Frame(Request(HDCMessage::ORV_CLOSE_PROC_MSG, 200))},
        {"start-then-profiling", Frame(Start(300, false, true)) + Frame(profiling)},
        {"start-twice", Frame(Start(301, true, false)) + Frame(Start(301, true, true))},
        {"start-queue", Frame(queue)},
        {"start-vf", Frame(Start(500, true, true, 3))},
        {"start-vf-out-of-range", Frame(Start(501, true, false, 17))},
        {"start-device-out-of-range", Frame(outOfRange)},
        {"start-real-device-out-of-range", Frame(badRealDevice)},
        {"start-three-hosts", Frame(Start(600, true, false)) + Frame(Start(601, true, false)) +
                                  Frame(Start(602, true, false))},
        {"close-unknown", Frame(Request(HDCMessage::ORV_CLOSE_PROC_MSG, 1000))},
        {"profiling-unknown", Frame(profiling)},
        {"check-package", Frame(package)},
        // A query naming device 9 once indexed the daemon's four HDC servers out of bounds.
        {"check-package-device-out-of-range", Frame(packageOnDevice9)},
        {"socket-closed-from-host", Frame(Start(800, true, false)) + Frame(closed)},
        {"unknown-type", Frame(unknown)},
        {"malformed-payload", Frame(std::string("\x12\xff\xff\xff\xff\xff", 6)) + Frame(Test())},
        {"frame-too-long", std::string("\x00\x20\x00\x00", 4) + "abc"},
        {"truncated-frame",
         std::string("\x00\x00\x00\x40", 4) + Test().SerializeAsString().substr(0, 5)},
    };
}

// ---- event: records as the event server's worker receives them ----

void PutWord(std::string* out, uint32_t word) {
    for (int shift = 0; shift < 32; shift += 8) {
        out->push_back(static_cast<char>(word >> shift));
    }
}

std::string Event(uint32_t eventId, uint32_t subEventId, uint32_t msgLen, const void* body,
                  size_t bodySize) {
    std::string out;
    PutWord(&out, eventId);
    PutWord(&out, subEventId);
    PutWord(&out, 0);  // src_pid
    PutWord(&out, 0);  // grp_id
    PutWord(&out, msgLen);
    out.append(static_cast<const char*>(body), bodySize);
    return out;
}

std::string Record(uint32_t subEventId, uint32_t eventType, uint32_t procType, uint32_t srcPid,
                   uint32_t hostPid = kHostPid, uint32_t length = orv::kOrvEventRecordLength) {
    orv::OrvSubEventInfo record;
    std::memset(&record, 0, sizeof(record));
    record.deviceId = 0;
    record.srcPid = srcPid;
    record.hostPid = hostPid;
    record.vfId = 0;
    record.procType = procType;
    record.eventType = eventType;
    return Event(EVENT_CCPU_CTRL_MSG, subEventId, length, &record, sizeof(record));
}

std::string CustomStart(const char* groups, uint32_t groupNum) {
    orv::OrvCustStartEventInfo record;
    std::memset(&record, 0, sizeof(record));
    record.hostPid = kHostPid;
    record.procType = 1;
    record.eventType = orv::ORV_SUB_EVENT_CUST_START;
    record.groupNum = groupNum;
    std::strncpy(record.groupNameList, groups, sizeof(record.groupNameList) - 1);
    return Event(EVENT_CCPU_CTRL_MSG, orv::ORV_SUB_EVENT_CUST_START, sizeof(record), &record,
                 sizeof(record));
}

std::string LoadSo(const char* soName) {
    orv::OrvSubEventInfo record;
    std::memset(&record, 0, sizeof(record));
    record.hostPid = kHostPid;
    record.procType = 1;
    record.eventType = orv::ORV_SUB_EVENT_LOAD_SO;
    std::strncpy(record.payload, soName, sizeof(record.payload) - 1);
    return Event(EVENT_CCPU_CTRL_MSG, orv::ORV_SUB_EVENT_LOAD_SO, sizeof(record), &record,
                 sizeof(record));
}

std::string VfNotice(uint32_t subEventId, uint32_t vfId, uint32_t length = 16) {
    uint32_t words[4] = {0, vfId, 0, 0};
    return Event(EVENT_CCPU_CTRL_MSG, subEventId, length, words, sizeof(words));
}

std::vector<std::pair<std::string, std::string>> EventSeeds() {
    using orv::ORV_SUB_EVENT_ABNORMAL;
    using orv::ORV_SUB_EVENT_CLOSE;
    using orv::ORV_SUB_EVENT_START;
    return {
        {"start-report", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_START, 1, 123)},
        {"start-report-custom", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_START, 2, 124)},
        {"close-report", Record(ORV_SUB_EVENT_CLOSE, ORV_SUB_EVENT_CLOSE, 0, 125)},
        {"close-report-unknown-type", Record(ORV_SUB_EVENT_CLOSE, ORV_SUB_EVENT_CLOSE, 7, 126)},
        // A close report from pid 0xffffffff once had the daemon wait on, then kill, pid -1.
        {"close-report-pid-all", Record(ORV_SUB_EVENT_CLOSE, ORV_SUB_EVENT_CLOSE, 0, 0xffffffffu)},
        {"kernel-timeout", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_ABNORMAL, 1, 127)},
        {"kernel-timeout-custom", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_ABNORMAL, 2, 128)},
        {"custom-start", CustomStart("grp_a,grp_b", 2)},
        {"custom-start-then-load-so", CustomStart("", 0) + LoadSo("libcust_op.so")},
        {"load-so-without-custom", LoadSo("libcust_op.so")},
        {"other-host", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_START, 1, 130, 999)},
        {"short-record", Record(ORV_SUB_EVENT_START, ORV_SUB_EVENT_START, 1, 131, kHostPid, 127)},
        {"daemon-sub-event",
         Record(orv::ORV_SUB_EVENT_CLOSE_REQ, orv::ORV_SUB_EVENT_CLOSE_REQ, 1, 132)},
        {"other-event-id", Event(EVENT_CPU_TASK_MSG, 0, 0, "", 0)},
        {"vf-create", VfNotice(orv::ORV_SUB_EVENT_VF_CREATE, 3)},
        {"vf-create-then-destroy",
         VfNotice(orv::ORV_SUB_EVENT_VF_CREATE, 5) + VfNotice(orv::ORV_SUB_EVENT_VF_DESTROY, 5)},
        {"vf-destroy-unknown", VfNotice(orv::ORV_SUB_EVENT_VF_DESTROY, 9)},
        {"vf-create-bad-length", VfNotice(orv::ORV_SUB_EVENT_VF_CREATE, 3, 12)},
        {"vf-create-out-of-range", VfNotice(orv::ORV_SUB_EVENT_VF_CREATE, 17)},
    };
}

bool WriteSeeds(const std::filesystem::path& dir,
                const std::vector<std::pair<std::string, std::string>>& seeds) {
    std::filesystem::create_directories(dir);
    for (const auto& [name, bytes] : seeds) {
        std::ofstream file(dir / name, std::ios::binary | std::ios::trunc);
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!file) {
            std::fprintf(stderr, "orv-fuzz-seeds: cannot write %s\n", (dir / name).c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(
            stderr,
            "usage: orv-fuzz-seeds CORPUS_DIR   (writes CORPUS_DIR/hdc and CORPUS_DIR/event)\n");
        return 2;
    }
    std::filesystem::path root = argv[1];
    return WriteSeeds(root / "hdc", HdcSeeds()) && WriteSeeds(root / "event", EventSeeds()) ? 0 : 1;
}
