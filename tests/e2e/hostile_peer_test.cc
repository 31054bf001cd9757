// Peers that misbehave, played as an attacker would against a booted card: a
// link that starts several host processes, records forged by a process that
// is none of the daemon's children, a host that never reads its replies, a
// custom process that never reports, a sub-process that floods its session,
// over-long strings, a child whose group grant failed. After each, the
// daemon still serves everyone else and stops promptly on SIGTERM.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <arpa/inet.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emu/host/host_link.h"
#include "tests/support/test_support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::EmuCtl;
using test::Host;
using test::SandboxRun;
using test::StandinRecord;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kCompute = 1;
constexpr uint32_t kCustom = 2;

class HostilePeerTest : public ::testing::Test {
  protected:
    void TearDown() override {
        if (!sandbox_.Running()) {
            return;
        }
        // A hang anywhere would keep the daemon from its orderly stop.
        auto asked = std::chrono::steady_clock::now();
        EXPECT_EQ(sandbox_.Stop(20s), 0) << "the sandbox did not stop";
        auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - asked);
        RecordProperty("stop_ms", std::to_string(took.count()));
    }

    void Boot(const std::vector<std::string>& args = {}) { ASSERT_TRUE(sandbox_.Boot(args)); }

    void Standin(const std::string& kind, const std::string& behaviour, int delayMs = 0) {
        std::string output;
        ASSERT_EQ(EmuCtl(sandbox_, {"standin", kind, behaviour, std::to_string(delayMs)}, &output),
                  0)
            << output;
    }

    std::unique_ptr<host::HostLink> Link(uint32_t device = 0) {
        return test::HoldLink(sandbox_, device);
    }

    static HDCMessage Request(HDCMessage::MsgType type, uint32_t hostPid) {
        HDCMessage request;
        request.set_type(type);
        request.mutable_proc_sign_pid()->set_proc_pid(hostPid);
        request.set_start_cp(true);
        return request;
    }

    // Sends a request and waits for the answer of `replyType`; its code, or -1.
    static int Ask(host::HostLink& link, const HDCMessage& request, HDCMessage::MsgType replyType,
                   std::chrono::milliseconds timeout = 10s) {
        HDCMessage reply;
        if (!link.Send(request) ||
            link.Await(replyType, &reply, timeout) != host::Received::kMessage) {
            return -1;
        }
        return static_cast<int>(reply.orv_rsp_code());
    }

    // A whole start and close by a fresh host on its own link: the daemon
    // still serves newcomers.
    void NewcomerIsServed(uint32_t hostPid) {
        auto link = Link();
        ASSERT_NE(link, nullptr);
        EXPECT_EQ(Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, hostPid),
                      HDCMessage::ORV_START_PROC_RSP),
                  0);
        EXPECT_EQ(Ask(*link, Request(HDCMessage::ORV_CLOSE_PROC_MSG, hostPid),
                      HDCMessage::ORV_CLOSE_PROC_RSP),
                  0);
    }

    std::vector<StandinRecord> OfKind(uint32_t kind) {
        return test::StandinRecordsOfKind(sandbox_, kind);
    }
    bool Running(const std::string& name) { return sandbox_.Enter({"pidof", name}) == 0; }

    // Runs orv-emu-submit inside the sandbox: a local process of the card
    // that is none of the daemon's children.
    int SubmitAsStranger(const std::vector<std::string>& args, std::string* output = nullptr) {
        std::vector<std::string> command = {test::BinDir() + "/orv-emu-submit"};
        command.insert(command.end(), args.begin(), args.end());
        return sandbox_.Enter(command, output);
    }

    SandboxRun sandbox_;
};

