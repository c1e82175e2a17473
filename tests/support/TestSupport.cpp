#include "TestSupport.h"

#include "Kt.h"
#include "LxLog.h"
#include "platform/com/LxpCom.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>

namespace lxtest {

void requireLog() {
    if (!LxLogSink::enabled()) {
        GTEST_SKIP() << "this build does not keep log messages (LORVEX_KEEP_LOG=OFF)";
    }
    LxLogSink::clear();
}

bool waitUntil(const std::function<bool()>& pred, int timeoutMs) {
    const auto start = std::chrono::steady_clock::now();
    while (!pred()) {
        if (msSince(start) > timeoutMs) {
            return pred();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/lorvex-test-XXXXXX";
    const char* made = mkdtemp(tmpl);
    path_ = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir() {
    std::error_code ignored;  // a leftover folder under /tmp is harmless
    if (path_.rfind("/tmp/lorvex-test-", 0) == 0) {
        std::filesystem::remove_all(path_, ignored);
    }
}

bool haveTool(const std::string& name) {
    const std::string cmd = "command -v " + name + " >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
}

int run(const std::string& command) {
    const int status = std::system(command.c_str());
    return status == -1 ? -1 : WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}

bool writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

bool registerFilterLibrary() {
    static const bool ok = [] {
        KtModule module = KtWin32Library::LoadWin32Library("qlm13_dshow.dll");
        if (module == nullptr) {
            return false;
        }
        typedef lxp::HRESULT (*RegisterFn)();
        RegisterFn reg =
            reinterpret_cast<RegisterFn>(KtWin32Library::GetProcAddress(module, "DllRegisterServer"));
        const bool registered = reg != nullptr && lxp::SUCCEEDED(reg());
        KtWin32Library::FreeLibrary(module);
        return registered;
    }();
    return ok;
}

unsigned testSeed() {
    const char* given = std::getenv("LORVEX_SEED");
    const unsigned seed =
        given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10)) : std::random_device()();
    std::printf("[   seed   ] LORVEX_SEED=%u\n", seed);
    return seed;
}

}  // namespace lxtest
