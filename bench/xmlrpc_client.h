// A minimal XML-RPC client over HTTP/1.1, enough to drive a process
// supervisor from the benchmarks: one persistent connection to a Unix socket
// or a TCP port of 127.0.0.1, calls with string, integer and boolean
// arguments, and replies parsed into a small value tree. A fault is an error.
#ifndef ORV_BENCH_XMLRPC_CLIENT_H
#define ORV_BENCH_XMLRPC_CLIENT_H

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace orv::bench {

// One XML-RPC value: a scalar (its text and type name), an array or a struct.
struct XmlRpcValue {
    enum class Kind { kScalar, kArray, kStruct };
    Kind kind = Kind::kScalar;
    std::string type = "string";  // of a scalar: string, int, i4, boolean, double, ...
    std::string text;             // of a scalar, entities decoded
    std::vector<XmlRpcValue> items;
    std::map<std::string, XmlRpcValue> members;

    static XmlRpcValue String(const std::string& s);
    static XmlRpcValue Int(int64_t i);
    static XmlRpcValue Bool(bool b);

    bool IsTrue() const { return kind == Kind::kScalar && type == "boolean" && text == "1"; }
    // The member `name` of a struct, or an empty string value when absent.
    const XmlRpcValue& Member(const std::string& name) const;
};

// Parses a `methodResponse` document: its one value, or a fault's code and
// string in `error` (false).
bool ParseMethodResponse(const std::string& body, XmlRpcValue* result, std::string* error);
// Builds a `methodCall` document.
std::string BuildMethodCall(const std::string& method, const std::vector<XmlRpcValue>& params);

class XmlRpcClient {
  public:
    // `endpoint` is a Unix socket's path (starting with '/') or a port of 127.0.0.1.
    explicit XmlRpcClient(std::string endpoint,
                          std::chrono::milliseconds timeout = std::chrono::seconds(30));
    ~XmlRpcClient();
    XmlRpcClient(const XmlRpcClient&) = delete;
    XmlRpcClient& operator=(const XmlRpcClient&) = delete;

    // Calls `method` and waits for its reply; false with `error` set on a
    // fault, a transport failure or a reply that does not parse. Connects (or
    // reconnects, when the server closed the last connection) as needed.
    bool Call(const std::string& method, const std::vector<XmlRpcValue>& params,
              XmlRpcValue* result, std::string* error);
    // Opens the connection now, so that the first call's time holds no connect.
    bool Connect(std::string* error);
    void Close();

  private:
    bool SendAll(const std::string& data, std::string* error);
    bool ReadResponse(std::string* body, bool* keepAlive, std::string* error);
    // Reads more bytes into buffer_; false on end of stream, error or time-out.
    bool Fill(std::chrono::steady_clock::time_point deadline, std::string* error);

    const std::string endpoint_;
    const std::chrono::milliseconds timeout_;
    int fd_ = -1;
    std::string buffer_;  // bytes received and not consumed yet
};

}  // namespace orv::bench

#endif  // ORV_BENCH_XMLRPC_CLIENT_H