// One link may carry requests for several host processes; its end is the end
// of every session it started, not only of the last one it named.
TEST_F(HostilePeerTest, ALinkThatStartedSeveralHostProcessesEndsThemAllWhenItDrops) {
    Boot({"--env", "AICPU_MAX_NUM=3"});
    auto link = Link();
    ASSERT_NE(link, nullptr);
    for (uint32_t hostPid : {501u, 502u, 503u}) {
        ASSERT_EQ(Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, hostPid),
                      HDCMessage::ORV_START_PROC_RSP),
                  0);
    }
    ASSERT_EQ(OfKind(kCompute).size(), 3u);
    link->Drop();
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_runner"); }, 10s))
        << "a sub-process outlived its session";
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("HDC session[1] that ended had also started hostPid[502]", 5s));
    // The quota of three is free again.
    for (uint32_t hostPid : {601u, 602u, 603u}) {
        NewcomerIsServed(hostPid);
    }
}

// Records from a process that did not start as a sub-process of the session
// they name change nothing, whatever they claim.
TEST_F(HostilePeerTest, ARecordFromAProcessThatIsNoSubProcessOfItsSessionChangesNothing) {
    Boot();
    auto victim = Link();
    ASSERT_NE(victim, nullptr);
    ASSERT_EQ(
        Ask(*victim, Request(HDCMessage::ORV_START_PROC_MSG, 700), HDCMessage::ORV_START_PROC_RSP),
        0);
    ASSERT_EQ(OfKind(kCompute).size(), 1u);
    const std::string compute = std::to_string(OfKind(kCompute)[0].pid);
    struct Forgery {
        std::vector<std::string> args;
        std::string refusal;
    };
    const Forgery forgeries[] = {
        // A kernel time-out claimed by the forger itself.
        {{"0", "--host-pid", "700", "--event-type", "4", "--proc-type", "1"},
         "comes from none of that session's"},
        // A close report naming the victim's compute process.
        {{"1", "--host-pid", "700", "--claim-pid", compute},
         "names sender[" + compute + "] but comes from pid["},
        // A start report, and a custom-process request, in the forger's name.
        {{"0", "--host-pid", "700"}, "comes from none of that session's"},
        {{"2", "--host-pid", "700"}, "comes from none of that session's"},
    };
    for (const Forgery& forgery : forgeries) {
        std::string output;
        ASSERT_EQ(SubmitAsStranger(forgery.args, &output), 0) << output;
        EXPECT_TRUE(sandbox_.Log().WaitFor(forgery.refusal, 5s)) << forgery.refusal;
    }
    // A forged close report would have the compute process killed after the
    // close wait of about five seconds.
    std::this_thread::sleep_for(6s);
    EXPECT_TRUE(Running("aicpu_runner"));
    EXPECT_FALSE(sandbox_.Log().Contains("kernel execute time out"));
    EXPECT_FALSE(sandbox_.Log().Contains("need to be killed"));
    EXPECT_THAT(OfKind(kCustom), IsEmpty());
    // The victim's session and link are whole.
    EXPECT_EQ(Ask(*victim, Request(HDCMessage::ORV_UPDATE_PROIFILING_MSG, 700),
                  HDCMessage::ORV_UPDATE_PROIFILING_RSP),
              0);
}

// Only the driver announces VFs; the same notice from an ordinary process is
// refused and acknowledged to nobody.
TEST_F(HostilePeerTest, AVfNoticeFromAnOrdinaryProcessIsRefused) {
    Boot({"--vfs", "2"});
    const std::string trusted = sandbox_.Env()["ORV_TRUSTED_DIR_0"] + "/vfid2";
    std::string output;
    ASSERT_EQ(SubmitAsStranger({"101", "--length", "16", "--word4", "2"}, &output), 0) << output;
    EXPECT_TRUE(sandbox_.Log().WaitFor("driver notice sub-event[101] from pid[", 5s));
    EXPECT_FALSE(sandbox_.Log().Contains("destroy_vf_config.sh 2"));
    EXPECT_EQ(access(trusted.c_str(), F_OK), 0) << "the VF was torn down";
    // The driver's own notice still works.
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "2"}, &output), 0) << output;
    EXPECT_THAT(output, HasSubstr("0\n"));
}

