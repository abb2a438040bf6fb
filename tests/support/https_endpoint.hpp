// A recording HTTPS endpoint on 127.0.0.1 for tests that drive the real transfer tool: it
// makes a self-signed certificate (make_cert.sh), runs https_endpoint.py on a free port and
// ends it when it goes out of scope. Constructing one also clears this process's proxy
// settings, so the tool (a child, which inherits them) can only reach the endpoint.
#ifndef ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
#define ARDVEX_TESTS_HTTPS_ENDPOINT_HPP

#include <sys/types.h>

#include <cstdio>
#include <string>

namespace ow_test {

struct https_endpoint_options {
    int status = 200;                // the answer, until set_status() changes it
    bool interim_100 = false;        // a "100 Continue" block first
    std::string reply;               // the body of every answer
    std::string host = "localhost";  // the certificate's name (127.0.0.1 is always in it)
};

class https_endpoint {
   public:
    https_endpoint(const std::string& source_dir, const https_endpoint_options& options);
#ifdef ARDVEX_SOURCE_DIR
    explicit https_endpoint(const https_endpoint_options& options = {})
        : https_endpoint(ARDVEX_SOURCE_DIR, options) {}
#endif
    ~https_endpoint();
    https_endpoint(const https_endpoint&) = delete;
    https_endpoint& operator=(const https_endpoint&) = delete;

    bool ok() const { return port_ > 0; }  // otherwise error() says why
    const std::string& error() const { return error_; }
    std::string url(const std::string& path = "/store/metrics.php") const {
        return "https://127.0.0.1:" + std::to_string(port_) + path;
    }

    void set_status(int status) const;  // for every later request
    // The body and request head of the n-th POST (from 1), or "" when there was none.
    std::string body(int n) const { return recorded("/body-", n, ".bin"); }
    std::string request(int n) const { return recorded("/request-", n, ".txt"); }

   private:
    std::string recorded(const char* prefix, int n, const char* suffix) const;
    std::string work_dir_, record_dir_, error_;
    FILE* out_ = nullptr;  // the endpoint's standard output
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
