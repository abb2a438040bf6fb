// A recording HTTPS endpoint on 127.0.0.1 for tests that drive the real transfer tool: it
// makes a self-signed certificate (make_cert.sh), runs https_endpoint.py on a free port and
// ends it when it goes out of scope. Constructing one also clears this process's proxy
// settings, so the tool (a child, which inherits them) can only reach the endpoint.
#ifndef ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
#define ARDVEX_TESTS_HTTPS_ENDPOINT_HPP

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <utility>

namespace ow_test {

struct https_endpoint_options {
    int status = 200;                // the answer, until set_status() changes it
    bool interim_100 = false;        // a "100 Continue" block first
    std::string reply;               // the body of every answer
    std::string host = "localhost";  // the certificate's name (127.0.0.1 is always in it)
};

class https_endpoint {
   public:
    https_endpoint(const std::string& source_dir, https_endpoint_options options);
#ifdef ARDVEX_SOURCE_DIR
    explicit https_endpoint(https_endpoint_options options = {})
        : https_endpoint(ARDVEX_SOURCE_DIR, std::move(options)) {}
#endif
    ~https_endpoint();
    https_endpoint(const https_endpoint&) = delete;
    https_endpoint& operator=(const https_endpoint&) = delete;

    bool ok() const { return port_ > 0; }  // otherwise error() says why
    const std::string& error() const { return error_; }
    int port() const { return port_; }
    const std::string& record_dir() const { return record_dir_; }
    const std::string& cert_file() const { return cert_file_; }
    std::string url(const std::string& path = "/store/metrics.php") const;

    void set_status(int status) const;  // for every later request
    // POSTs recorded so far, and the body and request head of the n-th (from 1), or "".
    int request_count() const;
    std::string body(int n) const;
    std::string request(int n) const;

   private:
    std::string work_dir_, record_dir_, cert_file_, error_;
    FILE* out_ = nullptr;  // the endpoint's standard output
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