// A raw link that sends requests and never reads what comes back.
class DeafHost {
  public:
    explicit DeafHost(const std::string& socketPath) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, socketPath.c_str(), sizeof(addr.sun_path) - 1);
        connected_ =
            fd_ >= 0 && connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    }
    ~DeafHost() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    bool Connected() const { return connected_; }

    // Sends `msg` until the daemon takes no more (it stopped reading because
    // its replies are not read, and ended the link), for 10 s without
    // progress, or `limit` times; how many went. A slow daemon (a sanitized
    // build on a loaded machine) may leave the socket full for a while before
    // it reads on.
    size_t Flood(const HDCMessage& msg, size_t limit) {
        std::string payload = msg.SerializeAsString();
        uint32_t length = htonl(static_cast<uint32_t>(payload.size()));
        std::string frame(reinterpret_cast<const char*>(&length), sizeof(length));
        frame += payload;
        (void)fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
        size_t sent = 0;
        size_t offset = 0;  // into the frame being sent
        int idle = 0;
        while (sent < limit && idle < 200) {
            ssize_t n = send(fd_, frame.data() + offset, frame.size() - offset, MSG_NOSIGNAL);
            if (n > 0) {
                idle = 0;
                offset += static_cast<size_t>(n);
                if (offset == frame.size()) {
                    offset = 0;
                    ++sent;
                }
            } else if (n < 0 && errno == EAGAIN) {
                ++idle;
                std::this_thread::sleep_for(50ms);
            } else {
                break;
            }
        }
        return sent;
    }

  private:
    int fd_ = -1;
    bool connected_ = false;
};

// A host whose replies pile up unread: whoever would write to it is held up
// no longer than a moment, and its link then ends. Meanwhile its collective
// service dies, which has the monitor drop that very link.
TEST_F(HostilePeerTest, AHostThatNeverReadsHoldsUpNobodyElse) {
    Boot();
    // The collective service dies well after the host's replies have backed
    // up (2 s each at most, even for a sanitized daemon on a loaded machine):
    // its death would otherwise end the link before the deaf host is found out.
    Standin("zarn", "crash", 12000);
    DeafHost deaf(sandbox_.Env()["ORV_HDC_SOCKET_0"]);
    ASSERT_TRUE(deaf.Connected());
    HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 800);
    start.set_start_zarn(true);
    ASSERT_EQ(deaf.Flood(start, 1), 1u);
    ASSERT_TRUE(sandbox_.Log().WaitFor("[OrvEVENT] #### Start Rsp ORV->FMK", 10s));
    Standin("zarn", "normal");
    HDCMessage profiling = Request(HDCMessage::ORV_UPDATE_PROIFILING_MSG, 800);
    profiling.mutable_proc_sign_pid()->set_proc_sign(std::string(100, 's'));
    EXPECT_GT(deaf.Flood(profiling, 200000), 0u);
    EXPECT_TRUE(sandbox_.Log().WaitFor("the host does not read; its link is ended", 15s));
    for (uint32_t hostPid : {801u, 802u}) {
        NewcomerIsServed(hostPid);
    }
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_runner"); }, 10s))
        << "the deaf host's session lives on";
}

