#include "bench/xmlrpc_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orv::bench {

namespace {

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<') {
            out += "&lt;";
        } else if (c == '>') {
            out += "&gt;";
        } else if (c == '&') {
            out += "&amp;";
        } else {
            out += c;
        }
    }
    return out;
}

std::string Unescape(const std::string& text) {
    static const std::pair<const char*, char> kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        if (text[i] != '&') {
            out += text[i++];
            continue;
        }
        size_t semicolon = text.find(';', i);
        bool decoded = false;
        for (const auto& [entity, c] : kEntities) {
            if (text.compare(i, std::strlen(entity), entity) == 0) {
                out += c;
                i += std::strlen(entity);
                decoded = true;
                break;
            }
        }
        if (!decoded && semicolon != std::string::npos && i + 2 < semicolon && text[i + 1] == '#') {
            bool hex = text[i + 2] == 'x';
            long code = std::strtol(text.c_str() + i + (hex ? 3 : 2), nullptr, hex ? 16 : 10);
            out += code > 0 && code < 128 ? static_cast<char>(code) : '?';
            i = semicolon + 1;
            decoded = true;
        }
        if (!decoded) {
            out += text[i++];
        }
    }
    return out;
}

// A cursor over a reply document that reads it tag by tag.
class Reader {
  public:
    explicit Reader(const std::string& text) : text_(text) {}

    void SkipSpace() {
        while (pos_ < text_.size() && std::strchr(" \t\r\n", text_[pos_]) != nullptr) {
            ++pos_;
        }
    }
    // Skips the XML declaration and comments.
    void SkipProlog() {
        for (;;) {
            SkipSpace();
            if (text_.compare(pos_, 2, "<?") == 0) {
                pos_ = Past("?>");
            } else if (text_.compare(pos_, 4, "<!--") == 0) {
                pos_ = Past("-->");
            } else {
                return;
            }
        }
    }
    // The name of the next tag ("/name" for an end tag, "name/" for an empty
    // one), after skipping white space; empty when there is none.
    std::string Tag() {
        SkipSpace();
        if (pos_ >= text_.size() || text_[pos_] != '<') {
            return std::string();
        }
        size_t end = text_.find('>', pos_);
        if (end == std::string::npos) {
            return std::string();
        }
        std::string tag = text_.substr(pos_ + 1, end - pos_ - 1);
        size_t space = tag.find_first_of(" \t\r\n");
        if (space != std::string::npos) {  // attributes are not used by XML-RPC
            tag = tag.substr(0, space) + (tag.back() == '/' ? "/" : "");
        }
        pos_ = end + 1;
        return tag;
    }
    bool Expect(const std::string& tag) { return Tag() == tag; }
    bool PeekEndTag() {
        SkipSpace();
        return text_.compare(pos_, 2, "</") == 0;
    }
    // The raw text up to the next '<'.
    std::string Text() {
        size_t end = text_.find('<', pos_);
        end = end == std::string::npos ? text_.size() : end;
        std::string out = text_.substr(pos_, end - pos_);
        pos_ = end;
        return out;
    }
    size_t Position() const { return pos_; }
    void Seek(size_t pos) { pos_ = pos; }
    const std::string& Whole() const { return text_; }

  private:
    size_t Past(const char* terminator) {
        size_t at = text_.find(terminator, pos_);
        return at == std::string::npos ? text_.size() : at + std::strlen(terminator);
    }

    const std::string& text_;
    size_t pos_ = 0;
};

// Parses what follows a `<value>` tag, up to and including its `</value>`.
bool ParseValue(Reader& reader, XmlRpcValue* value, int depth = 0) {
    if (depth > 32) {
        return false;
    }
    size_t start = reader.Position();
    reader.SkipSpace();
    if (reader.Whole().compare(reader.Position(), 8, "</value>") == 0 ||
        reader.Whole().compare(reader.Position(), 1, "<") != 0) {
        // An untyped value is a string, white space included.
        reader.Seek(start);
        value->kind = XmlRpcValue::Kind::kScalar;
        value->type = "string";
        value->text = Unescape(reader.Text());
        return reader.Expect("/value");
    }
    std::string type = reader.Tag();
    if (type == "array") {
        value->kind = XmlRpcValue::Kind::kArray;
        if (!reader.Expect("data")) {
            return false;
        }
        for (std::string tag = reader.Tag(); tag != "/data"; tag = reader.Tag()) {
            XmlRpcValue item;
            if (tag != "value" || !ParseValue(reader, &item, depth + 1)) {
                return false;
            }
            value->items.push_back(std::move(item));
        }
        return reader.Expect("/array") && reader.Expect("/value");
    }
    if (type == "struct") {
        value->kind = XmlRpcValue::Kind::kStruct;
        for (std::string tag = reader.Tag(); tag != "/struct"; tag = reader.Tag()) {
            if (tag != "member" || !reader.Expect("name")) {
                return false;
            }
            std::string name = Unescape(reader.Text());
            XmlRpcValue member;
            if (!reader.Expect("/name") || !reader.Expect("value") ||
                !ParseValue(reader, &member, depth + 1) || !reader.Expect("/member")) {
                return false;
            }
            value->members[name] = std::move(member);
        }
        return reader.Expect("/value");
    }
    if (type.empty() || type[0] == '/') {
        return false;
    }
    value->kind = XmlRpcValue::Kind::kScalar;
    if (type.back() == '/') {  // <string/>, <nil/>
        value->type = type.substr(0, type.size() - 1);
        value->text.clear();
        return reader.Expect("/value");
    }
    value->type = type;
    value->text = Unescape(reader.Text());
    return reader.Expect("/" + type) && reader.Expect("/value");
}

