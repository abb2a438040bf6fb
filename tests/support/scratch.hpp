// scratch.hpp: what most test programs share: the standard headers they use, whole-file
// reads and writes, and a fixture with a private scratch directory per test (under tmpfs where
// there is one, as the suite's own files are on the mail servers).
#ifndef ARDVEX_TESTS_SCRATCH_HPP
#define ARDVEX_TESTS_SCRATCH_HPP

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "log_capture.hpp"

namespace ow_test {

namespace fs = std::filesystem;

// The file's bytes, or `absent` when it cannot be opened.
inline std::string slurp(const std::string& path, const std::string& absent = "") {
    std::ifstream in(path, std::ios::binary);
    return in ? std::string(std::istreambuf_iterator<char>(in), {}) : absent;
}

inline void spit(const std::string& path, const std::string& bytes, mode_t mode = 0644) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    ::chmod(path.c_str(), mode);
}

// Exit status of a shell command, -1 when it did not exit.
inline int sh(const std::string& command) {
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class ScratchTest : public LogCaptureTest {
   protected:
    void SetUp() override {
        LogCaptureTest::SetUp();
        dir_ = fs::is_directory("/dev/shm") ? "/dev/shm/ardvex_test.XXXXXX"
                                            : "/tmp/ardvex_test.XXXXXX";
        ASSERT_NE(::mkdtemp(dir_.data()), nullptr) << std::strerror(errno);
    }
    void TearDown() override {
        std::error_code ec;
        if (!dir_.empty()) fs::remove_all(dir_, ec);
        LogCaptureTest::TearDown();
    }
    std::string path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

}  // namespace ow_test

#endif  // ARDVEX_TESTS_SCRATCH_HPP