// The compute process asks for the custom process, which never reports its
// start: the request stops waiting when its session closes, and the session's
// end (its close, or a kernel time-out dropped on an event worker) completes.
TEST_F(HostilePeerTest, ACustomProcessThatNeverReportsHoldsUpNoSessionsEnd) {
    Boot();
    Standin("compute", "ask-custom", 100);
    Standin("custom", "no-start");
    {
        auto link = Link();
        ASSERT_NE(link, nullptr);
        ASSERT_EQ(Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, 900),
                      HDCMessage::ORV_START_PROC_RSP),
                  0);
        // Closed once it listens: any sooner, the scheduler refuses the request.
        ASSERT_TRUE(test::WaitFor(
            [&] { return OfKind(kCustom).size() == 1 && OfKind(kCustom)[0].Has("listening"); },
            10s));
        EXPECT_EQ(Ask(*link, Request(HDCMessage::ORV_CLOSE_PROC_MSG, 900),
                      HDCMessage::ORV_CLOSE_PROC_RSP),
                  0);
        EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_custom_runner"); }, 10s));
    }
    // The same, ended by the compute process's kernel time-out, which the
    // event worker of device 0 handles.
    auto link = Link();
    ASSERT_NE(link, nullptr);
    ASSERT_EQ(
        Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, 901), HDCMessage::ORV_START_PROC_RSP),
        0);
    ASSERT_TRUE(test::WaitFor([&] { return OfKind(kCustom).size() == 2; }, 10s));
    std::vector<StandinRecord> computes = OfKind(kCompute);
    pid_t compute =
        std::max_element(computes.begin(), computes.end(), [](const auto& a, const auto& b) {
            return a.pid < b.pid;
        })->pid;
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_,
                     {"inject-event", "0", "--host-pid", "901", "--event-type", "4", "--proc-type",
                      "1", "--src-pid", std::to_string(compute)},
                     &output),
              0)
        << output;
    EXPECT_TRUE(sandbox_.Log().WaitFor("kernel execute time out.", 5s));
    EXPECT_TRUE(test::WaitFor([&] { return !Running("aicpu_custom_runner"); }, 10s));
    // Device 0's events are still handled: a newcomer's start report answers.
    Standin("compute", "normal");
    NewcomerIsServed(902);
}

// A sub-process gone wrong floods its session with reports: each is handled
// on a thread of its own that is let go when done, and no second answer goes
// to the host. (The soak run floods with far more.)
TEST_F(HostilePeerTest, AFloodOfReportsFromASubProcessKeepsTheDaemonBounded) {
    // Error lines only: the flood would otherwise write a line for each step.
    Boot({"--env", "ORV_EMU_LOG_LEVEL=error"});
    pid_t daemon = test::DaemonPid(sandbox_);
    const size_t idleThreads = test::ThreadCount(daemon);
    Standin("compute", "flood", 5000);
    auto link = Link();
    ASSERT_NE(link, nullptr);
    ASSERT_EQ(
        Ask(*link, Request(HDCMessage::ORV_START_PROC_MSG, 1000), HDCMessage::ORV_START_PROC_RSP),
        0);
    size_t most = 0;
    size_t accepted = 0;
    ASSERT_TRUE(test::WaitFor(
        [&] {
            most = std::max(most, test::ThreadCount(daemon));
            std::vector<StandinRecord> computes = OfKind(kCompute);
            for (const std::string& note :
                 computes.size() == 1 ? computes[0].notes : std::vector<std::string>{}) {
                if (std::sscanf(note.c_str(), "flooded 5000 accepted %zu", &accepted) == 1) {
                    return true;
                }
            }
            return false;
        },
        120s, 50ms));
    // The card queues at most 1,024 of them at a time; whatever it took, the
    // daemon works through (each answers nothing), then serves the others again.
    ASSERT_GE(accepted, 1024u);
    ASSERT_TRUE(test::WaitFor(
        [&] {
            most = std::max(most, test::ThreadCount(daemon));
            return sandbox_.Log().Count("answers no start request, no second answer") == accepted;
        },
        120s, 100ms));
    EXPECT_LE(most, idleThreads + 80) << "threads grew with the flood";
    EXPECT_EQ(Ask(*link, Request(HDCMessage::ORV_UPDATE_PROIFILING_MSG, 1000),
                  HDCMessage::ORV_UPDATE_PROIFILING_RSP),
              0);
    HDCMessage extra;
    EXPECT_EQ(link->Next(&extra, 500ms), host::Received::kTimeout)
        << "a second answer: " << extra.ShortDebugString();
    // The newcomer's compute process is an honest one: a flooding one could
    // fill the card's queue before its own close report.
    Standin("compute", "normal");
    NewcomerIsServed(1001);
}

