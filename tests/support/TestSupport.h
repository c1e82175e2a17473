// Helpers every test may use: log capture, temporary folders, polling waits, external tools, the
// filter library, seeds.
#ifndef LORVEX_TESTS_SUPPORT_TESTSUPPORT_H
#define LORVEX_TESTS_SUPPORT_TESTSUPPORT_H

#include <chrono>
#include <functional>
#include <string>

namespace lxtest {

/// Clears the log sink now; messages() then holds what the test produced. Skips the test when the
/// build does not keep messages (call it at the top of a test that checks messages).
void requireLog();

/// Polls pred every millisecond until it holds or timeoutMs passes; returns its last value.
/// For threaded tests that wait on another thread's progress (with generous time-outs).
bool waitUntil(const std::function<bool()>& pred, int timeoutMs = 10000);

/// A fresh directory under /tmp, removed with its contents on destruction.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

/// Whether an executable is on the PATH.
bool haveTool(const std::string& name);
/// Runs a shell command; returns its exit status (output goes to the test's output).
int run(const std::string& command);
/// Writes bytes to a file (creating or truncating it); false on failure.
bool writeFile(const std::string& path, const std::string& bytes);
/// Reads a whole file; empty when it cannot be read.
std::string readFile(const std::string& path);

/// Loads the filter library as the manager does and registers its classes (once per process);
/// false when it cannot be loaded or refuses.
bool registerFilterLibrary();

/// The seed of a randomised test: LORVEX_SEED from the environment, else a fresh one. Printed,
/// and kept in the failure messages of the test that asks for it, so a failing run can be repeated.
unsigned testSeed();

/// Milliseconds elapsed on a steady clock since start.
inline double msSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace lxtest

#endif
