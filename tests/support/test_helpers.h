// What the tests of several layers need: directories, files and processes of their own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace tarvo::test {

// A fresh directory, removed with all it holds.
class TemporaryDirectory {
  public:
    TemporaryDirectory() {
        std::string name = std::filesystem::temp_directory_path() / "tarvo_test_XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) std::abort();
        path_ = name;
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
    TemporaryDirectory(TemporaryDirectory&&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory&&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

    // Makes the directories above it too.
    std::string write(const std::string& name, const std::string& content) const {
        std::string where = file(name);
        std::filesystem::create_directories(std::filesystem::path(where).parent_path());
        std::ofstream(where, std::ios::binary) << content;
        return where;
    }

  private:
    std::string path_;
};

inline std::string content_of(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// Starts a child that runs `body` and exits with its result, without any clean-up of the parent's.
template <typename Body>
[[nodiscard]] pid_t start_child(Body body) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(static_cast<int>(body()));
    return child;
}

// The exit code of a child, or -1 when it did not exit by itself.
[[nodiscard]] inline int exit_code(pid_t child) {
    int status = -1;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

template <typename Body>
[[nodiscard]] int in_child(Body body) {
    return exit_code(start_child(body));
}

}  // namespace tarvo::test