// Strings a host sends are bounded; a request over a bound is answered with
// code 1 and says which.
TEST_F(HostilePeerTest, OverlongStringsAreRefusedWithCodeOne) {
    Boot();
    auto link = Link();
    ASSERT_NE(link, nullptr);
    struct Case {
        HDCMessage::MsgType type;
        HDCMessage::MsgType reply;
        const char* field;
    };
    const Case cases[] = {
        {HDCMessage::ORV_START_PROC_MSG, HDCMessage::ORV_START_PROC_RSP, "proc_sign"},
        {HDCMessage::ORV_START_QS_MSG, HDCMessage::ORV_START_PROC_RSP, "qs_init_group_name"},
        {HDCMessage::ORV_CLOSE_PROC_MSG, HDCMessage::ORV_CLOSE_PROC_RSP, "log_level"},
        {HDCMessage::ORV_UPDATE_PROIFILING_MSG, HDCMessage::ORV_UPDATE_PROIFILING_RSP, "proc_sign"},
    };
    for (const Case& c : cases) {
        HDCMessage request = Request(c.type, 1100);
        const std::string huge(100000, 'A');
        if (std::string(c.field) == "proc_sign") {
            request.mutable_proc_sign_pid()->set_proc_sign(huge);
        } else if (std::string(c.field) == "log_level") {
            request.mutable_log_level()->set_log_level(huge);
        } else {
            request.mutable_qs_init_group_name()->set_qs_init_group_name(huge);
        }
        HDCMessage reply;
        ASSERT_TRUE(link->Send(request));
        ASSERT_EQ(link->Await(c.reply, &reply, 5s), host::Received::kMessage) << c.field;
        EXPECT_EQ(reply.orv_rsp_code(), 1u);
        EXPECT_THAT(reply.error_info().message(),
                    HasSubstr(std::string(c.field) + " is 100000 bytes long"));
    }
    EXPECT_THAT(OfKind(kCompute), IsEmpty());
    EXPECT_FALSE(sandbox_.Log().Contains(std::string(1000, 'A')));
}

// The grant of its buffer group fails: the queue scheduler runs on, as it
// always has, but is known to its session and ends with it.
TEST_F(HostilePeerTest, AChildWhoseGroupGrantFailedStillEndsWithItsSession) {
    Boot({"--env", "STARTUP_QS=1"});
    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"fail", "halGrpAddProc", "5", "1"}, &output), 0) << output;
    auto link = Link();
    ASSERT_NE(link, nullptr);
    ASSERT_TRUE(link->Send(Request(HDCMessage::ORV_START_QS_MSG, 1200)));
    EXPECT_TRUE(sandbox_.Log().WaitFor("[OrvDaemon]Fail to add dstPid[", 5s));
    ASSERT_TRUE(test::WaitFor([&] { return Running("queue_runner"); }, 5s));
    link->Drop();
    EXPECT_TRUE(test::WaitFor([&] { return !Running("queue_runner"); }, 10s))
        << "it outlived its session";
}

// Sub-processes run user code: none may find a descriptor of the daemon's.
TEST_F(HostilePeerTest, NoDescriptorOfTheDaemonLeaksIntoASubProcess) {
    Boot({"--env", "STARTUP_QS=1", "--vfs", "1"});
    Standin("compute", "ask-custom", 100);
    auto link = Link();
    ASSERT_NE(link, nullptr);
    HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 1300);
    start.set_start_zarn(true);
    ASSERT_EQ(Ask(*link, start, HDCMessage::ORV_START_PROC_RSP), 0);
    auto queueLink = Link();
    ASSERT_NE(queueLink, nullptr);
    ASSERT_EQ(Ask(*queueLink, Request(HDCMessage::ORV_START_QS_MSG, 1301),
                  HDCMessage::ORV_START_PROC_RSP),
              0);
    ASSERT_TRUE(test::WaitFor([&] { return OfKind(kCustom).size() == 1; }, 10s));
    std::vector<StandinRecord> records = test::StandinRecords(sandbox_);
    ASSERT_EQ(records.size(), 4u);
    for (const StandinRecord& record : records) {
        EXPECT_THAT(record.inherited, IsEmpty()) << "kind " << record.kind;
    }
}

