// KtWin32Library: optional libraries loaded by their Windows-style names through dlopen.
#include "Kt.h"

#include <dlfcn.h>

#include <cctype>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex gSearchMutex;
std::vector<std::string>& searchDirectories() {
    static std::vector<std::string> dirs;
    return dirs;
}

std::string mapName(const char* name) {
    std::string n(name);
    if (n.find('/') != std::string::npos) {
        return n;
    }
    if (n.size() > 4) {
        std::string tail = n.substr(n.size() - 4);
        for (char& c : tail) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (tail == ".dll") {
            n.resize(n.size() - 4);
        }
    }
    return "lib" + n + ".so";
}

std::string ownDirectory() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(&KtWin32Library::LoadWin32Library), &info) == 0 ||
        info.dli_fname == nullptr) {
        return std::string();
    }
    std::string path(info.dli_fname);
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

const char* KtWin32Library::mapLibraryName(const char* name) {
    thread_local std::string mapped;
    mapped = name == nullptr ? std::string() : mapName(name);
    return mapped.c_str();
}

KtModule KtWin32Library::LoadWin32Library(const char* name) {
    if (name == nullptr || *name == '\0') {
        return nullptr;
    }
    const std::string file = mapName(name);
    if (file.find('/') != std::string::npos) {
        return dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    }
    std::vector<std::string> dirs;
    {
        std::lock_guard<std::mutex> guard(gSearchMutex);
        dirs.assign(searchDirectories().rbegin(), searchDirectories().rend());
    }
    const std::string own = ownDirectory();
    if (!own.empty()) {
        dirs.push_back(own);
    }
    for (const std::string& dir : dirs) {
        const std::string path = dir + "/" + file;
        if (void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
            return handle;
        }
    }
    return dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
}

void* KtWin32Library::GetProcAddress(KtModule module, const char* symbol) {
    if (module == nullptr || symbol == nullptr) {
        return nullptr;
    }
    return dlsym(module, symbol);
}

void KtWin32Library::FreeLibrary(KtModule module) {
    if (module != nullptr) {
        dlclose(module);
    }
}

void KtWin32Library::addSearchDirectory(const char* directory) {
    if (directory == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> guard(gSearchMutex);
    searchDirectories().push_back(directory);
}

void KtWin32Library::clearSearchDirectories() {
    std::lock_guard<std::mutex> guard(gSearchMutex);
    searchDirectories().clear();
}
