#include "emu/host/host_request.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <sstream>

#include "emu/host/host_link.h"

namespace orv::host {

long long Number(const std::string& text, const std::string& what) {
    char* end = nullptr;
    errno = 0;
    long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0) {
        throw UsageError{what + " takes a number, got '" + text + "'"};
    }
    return value;
}

int ResponseTypeOf(HDCMessage::MsgType type) {
    switch (type) {
        case HDCMessage::TEST_HDC_SEND:
            return HDCMessage::TEST_HDC_RSP;
        case HDCMessage::ORV_START_PROC_MSG:
        case HDCMessage::ORV_START_QS_MSG:
            return HDCMessage::ORV_START_PROC_RSP;
        case HDCMessage::ORV_CLOSE_PROC_MSG:
            return HDCMessage::ORV_CLOSE_PROC_RSP;
        case HDCMessage::ORV_UPDATE_PROIFILING_MSG:
            return HDCMessage::ORV_UPDATE_PROIFILING_RSP;
        case HDCMessage::ORV_CHECK_PACKAGE:
            return HDCMessage::ORV_CHECK_PACKAGE_RSP;
        default:
            return -1;
    }
}

Request BuildRequest(const std::string& command, const std::vector<std::string>& args,
                     uint32_t device) {
    Request request;
    HDCMessage& msg = request.msg;
    static const std::map<std::string, HDCMessage::MsgType> kTypes = {
        {"test", HDCMessage::TEST_HDC_SEND},
        {"start", HDCMessage::ORV_START_PROC_MSG},
        {"start-qs", HDCMessage::ORV_START_QS_MSG},
        {"close", HDCMessage::ORV_CLOSE_PROC_MSG},
        {"profiling", HDCMessage::ORV_UPDATE_PROIFILING_MSG},
        {"check-package", HDCMessage::ORV_CHECK_PACKAGE},
    };
    auto known = kTypes.find(command);
    bool typeGiven = false;
    if (known != kTypes.end()) {
        msg.set_type(known->second);
        typeGiven = true;
    } else if (command != "send") {
        msg.set_type(static_cast<HDCMessage::MsgType>(Number(command, "a request")));
        typeGiven = true;
    }
    msg.set_device_id(device);
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= args.size()) {
                throw UsageError{arg + " needs a value"};
            }
            return args[++i];
        };
        if (arg == "--type") {
            msg.set_type(static_cast<HDCMessage::MsgType>(Number(value(), arg)));
            typeGiven = true;
        } else if (arg == "--pid") {
            msg.mutable_proc_sign_pid()->set_proc_pid(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--sign") {
            msg.mutable_proc_sign_pid()->set_proc_sign(value());
        } else if (arg == "--device-id") {
            msg.set_device_id(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--real-device") {
            msg.set_real_device_id(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--vf") {
            msg.set_vf_id(static_cast<int32_t>(Number(value(), arg)));
        } else if (arg == "--rank-size") {
            msg.set_rank_size(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--profiling" || arg == "--mode") {
            msg.set_profiling_mode(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--zarn") {
            msg.set_start_zarn(true);
        } else if (arg == "--cp") {
            msg.set_start_cp(true);
        } else if (arg == "--check-code") {
            msg.set_check_code(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--log-level") {
            msg.mutable_log_level()->set_log_level(value());
        } else if (arg == "--device-mode") {
            msg.set_device_mode(static_cast<uint32_t>(Number(value(), arg)));
        } else if (arg == "--group") {
            msg.mutable_qs_init_group_name()->set_qs_init_group_name(value());
        } else if (arg == "--wait") {
            request.waitType = static_cast<int>(Number(value(), arg));
        } else if (arg == "--no-wait") {
            request.noWait = true;
        } else if (arg == "--drop") {
            request.drop = true;
        } else {
            throw UsageError{"unknown field " + arg};
        }
    }
    if (!typeGiven) {
        throw UsageError{"send needs --type N"};
    }
    if (msg.type() == HDCMessage::TEST_HDC_SEND) {
        SetHostVersionInfo(&msg);
    }
    if (request.waitType < 0) {
        request.waitType = ResponseTypeOf(msg.type());
    }
    return request;
}

std::vector<std::string> Words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

long long TakeOption(std::vector<std::string>* words, const std::string& name, long long fallback) {
    for (size_t i = 0; i + 1 < words->size(); ++i) {
        if ((*words)[i] == name) {
            long long value = Number((*words)[i + 1], name);
            words->erase(words->begin() + static_cast<long>(i),
                         words->begin() + static_cast<long>(i) + 2);
            return value;
        }
    }
    return fallback;
}

}  // namespace orv::host