// Local processes that open links and leave a frame half sent, or send
// nothing: each holds at most its share of a device's links, the last slots
// stay for processes that hold none, the daemon holds only what arrived, and
// each link ends at its time-out.
TEST_F(HostilePeerTest, HalfSentLinksAreCappedPerProcessCostWhatArrivedAndEndInTime) {
    // The links must all be open before the first of them times out, also in
    // a sanitized build on a loaded machine.
    Boot({"--env", "ORV_EMU_HDC_FIRST_FRAME_MS=2000", "--env",
          "ORV_EMU_HDC_PARTIAL_FRAME_MS=20000"});
    const pid_t daemon = test::DaemonPid(sandbox_);
    const size_t residentBefore = test::ResidentKb(daemon);
    // A link that sends nothing ends at its first-frame time-out.
    auto silent = Link();
    ASSERT_NE(silent, nullptr);
    HDCMessage nothing;
    EXPECT_EQ(silent->Next(&nothing, 10s), host::Received::kClosed);
    EXPECT_TRUE(sandbox_.Log().WaitFor("sent no request within its first-frame time-out", 5s));
    silent.reset();
    // Four processes of the card, each with 300 links that announce a small
    // frame and send 16 bytes of it, and a fifth whose 300 links announce
    // 1 MiB each.
    std::vector<std::string> reports(5);
    std::vector<std::thread> attackers;
    for (size_t i = 0; i < reports.size(); ++i) {
        std::string declared = i < 4 ? "4000" : "1048576";
        attackers.emplace_back([this, &report = reports[i], declared] {
            sandbox_.Enter({test::BinDir() + "/orv-host", "links", "300", "--declare", declared,
                            "--send", "16", "--hold", "22000"},
                           &report);
        });
    }
    EXPECT_TRUE(
        sandbox_.Log().WaitFor("refused: it holds 256 connections, the most one process may", 20s));
    EXPECT_TRUE(sandbox_.Log().WaitFor("are kept for processes that hold none", 20s));
    EXPECT_TRUE(sandbox_.Log().WaitFor("its big frame found no room in the frame budget", 20s));
    // While they hold their links: a host that holds none is served, and the
    // daemon holds far less than the megabyte each link announced.
    NewcomerIsServed(1500);
    if (test::kResidentSizeMeaningful) {
        EXPECT_LT(test::ResidentKb(daemon), residentBefore + 64 * 1024);
    }
    for (std::thread& attacker : attackers) {
        attacker.join();
    }
    size_t ended = 0;
    for (const std::string& report : reports) {
        size_t opened = 0;
        size_t refused = 0;
        size_t endedHere = 0;
        ASSERT_EQ(std::sscanf(report.c_str(), "[links] %zu opened, %zu refused at once, %zu ended",
                              &opened, &refused, &endedHere),
                  3)
            << report;
        EXPECT_LE(endedHere, 256u) << report;
        ended += endedHere;
    }
    EXPECT_LE(ended, 1024u - 64u + reports.size()) << "the reserve was taken";
    EXPECT_TRUE(sandbox_.Log().Contains(
        "left a frame half sent for longer than the partial-frame time-out"));
    NewcomerIsServed(1501);
}