void AppendValue(const XmlRpcValue& value, std::string* out) {
    *out += "<value>";
    switch (value.kind) {
        case XmlRpcValue::Kind::kScalar:
            *out += "<" + value.type + ">" + Escape(value.text) + "</" + value.type + ">";
            break;
        case XmlRpcValue::Kind::kArray:
            *out += "<array><data>";
            for (const XmlRpcValue& item : value.items) {
                AppendValue(item, out);
            }
            *out += "</data></array>";
            break;
        case XmlRpcValue::Kind::kStruct:
            *out += "<struct>";
            for (const auto& [name, member] : value.members) {
                *out += "<member><name>" + Escape(name) + "</name>";
                AppendValue(member, out);
                *out += "</member>";
            }
            *out += "</struct>";
            break;
    }
    *out += "</value>";
}

std::string Lower(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return s;
}

std::string Trim(const std::string& s) {
    size_t begin = s.find_first_not_of(" \t");
    size_t end = s.find_last_not_of(" \t");
    return begin == std::string::npos ? std::string() : s.substr(begin, end - begin + 1);
}

}  // namespace

XmlRpcValue XmlRpcValue::String(const std::string& s) {
    XmlRpcValue v;
    v.text = s;
    return v;
}

XmlRpcValue XmlRpcValue::Int(int64_t i) {
    XmlRpcValue v;
    v.type = "int";
    v.text = std::to_string(i);
    return v;
}

XmlRpcValue XmlRpcValue::Bool(bool b) {
    XmlRpcValue v;
    v.type = "boolean";
    v.text = b ? "1" : "0";
    return v;
}

const XmlRpcValue& XmlRpcValue::Member(const std::string& name) const {
    static const XmlRpcValue kAbsent;
    auto it = members.find(name);
    return it != members.end() ? it->second : kAbsent;
}

bool ParseMethodResponse(const std::string& body, XmlRpcValue* result, std::string* error) {
    Reader reader(body);
    reader.SkipProlog();
    if (!reader.Expect("methodResponse")) {
        *error = "not a methodResponse";
        return false;
    }
    std::string tag = reader.Tag();
    if (tag == "fault") {
        XmlRpcValue fault;
        if (!reader.Expect("value") || !ParseValue(reader, &fault)) {
            *error = "unreadable fault";
            return false;
        }
        *error =
            "fault " + fault.Member("faultCode").text + ": " + fault.Member("faultString").text;
        return false;
    }
    if (tag != "params" || !reader.Expect("param") || !reader.Expect("value") ||
        !ParseValue(reader, result) || !reader.Expect("/param") || !reader.Expect("/params") ||
        !reader.Expect("/methodResponse")) {
        *error = "malformed methodResponse";
        return false;
    }
    return true;
}

std::string BuildMethodCall(const std::string& method, const std::vector<XmlRpcValue>& params) {
    std::string out = "<?xml version=\"1.0\"?>\n<methodCall><methodName>" + Escape(method) +
                      "</methodName><params>";
    for (const XmlRpcValue& param : params) {
        out += "<param>";
        AppendValue(param, &out);
        out += "</param>";
    }
    out += "</params></methodCall>\n";
    return out;
}

XmlRpcClient::XmlRpcClient(std::string endpoint, std::chrono::milliseconds timeout)
    : endpoint_(std::move(endpoint)), timeout_(timeout) {}

XmlRpcClient::~XmlRpcClient() {
    Close();
}

void XmlRpcClient::Close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
    buffer_.clear();
}

bool XmlRpcClient::Connect(std::string* error) {
    if (fd_ >= 0) {
        return true;
    }
    bool unixSocket = !endpoint_.empty() && endpoint_[0] == '/';
    fd_ = ::socket(unixSocket ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        *error = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int rc;
    if (unixSocket) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (endpoint_.size() >= sizeof(address.sun_path)) {
            *error = "socket path too long: " + endpoint_;
            Close();
            return false;
        }
        std::memcpy(address.sun_path, endpoint_.c_str(), endpoint_.size() + 1);
        rc = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    } else {
        int one = 1;
        ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::atoi(endpoint_.c_str())));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        rc = ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    }
    if (rc != 0) {
        *error = "connect " + endpoint_ + ": " + std::strerror(errno);
        Close();
        return false;
    }
    return true;
}

