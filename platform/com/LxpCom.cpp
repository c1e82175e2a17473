#include "platform/com/LxpCom.h"

#include <cstring>
#include <mutex>
#include <vector>

namespace lxp {

const IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};
const IID IID_IClassFactory = {0x00000001, 0x0000, 0x0000, {0xC0, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x46}};

bool operator==(const GUID& a, const GUID& b) {
    return a.Data1 == b.Data1 && a.Data2 == b.Data2 && a.Data3 == b.Data3 &&
           std::memcmp(a.Data4, b.Data4, sizeof a.Data4) == 0;
}

namespace {

struct Registration {
    CLSID clsid;
    IClassFactory* factory;
};

struct InjectedFailure {
    CLSID clsid;
    int count;
    HRESULT hr;
};

struct Registry {
    std::mutex mutex;
    std::vector<Registration> classes;
    std::vector<InjectedFailure> createFailures;
    int initFailures = 0;
    HRESULT initFailure = E_FAIL;
};

Registry& registry() {
    static Registry* r = new Registry();  // outlives static teardown; classes may unregister late
    return *r;
}

thread_local int tInitCount = 0;

// Returns the factory (AddRef'd) or a failure; injected failures come first.
HRESULT findFactory(const CLSID& clsid, IClassFactory** out) {
    *out = nullptr;
    if (tInitCount <= 0) {
        return CO_E_NOTINITIALIZED;
    }
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    for (auto it = r.createFailures.begin(); it != r.createFailures.end(); ++it) {
        if (it->clsid == clsid && it->count != 0) {
            const HRESULT hr = it->hr;
            if (it->count > 0 && --it->count == 0) {
                r.createFailures.erase(it);
            }
            return hr;
        }
    }
    for (const Registration& reg : r.classes) {
        if (reg.clsid == clsid) {
            reg.factory->AddRef();
            *out = reg.factory;
            return S_OK;
        }
    }
    return REGDB_E_CLASSNOTREG;
}

}  // namespace

HRESULT CoInitialize(void*) {
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> guard(r.mutex);
        if (r.initFailures != 0) {
            if (r.initFailures > 0) {
                --r.initFailures;
            }
            return r.initFailure;
        }
    }
    return tInitCount++ == 0 ? S_OK : S_FALSE;
}

void CoUninitialize() {
    if (tInitCount > 0) {
        --tInitCount;
    }
}

namespace {

/// What CoCreateInstance and CoGetClassObject share: the checks, the lookup of clsid's factory
/// and its release after use(factory).
template <class Use>
HRESULT withFactory(const CLSID& clsid, void** out, Use use) {
    if (out == nullptr) {
        return E_POINTER;
    }
    *out = nullptr;
    IClassFactory* factory = nullptr;
    HRESULT hr = findFactory(clsid, &factory);
    if (FAILED(hr)) {
        return hr;
    }
    hr = use(factory);
    factory->Release();
    return hr;
}

}  // namespace

HRESULT CoCreateInstance(const CLSID& clsid, IUnknown* outer, uint32_t, const IID& iid, void** out) {
    return withFactory(clsid, out, [&](IClassFactory* f) { return f->CreateInstance(outer, iid, out); });
}

HRESULT CoGetClassObject(const CLSID& clsid, uint32_t, void*, const IID& iid, void** out) {
    return withFactory(clsid, out, [&](IClassFactory* f) { return f->QueryInterface(iid, out); });
}

HRESULT ClassFactory::QueryInterface(const IID& iid, void** out) {
    return queryOwn(iid, IID_IClassFactory, out);
}

HRESULT ClassFactory::CreateInstance(IUnknown* outer, const IID& iid, void** out) {
    if (out == nullptr) {
        return E_POINTER;
    }
    *out = nullptr;
    if (outer != nullptr) {
        return CLASS_E_NOAGGREGATION;
    }
    return createObject(iid, out);
}

HRESULT registerClass(const CLSID& clsid, IClassFactory* factory) {
    if (factory == nullptr) {
        return E_POINTER;
    }
    factory->AddRef();
    IClassFactory* old = nullptr;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> guard(r.mutex);
        for (Registration& reg : r.classes) {
            if (reg.clsid == clsid) {
                old = reg.factory;
                reg.factory = factory;
                break;
            }
        }
        if (old == nullptr) {
            r.classes.push_back({clsid, factory});
        }
    }
    if (old != nullptr) {
        old->Release();
    }
    return S_OK;
}

HRESULT unregisterClass(const CLSID& clsid) {
    IClassFactory* old = nullptr;
    {
        Registry& r = registry();
        std::lock_guard<std::mutex> guard(r.mutex);
        for (auto it = r.classes.begin(); it != r.classes.end(); ++it) {
            if (it->clsid == clsid) {
                old = it->factory;
                r.classes.erase(it);
                break;
            }
        }
    }
    if (old == nullptr) {
        return S_FALSE;
    }
    old->Release();
    return S_OK;
}

bool isClassRegistered(const CLSID& clsid) {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    for (const Registration& reg : r.classes) {
        if (reg.clsid == clsid) {
            return true;
        }
    }
    return false;
}

namespace comtest {

void failCoInitialize(int count, HRESULT hr) {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    r.initFailures = count;
    r.initFailure = hr;
}

void failCreate(const CLSID& clsid, int count, HRESULT hr) {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    r.createFailures.push_back({clsid, count, hr});
}

void reset() {
    Registry& r = registry();
    std::lock_guard<std::mutex> guard(r.mutex);
    r.createFailures.clear();
    r.initFailures = 0;
}

int threadInitCount() {
    return tInitCount;
}

}  // namespace comtest

}  // namespace lxp