// A frame that would parse into far more than its size (a version handshake
// with hundreds of thousands of features), or a handshake announcing more
// features than the transport keeps, ends its link unparsed and unkept.
TEST_F(HostilePeerTest, AVersionHandshakeBeyondItsBoundsEndsItsLink) {
    Boot();
    const pid_t daemon = test::DaemonPid(sandbox_);
    const size_t peakBefore = test::PeakResidentKb(daemon);
    struct Case {
        size_t features;
        size_t bytesEach;
        std::string refusal;
    };
    const Case cases[] = {
        {300000, 1, "it holds more than 4096 fields"},
        {300, 10, "announces 300 features in 3000 bytes, more than 256 in 16384"},
        {2, 16000, "announces 2 features in 32000 bytes, more than 256 in 16384"},
    };
    for (const Case& c : cases) {
        HDCMessage handshake;
        handshake.set_type(HDCMessage::TEST_HDC_SEND);
        auto* list = handshake.mutable_version_info()->add_feature_list();
        list->set_msg_type(HDCMessage::ORV_START_PROC_MSG);
        for (size_t i = 0; i < c.features; ++i) {
            list->add_feature(std::string(c.bytesEach, 'f'));
        }
        auto link = Link();
        ASSERT_NE(link, nullptr);
        ASSERT_TRUE(link->Send(handshake));
        HDCMessage reply;
        EXPECT_EQ(link->Next(&reply, 10s), host::Received::kClosed) << c.refusal;
        EXPECT_TRUE(sandbox_.Log().WaitFor(c.refusal, 5s));
    }
    if (test::kResidentSizeMeaningful) {
        EXPECT_LT(test::PeakResidentKb(daemon), peakBefore + 16 * 1024);
    }
    // An honest handshake is answered as ever.
    std::string output;
    EXPECT_EQ(Host(sandbox_, {"test"}, &output), 0) << output;
    NewcomerIsServed(1510);
}

// A start names its VF: one the driver never created, or has destroyed, gets
// code 1 and why, before anything is forked or its quota is touched.
TEST_F(HostilePeerTest, AStartOnAVfThatDoesNotExistIsRefusedBeforeAnythingIsMade) {
    Boot({"--env", "AICPU_MAX_NUM=1"});
    auto startOnVf5 = [this](uint32_t hostPid, HDCMessage* reply) {
        auto link = Link();
        HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, hostPid);
        start.set_vf_id(5);
        return link != nullptr && link->Send(start) &&
               link->Await(HDCMessage::ORV_START_PROC_RSP, reply, 10s) == host::Received::kMessage;
    };
    HDCMessage reply;
    ASSERT_TRUE(startOnVf5(1600, &reply));
    EXPECT_EQ(reply.orv_rsp_code(), 1u);
    EXPECT_THAT(reply.error_info().message(),
                HasSubstr("vfId[5] does not exist: the driver has not created it"));
    EXPECT_TRUE(sandbox_.Log().Contains("for hostPid[1600] on deviceId[0] vfId[5] refused"));
    EXPECT_THAT(OfKind(kCompute), IsEmpty());

    std::string output;
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "create", "5"}, &output), 0) << output;
    ASSERT_THAT(output, HasSubstr("0\n"));
    {
        // The quota of one is whole: the refused start took nothing of it.
        auto link = Link();
        ASSERT_NE(link, nullptr);
        HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 1601);
        start.set_vf_id(5);
        ASSERT_EQ(Ask(*link, start, HDCMessage::ORV_START_PROC_RSP), 0);
        HDCMessage close = Request(HDCMessage::ORV_CLOSE_PROC_MSG, 1601);
        close.set_vf_id(5);
        ASSERT_EQ(Ask(*link, close, HDCMessage::ORV_CLOSE_PROC_RSP), 0);
    }
    ASSERT_EQ(EmuCtl(sandbox_, {"vf", "destroy", "5"}, &output), 0) << output;
    ASSERT_TRUE(startOnVf5(1602, &reply));
    EXPECT_EQ(reply.orv_rsp_code(), 1u);
}