bool XmlRpcClient::SendAll(const std::string& data, std::string* error) {
    for (size_t sent = 0; sent < data.size();) {
        ssize_t n = ::send(fd_, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = std::string("send: ") + std::strerror(errno);
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

bool XmlRpcClient::Fill(std::chrono::steady_clock::time_point deadline, std::string* error) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            *error = "no reply in time";
            return false;
        }
        pollfd p{fd_, POLLIN, 0};
        int ready = ::poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            continue;  // the deadline check above ends it
        }
        char chunk[8192];
        ssize_t n = ::recv(fd_, chunk, sizeof(chunk), 0);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            *error = n == 0 ? "connection closed" : std::string("recv: ") + std::strerror(errno);
            return false;
        }
        buffer_.append(chunk, static_cast<size_t>(n));
        return true;
    }
}

bool XmlRpcClient::ReadResponse(std::string* body, bool* keepAlive, std::string* error) {
    auto deadline = std::chrono::steady_clock::now() + timeout_;
    size_t headerEnd;
    while ((headerEnd = buffer_.find("\r\n\r\n")) == std::string::npos) {
        if (!Fill(deadline, error)) {
            return false;
        }
    }
    std::string head = buffer_.substr(0, headerEnd);
    buffer_.erase(0, headerEnd + 4);
    size_t lineEnd = head.find("\r\n");
    std::string status = head.substr(0, lineEnd);
    if (status.compare(0, 5, "HTTP/") != 0 || status.find(" 200") == std::string::npos) {
        *error = "HTTP status: " + status;
        return false;
    }
    *keepAlive = status.compare(0, 8, "HTTP/1.1") == 0;
    long contentLength = -1;
    bool chunked = false;
    for (size_t at = lineEnd; at != std::string::npos && at < head.size();) {
        size_t next = head.find("\r\n", at + 2);
        std::string line =
            head.substr(at + 2, next == std::string::npos ? std::string::npos : next - at - 2);
        at = next;
        size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::string name = Lower(Trim(line.substr(0, colon)));
        std::string value = Lower(Trim(line.substr(colon + 1)));
        if (name == "content-length") {
            contentLength = std::atol(value.c_str());
        } else if (name == "transfer-encoding") {
            chunked = value.find("chunked") != std::string::npos;
        } else if (name == "connection") {
            *keepAlive = value.find("close") == std::string::npos &&
                         (*keepAlive || value.find("keep-alive") != std::string::npos);
        }
    }
    body->clear();
    if (chunked) {
        for (;;) {
            size_t sizeEnd;
            while ((sizeEnd = buffer_.find("\r\n")) == std::string::npos) {
                if (!Fill(deadline, error)) {
                    return false;
                }
            }
            size_t size = std::strtoul(buffer_.substr(0, sizeEnd).c_str(), nullptr, 16);
            while (buffer_.size() < sizeEnd + 2 + size + 2) {
                if (!Fill(deadline, error)) {
                    return false;
                }
            }
            body->append(buffer_, sizeEnd + 2, size);
            buffer_.erase(0, sizeEnd + 2 + size + 2);
            if (size == 0) {  // no trailers expected from an XML-RPC server
                return true;
            }
        }
    }
    if (contentLength < 0) {  // the body runs to the end of the connection
        std::string ignored;
        while (Fill(deadline, &ignored)) {
        }
        body->swap(buffer_);
        buffer_.clear();
        *keepAlive = false;
        return true;
    }
    while (buffer_.size() < static_cast<size_t>(contentLength)) {
        if (!Fill(deadline, error)) {
            return false;
        }
    }
    body->assign(buffer_, 0, static_cast<size_t>(contentLength));
    buffer_.erase(0, static_cast<size_t>(contentLength));
    return true;
}

bool XmlRpcClient::Call(const std::string& method, const std::vector<XmlRpcValue>& params,
                        XmlRpcValue* result, std::string* error) {
    std::string payload = BuildMethodCall(method, params);
    std::string request =
        "POST /RPC2 HTTP/1.1\r\nHost: localhost\r\nUser-Agent: orv-bench\r\n"
        "Content-Type: text/xml\r\nContent-Length: " +
        std::to_string(payload.size()) + "\r\n\r\n" + payload;
    // A kept-alive connection the server has closed since fails on first use:
    // that one failure is retried once on a new connection.
    bool reused = fd_ >= 0;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!Connect(error)) {
            return false;
        }
        std::string body;
        bool keepAlive = false;
        if (!SendAll(request, error) || !ReadResponse(&body, &keepAlive, error)) {
            Close();
            if (reused && attempt == 0 && *error != "no reply in time") {
                continue;
            }
            *error = method + ": " + *error;
            return false;
        }
        if (!keepAlive) {
            Close();
        }
        if (!ParseMethodResponse(body, result, error)) {
            *error = method + ": " + *error;
            return false;
        }
        return true;
    }
    return false;
}

}  // namespace orv::bench
