// https_endpoint.hpp: a recording HTTPS endpoint on 127.0.0.1 for tests that drive the real
// transfer tool. The fixture makes a self-signed certificate (make_cert.sh), starts
// https_endpoint.py on a free port, and ends it when it goes out of scope.
//
//     ow_test::https_endpoint endpoint({.status = 404});
//     ASSERT_TRUE(endpoint.ok()) << endpoint.error();
//     ... post to endpoint.url() ...
//     EXPECT_EQ(endpoint.body(1), "a=1");
//
// Constructing one also clears the proxy settings of this process's environment, so that
// the transfer tool (a child, which inherits them) talks to the endpoint directly and no
// request can leave the machine.
#ifndef ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
#define ARDVEX_TESTS_HTTPS_ENDPOINT_HPP

#include <sys/types.h>

#include <string>
#include <utility>

namespace ow_test {

struct https_endpoint_options {
    int status = 200;                // --status: the answer unless record_dir()/status says
    bool interim_100 = false;        // --interim-100: a "100 Continue" block first
    std::string reply;               // --reply: the body of every answer
    std::string host = "localhost";  // the certificate's name (127.0.0.1 is always in it)
};

class https_endpoint {
   public:
    // source_dir is the repository root, where tests/support holds the scripts.
    https_endpoint(const std::string& source_dir, https_endpoint_options options);
#ifdef ARDVEX_SOURCE_DIR
    explicit https_endpoint(https_endpoint_options options = {})
        : https_endpoint(ARDVEX_SOURCE_DIR, std::move(options)) {}
#endif
    ~https_endpoint();
    https_endpoint(const https_endpoint&) = delete;
    https_endpoint& operator=(const https_endpoint&) = delete;

    // True once the endpoint said it was ready; otherwise error() says what went wrong.
    bool ok() const { return port_ > 0; }
    const std::string& error() const { return error_; }

    int port() const { return port_; }
    const std::string& record_dir() const { return record_dir_; }
    const std::string& cert_file() const { return cert_file_; }
    // "https://127.0.0.1:<port><path>".
    std::string url(const std::string& path = "/store/metrics.php") const;

    // Makes every later request get status (writes record_dir()/status).
    void set_status(int status) const;
    // Number of POSTs recorded so far, and the body and request head of the n-th (from 1);
    // empty when there is none.
    int request_count() const;
    std::string body(int n) const;
    std::string request(int n) const;

   private:
    std::string work_dir_;
    std::string record_dir_;
    std::string cert_file_;
    std::string error_;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_HTTPS_ENDPOINT_HPP