// A queue scheduler is granted only a buffer group of its own tenant (device
// and VF), or one of the card's own, which every tenant shares.
TEST_F(HostilePeerTest, AQueueSchedulerIsGrantedOnlyAGroupOfItsOwnTenant) {
    Boot({"--vfs", "1,2"});
    std::string output;
    ASSERT_EQ(
        EmuCtl(sandbox_, {"group", "create", "VF2GRP", "--device", "0", "--vf", "2"}, &output), 0)
        << output;
    ASSERT_EQ(EmuCtl(sandbox_, {"group", "create", "SHARED"}, &output), 0) << output;
    struct Case {
        uint32_t hostPid;
        int32_t vf;
        const char* group;
        uint32_t code;
    };
    const Case cases[] = {
        {1700, 1, "VF2GRP", 1},
        {1701, 2, "VF2GRP", 0},
        {1702, 1, "SHARED", 0},
    };
    std::vector<std::unique_ptr<host::HostLink>> links;
    for (const Case& c : cases) {
        links.push_back(Link());
        ASSERT_NE(links.back(), nullptr);
        HDCMessage start = Request(HDCMessage::ORV_START_QS_MSG, c.hostPid);
        start.set_vf_id(c.vf);
        start.mutable_qs_init_group_name()->set_qs_init_group_name(c.group);
        HDCMessage reply;
        ASSERT_TRUE(links.back()->Send(start));
        ASSERT_EQ(links.back()->Await(HDCMessage::ORV_START_PROC_RSP, &reply, 10s),
                  host::Received::kMessage);
        EXPECT_EQ(reply.orv_rsp_code(), c.code) << c.hostPid;
        if (c.code != 0) {
            EXPECT_THAT(reply.error_info().message(),
                        HasSubstr("buffer group [VF2GRP] belongs to device 0 VF 2, not to device "
                                  "0 VF 1"));
        }
    }
    std::vector<StandinRecord> queues = OfKind(3);
    ASSERT_EQ(queues.size(), 2u);
    std::vector<std::string> granted;
    for (const StandinRecord& queue : queues) {
        granted.insert(granted.end(), queue.groups.begin(), queue.groups.end());
    }
    EXPECT_THAT(granted, ::testing::UnorderedElementsAre("VF2GRP 15", "SHARED 15"));
}

// A kernel time-out's clean-up, which may wait seconds for a start worker,
// runs off the device's event worker: another session's reports on that
// device are handled meanwhile.
TEST_F(HostilePeerTest, AKernelTimeOutsCleanUpHoldsUpNoOtherSessionsEvents) {
    Boot({"--env", "AICPU_ADD_BUFFERGROUP=1"});
    Standin("zarn", "kernel-timeout", 0);
    std::string output;
    // The first session's compute start worker waits 5 s for the driver.
    ASSERT_EQ(EmuCtl(sandbox_, {"slow", "halGrpQuery", "5000", "1"}, &output), 0) << output;
    auto first = Link();
    ASSERT_NE(first, nullptr);
    HDCMessage start = Request(HDCMessage::ORV_START_PROC_MSG, 1800);
    start.set_start_zarn(true);
    ASSERT_TRUE(first->Send(start));
    ASSERT_TRUE(sandbox_.Log().WaitFor("] type[4]", 10s)) << "no kernel time-out came";
    // An event of device 0 right after it is handled at once, while the
    // clean-up waits; so are another session's reports.
    ASSERT_EQ(EmuCtl(sandbox_, {"inject-event", "3"}, &output), 0) << output;
    auto second = Link();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(
        Ask(*second, Request(HDCMessage::ORV_START_PROC_MSG, 1801), HDCMessage::ORV_START_PROC_RSP),
        0);
    ASSERT_TRUE(sandbox_.Log().WaitFor("fmkPid[1800] rankSize[0] AbnormalMsgProc begin.", 15s));
    std::string missing;
    EXPECT_TRUE(sandbox_.Log().InOrder(
        {"record of sub-event[3] names sender", "fmkPid[1800] rankSize[0] AbnormalMsgProc begin."},
        &missing))
        << "the event waited for the first session's clean-up: " << missing;
}
}  // namespace
}  // namespace orv
